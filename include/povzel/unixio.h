// Interrupt-safe I/O: system calls that go on after a signal, until the process is asked to end;
// and the one place where signal handlers are installed.
//
//   struct sigaction before;
//   UNIXIO_DO_SIGNAL(SIGUSR1, onSignal, &before);
//   FILE* list = UnixIoFopen("list", "r");  // closed by exec
//   while (UnixIoFgets(line, sizeof line, list)) ...
//
// Any thread may open, look at and read files; reads of terminals share the one cancelBlockingCall.
// Signal handlers too may call UnixIoInterrupt at any time.
//
// Sources: unixio.cpp, unixiosystem.cpp (UnixIoSystem).
#pragma once

#include <stddef.h>
#include <stdio.h>
#include <sys/stat.h>

#include <signal.h>
#ifndef SA_SIGINFO  // <signal.h> keeps siginfo_t back from programs in strict ISO C
#include <bits/types/siginfo_t.h>
#endif

#include <povzel/povzeltypes.h>

struct sigaction;  // these two are incomplete in strict ISO C
struct stat64;

// A signal handler, as the system calls it with SA_SIGINFO and without.
typedef void UnixSigHandlerFType(int sig, siginfo_t* info, void* context);
typedef void UnixSignalFuncType_1arg(int sig);

POVZEL_BEGIN_C

// A request to give up a blocking terminal read. The read that honours it clears it.
POVZEL_EXPORT_DATA extern volatile BoolType cancelBlockingCall;

// Install `fct`, which may also be SIG_DFL or SIG_IGN, for signal `sig`; every signal is blocked
// while it runs. `oldHandler` receives the previous action unless it is null. A signal that the
// system refuses gives "sigaction failed for sig %d with errno %d\n" on standard output and a
// broken guarantee, the end of the process.
//
//   UNIXIO_DO_SIGNAL            interrupted system calls are restarted
//   UNIXIO_DO_SIGNAL_           the same, with more flags of sigaction in `flagsArg`
//   UNIXIO_DO_SIGNAL_noRestart  interrupted system calls fail with EINTR
//   UNIXIO_DO_SIGNAL_1ARG       as the first, for a handler that takes the number alone
POVZEL_EXPORT void UNIXIO_DO_SIGNAL_(int sig, UnixSigHandlerFType* fct,
                                     struct sigaction* oldHandler, int flagsArg);
POVZEL_EXPORT void UNIXIO_DO_SIGNAL(int sig, UnixSigHandlerFType* fct,
                                    struct sigaction* oldHandler);
POVZEL_EXPORT void UNIXIO_DO_SIGNAL_noRestart(int sig, UnixSigHandlerFType* fct,
                                              struct sigaction* oldHandler);
POVZEL_EXPORT void UNIXIO_DO_SIGNAL_1ARG(int sig, UnixSignalFuncType_1arg* fct,
                                         struct sigaction* oldHandler);

// execve and execv. Return -1, and only when they fail. Signal-safe.
POVZEL_EXPORT int UnixIoExecve(const char* name, const char** argv, const char** envp);
POVZEL_EXPORT int UnixIoExecv(const char* name, const char** argv);

// Opens the stream `name`, a file of any size, with the fopen mode `mode`, closed by exec; errno is
// cleared first. Returns null when that fails.
POVZEL_EXPORT FILE* UnixIoFopen(const char* name, const char* mode);

// stat, stat64, fstat and fstat64, made again after an interruption unless a termination request is
// pending. Return 1, or 0 with errno set and its UnixErr text in `errText`, which holds
// `errTextSize` bytes and may be null. EOVERFLOW is the answer of all to a date past 2038, whose
// seconds their records do not hold, and of stat and fstat to a file of 2 GiB and more.
POVZEL_EXPORT BoolType UnixIoStat(const char* name, struct stat* result, char* errText,
                                  size_t errTextSize);
POVZEL_EXPORT BoolType UnixIoStat64(const char* name, struct stat64* result, char* errText,
                                    size_t errTextSize);
POVZEL_EXPORT BoolType UnixIoFstat(int fd, struct stat* result, char* errText, size_t errTextSize);
POVZEL_EXPORT BoolType UnixIoFstat64(int fd, struct stat64* result, char* errText,
                                     size_t errTextSize);

// Reads a character, or returns -1. On a terminal errno is cleared first, and an interrupted read
// goes on unless a termination request is pending or UnixIoInterrupt has asked to give up. Any
// other stream is read with plain fgetc.
POVZEL_EXPORT int UnixIoFgetc(FILE* inFile);

// fgets of at most `resultSize` - 1 characters; errno is cleared first. Returns 1 if something was
// read, else 0; so a `resultSize` of 1 gives 0, and an empty line.
POVZEL_EXPORT BoolType UnixIoFgets(char* result, size_t resultSize, FILE* inFile);

// Sets cancelBlockingCall to `v`. Signal-safe.
POVZEL_EXPORT void UnixIoInterrupt(BoolType v);

// Runs the shell command `cmd` under the process's real ids and waits for it. Returns 0 if it
// exited with status 0 or was ended by a signal, -1 if it exited with another status, stopped, or
// could not be run or waited for (errno then says why).
//
// Not `interactively`, the command runs in a session of its own. Otherwise it shares the terminal,
// and the terminal's foreground process group is put back afterwards.
//
// The calling thread has all signals blocked meanwhile; they act when all is put back, so that a
// handler may jump away. The command itself starts with the mask that the thread had, so that it
// can be interrupted, and finds the signals that the library ignores as the program had them. A
// command that stops stays so, and is then the caller's to continue or end, and to wait for.
//
// Any thread may call, beside others that do. SIGCHLD has its default action and SIGVTALRM is
// ignored from the first call's begin to the last one's end; then the handlers from before are
// back, installed anew with UNIXIO_DO_SIGNAL, and that of SIGCHLD is called if a child has ended
// meanwhile, in a thread that does not block it; where the program ignores it, such children are
// reaped. A thread that waits for children of any id meanwhile may take a command's status away.
POVZEL_EXPORT int UnixIoSystem(const char* cmd, BoolType interactively);

POVZEL_END_C
