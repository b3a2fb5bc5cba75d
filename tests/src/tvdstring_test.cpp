#include <povzel/tvdstring.h>

#include <sys/mman.h>
#include <unistd.h>

#include "faults.h"
#include "tests.h"

// Twofold for texts, exactly for lengths. Sizes that no allocation can have, or that exceed 32
// bits, fail like those that the heap refuses.
TEST(TvDString, GrowsWhenItIsFullOrStaysAsItWas) {
  TvDString ds;
  TvDStringInit(&ds);
  for (const auto& [length, space] : {std::pair(199, 200), {1, 400}}) {
    TvDStringAppend(&ds, std::string(length, 'q').c_str(), length);
    EXPECT_EQ(ds.spaceAvl, space);
  }
  const std::tuple<bool, long, const char*> cases[] = {{true, 1000, "2400"},
                                                       {true, LONG_MAX, "4294967295"},
                                                       {false, 600, "601"},
                                                       {false, LONG_MAX, "2147483648"}};
  for (const auto& [appends, length, size] : cases) {
    const TvDString before = ds;
    const FailingCall failing("malloc", ENOMEM);
    const auto grow = [&, appends = appends, length = length] {
      if (!appends) TvDStringSetLength(&ds, length);
      EXPECT_EQ(appends ? TvDStringAppend(&ds, "text", length) : nullptr, nullptr);
    };
    const std::string report =
        std::string("malloc failure allocating ") + size + " bytes: tvdstring\n\n";
    EXPECT_EQ(printed(grow), report);
    EXPECT_EQ(std::memcmp(&before, &ds, sizeof before), 0);
  }
  TvDStringFree(&ds);
}

#ifndef POVZEL_SANITIZE
// One piece of memory, mapped over and over, is a text of 2 GiB.
TEST(TvDString, TextsThatNoLongCanCountAreTooLong) {
  constexpr std::size_t piece = 64 << 20, pieces = 33;
  auto* const text = static_cast<char*>(
      mmap(nullptr, piece * pieces, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
  const int file = memfd_create("text", MFD_CLOEXEC);
  ASSERT_EQ(ftruncate(file, piece), 0);
  for (std::size_t i = 0; i < pieces; ++i) {
    ASSERT_NE(
        mmap(text + i * piece, piece, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file, 0),
        MAP_FAILED);
  }
  std::memset(text, 'x', piece);
  mmap(text + (pieces - 1) * piece, piece, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1,
       0);
  TvDString ds;
  TvDStringInit(&ds);
  const FailingCall failing("malloc", ENOMEM);
  EXPECT_EQ(printed([&] { EXPECT_EQ(TvDStringAppend(&ds, text, -1), nullptr); }),
            "malloc failure allocating 4294967295 bytes: tvdstring\n\n");
  EXPECT_EQ(std::string(ds.string), "");
  munmap(text, piece * pieces);
  close(file);
}
#endif
