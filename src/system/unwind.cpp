#include <povzel/unwind.h>

#include <csetjmp>
#include <cstdio>
#include <iterator>

#include <povzel/hostdebug.h>
#include <povzel/utltime.h>
#include "basics/internal.h"

namespace {

UnwindJmpBufSType* UnwindCurrentJumpBuffer = nullptr;
volatile UnwindKindEType UnwindExceptionVal = UNWIND_NO_SIGNAL;

// In the order of their values.
constexpr const char* kindNames[] = {
    "UNWIND_NO_SIGNAL",
    "UNWIND_ERR",
    "UNWIND_ABORT_DEBUG_CMD",
    "UNWIND_EXIT_DEBUGGER",
    "UNWIND_END_EXECUTION",
    "UNWIND_VOSK_JMP",
    "UNWIND_RESTART",
    "UNWIND_TRVDO_JMP",
    "UNWIND_SERV_TXT_FILE_TO_OOP_JMP",
    "UNWIND_ETV_BUILD_MSG_JMP",
    "UNWIND_ZEL_ERR",
    "UNWIND_INTERP_EXCEPTION",
    "UNWIND_START_THREAD",
    "UNWIND_CONTINUE_RETURNED",
    "UNWIND_LOST_OT",
};
static_assert(std::size(kindNames) == UNWIND_LOST_OT + 1);

}  // namespace

UnwindKindEType UnwindGetExceptionVal() {
  return UnwindExceptionVal;
}

void UnwindSetExceptionVal(UnwindKindEType ev) {
  UnwindExceptionVal = ev;
}

UnwindJmpBufSType* UnwindGetCurrentJumpBuffer() {
  return UnwindCurrentJumpBuffer;
}

void UnwindSetCurrentJumpBuffer(UnwindJmpBufSType* jb) {
  UnwindCurrentJumpBuffer = jb;
}

void UnwindDoUnwind(UnwindKindEType value) {
  if (UnwindCurrentJumpBuffer != nullptr) {
    UnwindExceptionVal = value;
    std::longjmp(UnwindCurrentJumpBuffer->buf, value);  // NOLINT(cert-err52-cpp): what we are for
  }
  std::fputs("UNWIND called with no handler!\n", stderr);
  std::fflush(stderr);
  HostCallDebugger();
}

void UnwindDoTraceUnwind(UnwindKindEType value, const char* file, int line) {
  if (value < UNWIND_NO_SIGNAL || value > UNWIND_LOST_OT) {
    utlGuaranteeFailed("src/unwind", __LINE__);
    return;
  }
  char text[150];
  std::snprintf(text, sizeof text, "[DEBUG]: Unwind(%s) called from line %d in %s",
                kindNames[value], line, file);
  UtlTimeStampMs_s(stdout, text, 1);
  std::fflush(stdout);
  UnwindDoUnwind(value);
}

void UnwindEnd() {}
