// Processes: start a product process as a detached child, run a command file, end processes, and
// ask what this process is.
//
//   char why[2049];
//   PidType server;
//   if (!HostForkServer("/opt/tarvolin/bin/torvd -v", why, sizeof why, &server)) puts(why);
//
// The children of HostFork and HostForkServer are reaped by the SIGCHLD handler
// (HostInstallFaultHandler). Commands in the foreground: hostspawn.h.
//
// Any thread may start and end processes, beside others that do and that wait for children by their
// ids. While HostPerform works SIGCHLD and SIGVTALRM are as in HostInteractiveSpawn.
//
// Sources: hostprocess.cpp, hostfork.cpp (before the fork), hostforkchild.cpp (the child).
#pragma once

#include <povzel/povzeltypes.h>

// What kind of process this one is.
POVZEL_ENUM_TYPE(HostProcessEType, int);
enum POVZEL_ENUM(HostProcessEType, int) {
  HOST_PROCESS_BATCH = 0,
  HOST_PROCESS_INTERACTIVE = 1,
  HOST_PROCESS_NETWORK = 2,
  HOST_PROCESS_OTHER = 3,
};

POVZEL_BEGIN_C

// Starts the command line `cmd` (words separated by white space, no quoting) as a child in a
// session of its own, with its output in a log file.
//
// `user` is given by the network daemon alone: the child then runs as that user, with that user's
// environment. The child works in `workingDir`, or the user's home directory when that is null or
// cannot be expanded, and logs to `logName`, or "%N%P%M.log" when that is null; both are log-name
// templates (UtlExpandLogName), and fail when their leading variable makes them too long
// (hostfiles.h). `clientHost`, which may be null, is shown in the log's header.
// `unused1` is ignored.
//
// What must be asked of user database, resolver and heap is asked before the fork, and the message
// file is read again if it has changed. Nothing in the child waits for what other threads held
// then, and nothing of the application runs there but its fork handlers. No other thread may change
// the environment meanwhile.
//
// The program starts with no signal blocked; with SIGINT ignored; with those signals ignored that
// the application ignores, but not SIGPIPE, SIGHUP and SIGIO where this library alone does; all
// others have their default action. It inherits the umask, the resource limits, and the open
// descriptors that are not close-on-exec, but 0 (/dev/null) and 8 to 15. A child that waits to open
// its log, a FIFO, holds none of the close-on-exec ones; only SIGKILL and SIGSTOP reach it there.
//
// Returns 1 with the child's id in *thePid. Returns 0 with the reason in `msg` (`msgLength` bytes
// with the terminator) when no child could be started, also for want of memory. What fails in the
// child is written to standard error or to the log, and the child ends with status 3.
POVZEL_EXPORT BoolType HostFork(const char* cmd, const char* user, long unused1, char* msg,
                                ArraySizeType msgLength, const char* clientHost,
                                const char* logName, const char* workingDir, PidType* thePid);

// Starts `cmd` as a server: a child in a session of its own that keeps standard output and error
// and the current directory. It starts as HostFork's programs do otherwise. Waits until the server
// writes a byte into the pipe whose descriptor it finds in TARVOLIN_SERVER_PIPE. Returns 1, or 0
// with the reason in `msg`; once it was forked *thePid holds its id, also when it ended or closed
// the pipe without a byte; otherwise 0.
POVZEL_EXPORT BoolType HostForkServer(const char* cmd, char* msg, ArraySizeType msgLength,
                                      PidType* thePid);

// Runs the command file `cmdFileSpec` through the shell under the process's real ids, without
// input, its output and errors in `outFileSpec`. Whatever is in the names, they are names. Whether
// the shell can open the files is tried before it is started; of pipes and devices their
// permissions tell. An output file that this has made is gone again if the shell cannot be started.
//
// Returns 0 with errno set when nothing was performed: ENAMETOOLONG when the expanded names have
// more than 80 characters together; that of the file that cannot be opened, or is a directory; that
// of the process or shell that could not be started; ENOENT when the shell's status is 127, which
// the command file may give as well, and EACCES when it is 126. Also returns 0, with ECHILD, when
// its status was lost. A command file that fails with any other status, that is, whose last command
// does, gives 1: it was performed.
POVZEL_EXPORT BoolType HostPerform(const char* cmdFileSpec, const char* outFileSpec);

// Ends this process at once by SIGKILL, after the application's file flusher.
POVZEL_EXPORT void HostKillProcess(void);

// Sends SIGKILL, or SIGTERM, to `pid`. Returns 1, or 0 with errno set: ESRCH for a number below 1,
// which would be a group of processes, or all of them.
POVZEL_EXPORT BoolType HostKillOtherProcess(PidType pid);
POVZEL_EXPORT BoolType HostTerminateOtherProcess(PidType pid);

// Stores this process's id and returns 1.
POVZEL_EXPORT BoolType HostGetProcessId(PidType* processID);

// Tells from standard input how this process was started.
POVZEL_EXPORT HostProcessEType HostGetProcessKind(void);

// Returns the name of this process's log, when it was started with one, else null. The library
// owns the text.
POVZEL_EXPORT char* HostGetChildLogPtr(void);

// Joins the arguments after the program's name, each followed by a blank, into `commandLine`
// (`length` bytes with the terminator), stopping before the first that does not fit.
POVZEL_EXPORT void HostGetCommandLine(char* commandLine, ArraySizeType length, int argc,
                                      char** argv);

POVZEL_END_C
