#include <povzel/unwind.h>

#include <povzel/hostdebug.h>
#include "tests.h"

// Unwinds with a buffer set; tells what that received.
static int received(const std::function<void()>& unwind) {
  UnwindJmpBufSType buffer;
  buffer.previous = UnwindGetCurrentJumpBuffer();
  UnwindSetCurrentJumpBuffer(&buffer);
  const int result = setjmp(buffer.buf);  // NOLINT(cert-err52-cpp)
  if (result == 0) {
    unwind();
    return -2;
  }
  EXPECT_EQ(UnwindGetCurrentJumpBuffer(), &buffer);
  UnwindSetCurrentJumpBuffer(buffer.previous);
  return result;
}

TEST(Unwind, WithoutABufferIsFatal) {
  const ChildResult child = runInChild([] { UnwindDoUnwind(UNWIND_ERR); });
  EXPECT_EQ(exitCode(child), 3);
  EXPECT_EQ(received([] { UnwindDoUnwind(UNWIND_NO_SIGNAL); }), 1);
  EXPECT_EQ(UnwindGetExceptionVal(), UNWIND_NO_SIGNAL);
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
