#include <povzel/unwind.h>

#include <povzel/hostdebug.h>
#include "tests.h"

namespace {

// Unwinds from within two nested buffers; tells what the inner one received.
template <typename Unwind>
int received(Unwind unwind) {
  UnwindJmpBufSType outer;
  UnwindJmpBufSType inner;
  outer.previous = UnwindGetCurrentJumpBuffer();
  UnwindSetCurrentJumpBuffer(&outer);
  if (setjmp(outer.buf) != 0) return -1;  // NOLINT(cert-err52-cpp)
  inner.previous = UnwindGetCurrentJumpBuffer();
  UnwindSetCurrentJumpBuffer(&inner);
  const int result = setjmp(inner.buf);  // NOLINT(cert-err52-cpp)
  if (result == 0) {
    UnwindSetExceptionVal(UNWIND_LOST_OT);
    unwind();
    return -2;
  }
  EXPECT_EQ(UnwindGetCurrentJumpBuffer(), &inner);
  UnwindSetCurrentJumpBuffer(outer.previous);
  return result;
}

TEST(Unwind, WithoutABufferIsFatal) {
  const ChildResult child = runInChild([] { UnwindDoUnwind(UNWIND_ERR); });
  EXPECT_EQ(exitCode(child), 3);
  EXPECT_EQ(received([] { UnwindDoUnwind(UNWIND_NO_SIGNAL); }), 1);
  EXPECT_EQ(UnwindGetCurrentJumpBuffer(), nullptr);
  UnwindEnd();
  EXPECT_THAT(child.err, StartsWith("UNWIND called with no handler!\n"));
}

TEST(Unwind, TraceTellsKindAndPlace) {
  const std::tuple<int, int, std::string> cases[] = {{8, 8, "UNWIND_SERV_TXT_FILE_TO_OOP_JMP"},
                                                     {14, 14, "UNWIND_LOST_OT"},
                                                     {-1, -2, ""},
                                                     {15, -2, ""}};
  for (const auto& [kind, outcome, name] : cases) {
    const ChildResult child = inChild([value = static_cast<UnwindKindEType>(kind)] {
      noHalt = 1;
      const std::string longFile(300, 'f');
      return 10 + received([&] { UnwindDoTraceUnwind(value, longFile.c_str(), 42); });
    });
    EXPECT_EQ(exitCode(child), 10 + outcome);
    std::string trace = "    [DEBUG]: Unwind(" + name + ") called from line 42 in ";
    trace += std::string(153 - trace.size(), 'f') + "\n";
    const char* broken = "UTL_GUARANTEE failure in file src/unwind at line ";
    EXPECT_THAT(child.out, HasSubstr(name.empty() ? broken : trace));
  }
}

}  // namespace
