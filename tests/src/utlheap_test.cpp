#include <povzel/utlheap.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include <povzel/hostdebug.h>
#include <povzel/utlsystem.h>
#include "basics/fortests.h"
#include "faults.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

TEST(UtlHeap, FailureIsReportedWithTheRequester) {
  const struct {
    void* (*allocate)();
    std::string report;
  } cases[] = {
      {[] { return UtlMalloc(3000000000U, "tvhash"); }, "3000000000 bytes: tvhash"},
      {[] { return UtlMalloc(77, nullptr); }, ""},
      {[] { return UtlMallocF(77, 12, "src/x"); }, "77 bytes from src/x line 12"},
      {[] { return UtlMallocF(0xFFFFFFFFU, -1, nullptr); }, "-1 bytes from (null) line -1"},
      {[] { return UtlMalloc_(77, 12); }, ""},
      {[] { return UtlMallocExe(5, 9, "src/y"); }, "5 bytes from src/y line 9"},
  };
  for (const auto& c : cases) {
    const FailingCall failing("malloc", ENOMEM);
    CaptureStdout();
    CaptureStderr();
    EXPECT_EQ(c.allocate(), nullptr);
    EXPECT_EQ(GetCapturedStdout(), c.report.empty() ? "" : "\n");
    const std::string expected = "malloc failure allocating " + c.report + "\n";
    EXPECT_EQ(GetCapturedStderr(), c.report.empty() ? "" : expected);
  }
}

TEST(UtlHeapDeathTest, FailureEndsTheProcess) {
  const auto fail = [] {
    const FailingCall failing("malloc", ENOMEM);
    noHalt = 0;
    UtlMalloc(8, "tvdstring");
  };
  EXPECT_EXIT(fail(), testing::ExitedWithCode(3),
              "^malloc failure allocating 8 bytes: tvdstring\n");
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

TEST(UtlHeap, RefusedExecutableMemoryIsNull) {
  const FailingCall failing("mprotect", EACCES);
  EXPECT_EQ(UtlMallocExe(100, 1, "test"), nullptr);
}

TEST(UtlHeap, PrintsOnlyOfBrokenGuarantees) {
  CaptureStdout();
  UtlHeapInit();
  UtlHeapInit();
  UtlHeapCheck();
  EXPECT_EQ(UtlHeapSizeKB(), 0U);
  UtlHeapPrint();
  noHalt = 1;
  UtlFree(nullptr);
  noHalt = 0;
  EXPECT_EQ(GetCapturedStdout(),
            "--- C Heap summary not available\n"
            "Freeing a NULL pointer\n"
            "UTL_GUARANTEE failure in file src/utlheap at line 434\n");
}

TEST(UtlSystem, PageSizeAndDescriptors) {
  EXPECT_EQ(UtlGetPageSize(), getpagesize());
  EXPECT_EQ(UtlDisableFdMapping(5), 0);
  EXPECT_EQ(UtlDisableFdMapping(0), 5);
  for (const int fd : {-1, 0, 2, 70000}) EXPECT_EQ(UtlMapFd(fd), fd);
}

}  // namespace
