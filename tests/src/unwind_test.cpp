#include <povzel/unwind.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <povzel/hostdebug.h>
#include "surroundings.h"

namespace {

using testing::ContainsRegex;
using testing::MatchesRegex;

// Unwinds with `value` from within two nested buffers; tells what the inner one received.
int received(UnwindKindEType value, void (*unwind)(UnwindKindEType)) {
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
    unwind(value);
    return -2;
  }
  EXPECT_EQ(UnwindGetCurrentJumpBuffer(), &inner);
  UnwindSetCurrentJumpBuffer(outer.previous);
  return result;
}

TEST(Unwind, ReachesTheInnermostBuffer) {
  EXPECT_EQ(UnwindGetCurrentJumpBuffer(), nullptr);
  for (int kind = UNWIND_NO_SIGNAL; kind <= UNWIND_LOST_OT; ++kind) {
    const auto value = static_cast<UnwindKindEType>(kind);
    EXPECT_EQ(received(value, UnwindDoUnwind), kind == 0 ? 1 : kind);
    EXPECT_EQ(UnwindGetExceptionVal(), value);
  }
  EXPECT_EQ(UnwindGetCurrentJumpBuffer(), nullptr);
  UnwindEnd();
}

TEST(Unwind, WithoutABufferIsFatal) {
  const ChildResult child = inChild([] {
    UnwindDoUnwind(UNWIND_ERR);
    return 0;
  });
  EXPECT_NE(exitCode(child), 0);
  EXPECT_THAT(child.err, ContainsRegex("^UNWIND called with no handler!\n"));
  noHalt = 1;
  UnwindSetExceptionVal(UNWIND_RESTART);
  UnwindDoUnwind(UNWIND_ERR);
  EXPECT_EQ(UnwindGetExceptionVal(), UNWIND_RESTART);
  noHalt = 0;
}

TEST(Unwind, TraceTellsKindAndPlace) {
  const std::pair<UnwindKindEType, const char*> cases[] = {
      {UNWIND_NO_SIGNAL, "UNWIND_NO_SIGNAL"},
      {UNWIND_ERR, "UNWIND_ERR"},
      {UNWIND_SERV_TXT_FILE_TO_OOP_JMP, "UNWIND_SERV_TXT_FILE_TO_OOP_JMP"},
      {UNWIND_LOST_OT, "UNWIND_LOST_OT"},
  };
  for (const auto& [kind, name] : cases) {
    const ChildResult child = inChild([kind = kind] {
      return received(kind, [](UnwindKindEType value) { UnwindDoTraceUnwind(value, "x.c", 42); });
    });
    EXPECT_EQ(exitCode(child), kind == 0 ? 1 : kind);
    EXPECT_THAT(child.out, MatchesRegex(std::string("\\[[^\n]*\\]\n    \\[DEBUG\\]: Unwind\\(") +
                                        name + "\\) called from line 42 in x.c\n"));
  }
  const ChildResult longName = inChild([] {
    return received(UNWIND_ERR, [](UnwindKindEType value) {
      UnwindDoTraceUnwind(value, std::string(300, 'f').c_str(), 1);
    });
  });
  const std::size_t text = longName.out.find("[DEBUG]");
  EXPECT_EQ(longName.out.size(), text + 149 + 1);
}

TEST(Unwind, TraceOfNoKindIsABrokenGuarantee) {
  for (const int value : {-1, 15}) {
    const ChildResult child = inChild([value] {
      noHalt = 1;
      return received(static_cast<UnwindKindEType>(value),
                      [](UnwindKindEType kind) { UnwindDoTraceUnwind(kind, "x.c", 42); }) == -2
                 ? 0
                 : 1;
    });
    EXPECT_EQ(exitCode(child), 0);
    EXPECT_THAT(child.out,
                MatchesRegex("UTL_GUARANTEE failure in file src/unwind at line [0-9]+\n"));
  }
}

}  // namespace
