#include <povzel/unwind.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <povzel/hostdebug.h>
#include "process.h"

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

TEST(Unwind, ReachesTheInnermostBuffer) {
  for (int kind = UNWIND_NO_SIGNAL; kind <= UNWIND_LOST_OT; ++kind) {
    const auto value = static_cast<UnwindKindEType>(kind);
    EXPECT_EQ(received([value] { UnwindDoUnwind(value); }), kind == 0 ? 1 : kind);
    EXPECT_EQ(UnwindGetExceptionVal(), value);
  }
  EXPECT_EQ(UnwindGetCurrentJumpBuffer(), nullptr);
  UnwindEnd();
}

TEST(Unwind, WithoutABufferIsFatal) {
  const ChildResult child = runInChild([] { UnwindDoUnwind(UNWIND_ERR); });
  EXPECT_TRUE(child.exitedWith(3)) << child.status;
  EXPECT_THAT(child.err, testing::StartsWith("UNWIND called with no handler!\n"));
  noHalt = 1;
  UnwindSetExceptionVal(UNWIND_RESTART);
  UnwindDoUnwind(UNWIND_ERR);
  EXPECT_EQ(UnwindGetExceptionVal(), UNWIND_RESTART);
  noHalt = 0;
}

TEST(Unwind, TraceTellsKindAndPlace) {
  const std::string longFile(300, 'f');
  const std::string traced = "^\\[[^\n]*\\]\n    \\[DEBUG\\]: Unwind\\(";
  const std::string broken = "^UTL_GUARANTEE failure in file src/unwind at line [0-9]+\n$";
  const std::tuple<int, const char*, int, std::string> cases[] = {
      {0, "x.c", 1, traced + "UNWIND_NO_SIGNAL\\) called from line 42 in x.c\n$"},
      {8, "x.c", 8, traced + "UNWIND_SERV_TXT_FILE_TO_OOP_JMP\\) called from line 42 in x.c\n$"},
      {14, "x.c", 14, traced + "UNWIND_LOST_OT\\) called from line 42 in x.c\n$"},
      {1, longFile.c_str(), 1, traced + "UNWIND_ERR\\) called from line 42 in f{98}\n$"},
      {-1, "x.c", -2, broken},
      {15, "x.c", -2, broken},
  };
  for (const auto& [kind, file, outcome, trace] : cases) {
    const ChildResult child = inChild([value = static_cast<UnwindKindEType>(kind), file = file] {
      noHalt = 1;
      return 10 + received([&] { UnwindDoTraceUnwind(value, file, 42); });
    });
    EXPECT_EQ(exitCode(child), 10 + outcome);
    EXPECT_THAT(child.out, testing::ContainsRegex(trace));
  }
}

}  // namespace
