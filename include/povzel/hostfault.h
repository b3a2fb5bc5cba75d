// The fault handler: what a process does with the signals that would end it.
//
//   HostInit();
//   HostInstallFaultHandler(flushFiles, shutDown);
//
// One handler, HostFaultHandler, stands in front of SIGQUIT, SIGILL, SIGABRT, SIGBUS, SIGSEGV,
// SIGTERM, SIGUSR1, SIGXFSZ and SIGXCPU, and of SIGFPE and SIGCHLD where no handler was installed
// before. It lets guarded pages be touched, prints the stacks on SIGUSR1, reaps children, hands a
// signal to the handler that was there before, or ends the process: quietly on SIGTERM and
// SIGXCPU, with a report and a core dump otherwise. SIGPIPE and SIGHUP are ignored unless the
// program handles them.
//
// One thread carries out the end; others whose faults are fatal wait for it, and a SIGTERM
// meanwhile does not change it. What the callbacks and exit handlers do on the way is reported like
// anything else when it faults; they must not leave by longjmp. A process that was told to end, and
// waits for a lock that the interrupted code holds, is ended with its status after five seconds
// (docs/signals.md tells what else counts).
//
// Install, and register callbacks and switches, from one thread at start-up.
//
// Sources: hostfault.cpp (the handler), hostfaultinstall.cpp (installation and chaining),
// hostfaultexit.cpp (ends, switches, callbacks), hostfaultreport.cpp (the report), hostchildren.cpp
// (children), hostsignalstack.cpp.
#pragma once

#include <signal.h>
#ifndef SA_SIGINFO  // <signal.h> keeps siginfo_t back from programs in strict ISO C
#include <bits/types/siginfo_t.h>
#endif

#include <povzel/povzeltypes.h>

// Called in a handler, by the functions below that take one.
typedef void HostFaultFuncType(void);
typedef void (*HostSigExitHandlerType)(void);
typedef void (*HostShrMemFuncType)(void);

POVZEL_BEGIN_C

// How many SIGSEGV handlers are running now, in all threads together. A thread's third, inside its
// other two, ends the process; what the program adds here counts for every thread. One that a
// program's handler left by siglongjmp is taken off at the thread's next.
POVZEL_EXPORT_DATA extern long segvInProgressCount;

// Installs the handler, once until HostShutDown. `flushFiles` is called before the process ends by
// a signal, `shutDown` after a core dump; either may be null. Gives the calling thread a signal
// stack (HostUseSignalStack).
POVZEL_EXPORT void HostInstallFaultHandler(HostFaultFuncType* flushFiles,
                                           HostFaultFuncType* shutDown);

// Puts back every action that HostInstallFaultHandler replaced, where the handler is still in
// force. Where something started later stands in front of it, that stays, and may go on handing its
// signals to HostFaultHandler. SIGPIPE and SIGHUP stay ignored.
POVZEL_EXPORT void HostShutDown(void);

// Gives the calling thread a stack of 256 KiB of its own for SIGSEGV, SIGBUS, SIGILL and SIGFPE, so
// that a stack overflow in it is reported; it is released when the thread ends. Keeps a signal
// stack of 64 KiB or more that the thread has already; a smaller one is replaced. Call it outside
// handlers. Returns 1 if the thread has one now, or 0 with errno set.
POVZEL_EXPORT BoolType HostUseSignalStack(void);

// The handler itself, with the arguments of any SA_SIGINFO handler. A program that has a handler of
// its own in front may call it for the signals that it does not want.
//
// Signal-safe but for the ends of the process, which call the application's callbacks, the exit
// handlers (UtlExit) and HostCoredump: the process is lost there anyway.
POVZEL_EXPORT void HostFaultHandler(int sig, siginfo_t* info, void* context);

// Which children's statuses the SIGCHLD handler takes: `own` those alone that HostFork and
// HostForkServer have started, or, as from the start, those of all. The latter makes waitpid,
// system, pclose and a VM's ProcessBuilder lose statuses, which they then often take for success.
//
// Call it before the handler is installed, or at any later time, from any thread. Children that the
// program has waited for itself by then are forgotten. Where SIGCHLD gets its default action after
// the handler was installed, as from a VM, HostFork and HostForkServer reap those that have ended.
//
// Each child that the library knows costs a system call on each SIGCHLD. Once more than 64 of them
// live at the same time, one that there is no memory for is left for the program to wait for.
POVZEL_EXPORT void HostReapOwnChildrenOnly(BoolType own);

// From now on a fault, an illegal instruction or an abort ends the process at once with status 1,
// without report or core.
POVZEL_EXPORT void HostExitOnFault(void);

// From now on touching a guarded page ends the process with status 1, although its handler took
// the access.
POVZEL_EXPORT void HostExitOnGuardPageAccess(void);

// Records a shared-memory address and a function for the embedding program.
POVZEL_EXPORT void HostCheckShrMemOnFatalSignal(void* address, HostShrMemFuncType function);

// Lets the application choose when a signal's exit happens. `postpone` is called in the handler in
// place of the exit and must arrange for HostDoSigExit to be called later, which exits and, should
// the exit return, calls `complete`. Faults, traps and aborts are never postponed.
POVZEL_EXPORT void HostDelaySigExit(HostSigExitHandlerType postpone,
                                    HostSigExitHandlerType complete);

// Carries out the exit that was postponed, if one was; `complete` is called in either case when
// this does not end the process.
POVZEL_EXPORT void HostDoSigExit(void);

// Set and return whether a fatal error has been seen. The fatal paths set it. Signal-safe.
POVZEL_EXPORT void HostSetFatalErr(BoolType fatal);
POVZEL_EXPORT BoolType HostGetFatalErr(void);

POVZEL_END_C
