// Unwinding: a non-local exit to the innermost of a chain of jump buffers.
//
//   UnwindJmpBufSType here;
//   here.previous = UnwindGetCurrentJumpBuffer();
//   UnwindSetCurrentJumpBuffer(&here);
//   if (setjmp(here.buf) == 0) {
//     work();                                  // UnwindDoUnwind(UNWIND_ERR) somewhere inside
//   } else if (UnwindGetExceptionVal() == UNWIND_ERR) {
//     ...
//   }
//   UnwindSetCurrentJumpBuffer(here.previous);
//
// There is one chain and one kind for the whole process; only the thread that runs the interpreter
// unwinds. An unwind leaves the chain as it is: the receiver pops its own buffer.
#pragma once

#include <setjmp.h>
#include <stddef.h>

#include <povzel/povzeltypes.h>

// Why the stack is unwound.
POVZEL_ENUM_TYPE(UnwindKindEType, int32_t);
enum POVZEL_ENUM(UnwindKindEType, int32_t) {
  UNWIND_NO_SIGNAL = 0,
  UNWIND_ERR = 1,
  UNWIND_ABORT_DEBUG_CMD = 2,
  UNWIND_EXIT_DEBUGGER = 3,
  UNWIND_END_EXECUTION = 4,
  UNWIND_VOSK_JMP = 5,
  UNWIND_RESTART = 6,
  UNWIND_TRVDO_JMP = 7,
  UNWIND_SERV_TXT_FILE_TO_OOP_JMP = 8,
  UNWIND_ETV_BUILD_MSG_JMP = 9,
  UNWIND_ZEL_ERR = 10,
  UNWIND_INTERP_EXCEPTION = 11,
  UNWIND_START_THREAD = 12,
  UNWIND_CONTINUE_RETURNED = 13,
  UNWIND_LOST_OT = 14,
};

// A place to unwind to. It stays on its function's stack and must be popped before that returns.
typedef struct UnwindJmpBufSType {
  jmp_buf buf;                         // filled by setjmp
  struct UnwindJmpBufSType* previous;  // the enclosing buffer, or null
} UnwindJmpBufSType;
typedef UnwindJmpBufSType unwindbuftype;
POVZEL_STATIC_ASSERT(offsetof(UnwindJmpBufSType, previous) == sizeof(jmp_buf),
                     "the layout of UnwindJmpBufSType has changed");
POVZEL_STATIC_ASSERT(sizeof(UnwindJmpBufSType) == 160,
                     "the layout of UnwindJmpBufSType has changed");

POVZEL_BEGIN_C

// Return or set the kind of the unwind in progress. Signal-safe.
POVZEL_EXPORT UnwindKindEType UnwindGetExceptionVal(void);
POVZEL_EXPORT void UnwindSetExceptionVal(UnwindKindEType ev);

// Return or set the innermost buffer; null means none. Signal-safe.
POVZEL_EXPORT UnwindJmpBufSType* UnwindGetCurrentJumpBuffer(void);
POVZEL_EXPORT void UnwindSetCurrentJumpBuffer(UnwindJmpBufSType* jb);

// Sets the kind to `value` and jumps to the innermost buffer, whose setjmp returns `value`, or 1
// for UNWIND_NO_SIGNAL. Without a buffer, writes "UNWIND called with no handler!\n" to standard
// error and ends the process (HostCallDebugger); returns only when that is told not to halt.
POVZEL_EXPORT void UnwindDoUnwind(UnwindKindEType value);

// Writes the line "[DEBUG]: Unwind(%s) called from line %d in %s" with the kind's name, `line` and
// `file`, cut to 149 characters, with a time stamp to standard output, then unwinds. A `value` that
// is no kind is a broken guarantee: nothing is written, and nothing unwound should that return.
POVZEL_EXPORT void UnwindDoTraceUnwind(UnwindKindEType value, const char* file, int line);

// Does nothing on this platform.
POVZEL_EXPORT void UnwindEnd(void);

POVZEL_END_C
