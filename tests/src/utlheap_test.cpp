#include <povzel/utlheap.h>

#include <povzel/utlsystem.h>
#include "faults.h"
#include "tests.h"

TEST(UtlHeap, FailureIsReportedWithTheRequester) {
  const std::pair<void* (*)(), std::string> cases[] = {
      {[] { return UtlMalloc(3000000000U, "tvhash"); }, "3000000000 bytes: tvhash"},
      {[] { return UtlMalloc(77, nullptr); }, ""},
      {[] { return UtlMallocF(77, 12, "src/x"); }, "77 bytes from src/x line 12"},
      {[] { return UtlMalloc_(77, 12); }, ""},
      {[] { return UtlMallocExe(5, 9, "src/y"); }, "5 bytes from src/y line 9"},
  };
  for (const auto& [allocate, report] : cases) {
    const FailingCall failing("malloc", ENOMEM);
    EXPECT_EQ(printed([&, allocate = allocate] { EXPECT_EQ(allocate(), nullptr); }),
              report.empty() ? "" : "malloc failure allocating " + report + "\n\n");
  }
}

TEST(UtlHeap, ExecutableBlocksRunCodeFromTheirFirstAndLastPage) {
  constexpr unsigned char returnSeven[] = {0xB8, 7, 0, 0, 0, 0xC3};  // mov $7,%eax; ret
  for (const std::size_t length : {sizeof returnSeven, std::size_t{70000}}) {
    auto* block = static_cast<unsigned char*>(UtlMallocExe(length, 1, "test"));
    ASSERT_NE(block, nullptr);
    for (unsigned char* at : {block, block + length - sizeof returnSeven}) {
      std::memcpy(at, returnSeven, sizeof returnSeven);
      EXPECT_EQ(reinterpret_cast<int (*)()>(at)(), 7);
    }
    UtlFree(block);
  }
  const FailingCall failing("mprotect", EACCES);
  EXPECT_EQ(UtlMallocExe(100, 1, "test"), nullptr);
}

TEST(UtlHeap, PrintsOnlyOfBrokenGuarantees) {
  const ChildResult child = runInChild([] {
    for (int i = 0; i < 2; ++i) UtlHeapInit();
    UtlHeapCheck();
    UtlHeapPrint();
    UtlFree(nullptr);
  });
  EXPECT_THAT(child.out + child.err,
              Reads("--- C Heap summary not available\nFreeing a NULL pointer\n"
                    "UTL_GUARANTEE failure in file src/utlheap at line 434\n"));
  EXPECT_EQ(UtlHeapSizeKB(), 0U);
}

TEST(UtlSystem, PageSizeAndDescriptors) {
  EXPECT_EQ(UtlGetPageSize(), getpagesize());
  EXPECT_EQ(UtlDisableFdMapping(5), 0);
  EXPECT_EQ(UtlDisableFdMapping(0), 5);
  EXPECT_EQ(UtlMapFd(70000), 70000);
}
