#include <povzel/utlheap.h>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include <povzel/hostdebug.h>
#include <povzel/utlsystem.h>
#include "basics/fortests.h"
#include "failing_heap.h"

namespace {

#ifndef PR_SET_MDWE
#define PR_SET_MDWE 65
#define PR_MDWE_REFUSE_EXEC_GAIN 1
#endif

struct Printed {
  std::string out;
  std::string err;
};

template <typename Action>
Printed printedBy(Action action) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  action();
  return {testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}

TEST(UtlHeap, FailureIsReportedWithTheRequester) {
  struct Case {
    const char* name;
    void* (*allocate)();
    const char* out;
    const char* err;
  };
  const Case cases[] = {
      {"reason", [] { return UtlMalloc(3000000000U, "tvhash"); }, "\n",
       "malloc failure allocating 3000000000 bytes: tvhash\n"},
      {"no reason", [] { return UtlMalloc(77, nullptr); }, "", ""},
      {"file and line", [] { return UtlMallocF(77, 12, "src/x"); }, "\n",
       "malloc failure allocating 77 bytes from src/x line 12\n"},
      {"signed length", [] { return UtlMallocF(0xFFFFFFFFU, -1, nullptr); }, "\n",
       "malloc failure allocating -1 bytes from (null) line -1\n"},
      {"silent", [] { return UtlMalloc_(77, 12); }, "", ""},
      {"executable", [] { return UtlMallocExe(5, 9, "src/y"); }, "\n",
       "malloc failure allocating 5 bytes from src/y line 9\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const FailingHeap failing(0);
    void* block = &block;
    const Printed printed = printedBy([&] { block = c.allocate(); });
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(printed.out, c.out);
    EXPECT_EQ(printed.err, c.err);
  }
}

TEST(UtlHeapDeathTest, FailureEndsTheProcess) {
  EXPECT_EXIT(
      {
        utlHeapAllocateForTests = [](std::size_t) -> void* { return nullptr; };
        UtlMalloc(8, "tvdstring");
      },
      testing::ExitedWithCode(3), "^malloc failure allocating 8 bytes: tvdstring\n");
}

TEST(UtlHeap, FreeOfNullIsABrokenGuarantee) {
  noHalt = 1;
  const Printed printed = printedBy([] { UtlFree(nullptr); });
  noHalt = 0;
  EXPECT_EQ(printed.out,
            "Freeing a NULL pointer\n"
            "UTL_GUARANTEE failure in file src/utlheap at line 434\n");
}

TEST(UtlHeap, ExecutableBlocksRunCodeFromTheirFirstAndLastPage) {
  constexpr unsigned char returnSeven[] = {0xB8, 7, 0, 0, 0, 0xC3};  // mov $7,%eax; ret
  for (const std::size_t length : {sizeof returnSeven, std::size_t{5000}, std::size_t{70000}}) {
    auto* block = static_cast<unsigned char*>(UtlMallocExe(length, 1, "test"));
    ASSERT_NE(block, nullptr);
    for (unsigned char* at : {block, block + length - sizeof returnSeven}) {
      std::memcpy(at, returnSeven, sizeof returnSeven);
      EXPECT_EQ(reinterpret_cast<int (*)()>(at)(), 7);
    }
    UtlFree(block);
  }
  void* empty = UtlMallocExe(0, 1, "test");
  EXPECT_NE(empty, nullptr);
  UtlFree(empty);
}

TEST(UtlHeapDeathTest, RefusedExecutableMemoryIsNull) {
  EXPECT_EXIT(
      {
        if (prctl(PR_SET_MDWE, PR_MDWE_REFUSE_EXEC_GAIN, 0, 0, 0) != 0) std::_Exit(0);
        std::_Exit(UtlMallocExe(100, 1, "test") == nullptr ? 0 : 1);
      },
      testing::ExitedWithCode(0), "^$");
}

TEST(UtlHeap, IsNeitherCheckedNorMeasured) {
  UtlHeapInit();
  UtlHeapInit();
  UtlHeapCheck();
  EXPECT_EQ(UtlHeapSizeKB(), 0U);
  EXPECT_EQ(printedBy(UtlHeapPrint).out, "--- C Heap summary not available\n");
}

TEST(UtlSystem, PageSizeAndDescriptors) {
  EXPECT_EQ(UtlGetPageSize(), getpagesize());
  EXPECT_EQ(UtlDisableFdMapping(5), 0);
  EXPECT_EQ(UtlDisableFdMapping(0), 5);
  for (const int fd : {-1, 0, 2, 70000}) EXPECT_EQ(UtlMapFd(fd), fd);
}

}  // namespace
