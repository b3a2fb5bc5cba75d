#include <povzel/tvdstring.h>

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
