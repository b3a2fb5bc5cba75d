#include <povzel/utlheap.h>

#include <povzel/hostdebug.h>
#include <povzel/utlsystem.h>
#include "faults.h"
#include "tests.h"

namespace {

// What `action` prints, errors last.
std::string printedBy(const std::function<void()>& action) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  action();
  const std::string printed = testing::internal::GetCapturedStdout();
  return printed + testing::internal::GetCapturedStderr();
}

TEST(UtlHeapDeathTest, FailureIsReportedWithTheRequester) {
  const std::pair<void* (*)(), std::string> cases[] = {
      {[] { return UtlMalloc(3000000000U, "tvhash"); }, "3000000000 bytes: tvhash"},
      {[] { return UtlMalloc(77, nullptr); }, ""},
      {[] { return UtlMallocF(77, 12, "src/x"); }, "77 bytes from src/x line 12"},
      {[] { return UtlMallocF(0xFFFFFFFFU, -1, nullptr); }, "-1 bytes from (null) line -1"},
      {[] { return UtlMalloc_(77, 12); }, ""},
      {[] { return UtlMallocExe(5, 9, "src/y"); }, "5 bytes from src/y line 9"},
  };
  for (const auto& [allocate, report] : cases) {
    const FailingCall failing("malloc", ENOMEM);
    const std::string printed = printedBy([&] { EXPECT_EQ(allocate(), nullptr); });
    EXPECT_EQ(printed, report.empty() ? "" : "\nmalloc failure allocating " + report + "\n");
  }
  const FailingCall failing("malloc", ENOMEM);
  noHalt = 0;
  EXPECT_EXIT(UtlMalloc(8, "tvdstring"), testing::ExitedWithCode(3),
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
  const FailingCall failing("mprotect", EACCES);
  EXPECT_EQ(UtlMallocExe(100, 1, "test"), nullptr);
}

TEST(UtlHeap, PrintsOnlyOfBrokenGuarantees) {
  noHalt = 1;
  const auto use = [] {
    for (int i = 0; i < 2; ++i) UtlHeapInit();
    UtlHeapCheck();
    UtlHeapPrint();
    UtlFree(nullptr);
  };
  EXPECT_EQ(printedBy(use),
            "--- C Heap summary not available\nFreeing a NULL pointer\n"
            "UTL_GUARANTEE failure in file src/utlheap at line 434\n");
  noHalt = 0;
  EXPECT_EQ(UtlHeapSizeKB(), 0U);
}

TEST(UtlSystem, PageSizeAndDescriptors) {
  EXPECT_EQ(UtlGetPageSize(), getpagesize());
  EXPECT_EQ(UtlDisableFdMapping(5), 0);
  EXPECT_EQ(UtlDisableFdMapping(0), 5);
  for (const int fd : {-1, 0, 2, 70000}) EXPECT_EQ(UtlMapFd(fd), fd);
}

}  // namespace
