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
  const std::string stamp = "\\[[^\n]*\\]\n    ";
  const struct {
    int kind;
    const char* file;
    int received;
    std::string trace;
  } cases[] = {
      {UNWIND_NO_SIGNAL, "x.c", 1,
       stamp + "\\[DEBUG\\]: Unwind\\(UNWIND_NO_SIGNAL\\) called from line 42 in x.c\n"},
      {UNWIND_SERV_TXT_FILE_TO_OOP_JMP, "x.c", 8,
       stamp +
           "\\[DEBUG\\]: Unwind\\(UNWIND_SERV_TXT_FILE_TO_OOP_JMP\\) called from line 42 in x.c\n"},
      {UNWIND_LOST_OT, "x.c", 14,
       stamp + "\\[DEBUG\\]: Unwind\\(UNWIND_LOST_OT\\) called from line 42 in x.c\n"},
      {UNWIND_ERR, longFile.c_str(), 1,
       stamp + "\\[DEBUG\\]: Unwind\\(UNWIND_ERR\\) called from line 42 in f{98}\n"},
      {-1, "x.c", -2, "UTL_GUARANTEE failure in file src/unwind at line [0-9]+\n"},
      {15, "x.c", -2, "UTL_GUARANTEE failure in file src/unwind at line [0-9]+\n"},
  };
  for (const auto& one : cases) {
    const ChildResult child = inChild([&] {
      noHalt = 1;
      return 10 + received([&] {
               UnwindDoTraceUnwind(static_cast<UnwindKindEType>(one.kind), one.file, 42);
             });
    });
    EXPECT_EQ(exitCode(child), 10 + one.received);
    EXPECT_THAT(child.out, testing::ContainsRegex("^" + one.trace + "$"));
  }
}

}  // namespace
