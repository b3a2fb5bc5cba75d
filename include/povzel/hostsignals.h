// Plain uses of signals: ignoring them, the keyboard interrupt, blocking all of them for a while,
// and the profiling timer.
//
// Actions and timers belong to the process: set them from one thread.
#pragma once

#include <povzel/povzeltypes.h>

// A handler, called with the number of its signal.
typedef void HostKbIntFuncType(int signal);

POVZEL_BEGIN_C

// Sets SIGTERM, or SIGIO, to ignored.
POVZEL_EXPORT void HostIgnoreSigTerm(void);
POVZEL_EXPORT void HostIgnoreSigIo(void);

// Has `routine` called on SIGINT, unless that was ignored when the program started: then it stays
// ignored, as it does in a background job.
POVZEL_EXPORT void HostEnableKbInt(HostKbIntFuncType* routine);

// Blocks every signal of the calling thread, and unblocks every one again, each thread for itself.
// A call that finds its work done already does nothing. Both keep errno. Not for signal handlers.
// Between them a fault, an access to a guarded page among them, ends the process unreported.
POVZEL_EXPORT void HostDisableInterrupts(void);
POVZEL_EXPORT void HostEnableInterrupts(void);

// Profiling by sampling is not part of this library: these say so on standard output.
POVZEL_EXPORT void HostBeginSampling(const char* file);
POVZEL_EXPORT void HostStopSampling(void);

// Calls `func` on SIGVTALRM after each `millisec` milliseconds of CPU time. Returns 1, or 0 when
// the system refused the timer and all is as before. HostStopProfTimer ends that and puts the
// action back that was there before the first call.
POVZEL_EXPORT BoolType HostStartProfTimer(long millisec, HostKbIntFuncType* func);
POVZEL_EXPORT void HostStopProfTimer(void);

POVZEL_END_C
