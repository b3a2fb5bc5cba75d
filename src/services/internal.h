// What the sources of the services share.
//
//   exits     utlexit.cpp
//   stamps    utltime.cpp
//   logs      utllogname.cpp, verbanner.cpp
//   others    public alone
#pragma once

#include <sys/types.h>

#include <cstddef>

#include <povzel/hostsystem.h>
#include <povzel/povzeltypes.h>
#include <povzel/utltime.h>

// The end of the process (utlexit.cpp). One thread carries it out, and no other thread or signal
// cuts it short.

// Claims it for the calling thread; a child after a fork claims its own. Returns false if another
// thread has it. Signal-safe.
bool utlClaimExit();

// Gives the calling thread's claim up: whoever waits for its exit may take it. Signal-safe.
void utlReleaseExit();

// The thread of this process that has claimed it, or 0. Signal-safe.
pid_t utlExitOwner();

// The status of the exit that is claimed: UtlExit's, or before it is called that of a fatal end.
// Signal-safe.
int utlExitStatus();

// The status of a process that ends fatally.
constexpr int utlFatalStatus = 3;

// Leaves it to the thread that has it: waits, with all signals blocked, for the process to end.
// Where that thread waits for this one, the backstop ends the process with `status`. Returns only
// when the exit was given up, and is the calling thread's. Signal-safe.
void utlAwaitExit(int status = utlFatalStatus);

// Dates (utltime.cpp)

// UtlCtime for now, also from 2038 on, which a time_t cannot tell.
char* utlCtimeOfNow(ZelCTimeStringType* result);

// The same with the time zone that was in force when an ordinary date of the present was last
// written, and the locale's names at the first: asking the C library for the zone takes a lock. A
// host's format with directives other than %a %A %b %B %d %D %e %F %h %H %I %j %m %M %p %r %R %S %T
// %y %Y %Z %% gives way to "%Y-%m-%d %H:%M:%S". Signal-safe.
char* utlSafeCtimeOfNow(ZelCTimeStringType* result);

// Keeps time zone, format and names in force for that, before any date has been written.
void utlRememberTimeZone();

// Logs: what databases and the system must be asked for, and what is then written without asking

// What the directives of a log-name template stand for (utllogname.cpp).
struct UtlLogNameParts {
  const char* command = "";     // %N: the name of its program
  unsigned long processId = 0;  // %P
  const char* user = nullptr;   // %U
  const char* home = nullptr;   // %H, without a '/' behind it; null: not known
  const char* host = nullptr;   // %M

  // Asked for the host; another may be in the place of the one that tells of failures.
  BoolType (*findHost)(char* name, ArraySizeType size) = HostGetHostname;

  // What was found out.
  HostFnameStrType foundHome;
  char foundHost[256];
};

// Finds out the user, home directory and host that the template asks for and that are null.
void utlFindLogNameParts(const char* logTemplate, UtlLogNameParts& parts);

// UtlExpandLogName with the parts that were found for the template, into at least one byte. Asks
// nobody, so that the child of a fork may call it.
bool utlExpandLogTemplate(const char* logTemplate, const UtlLogNameParts& parts, char* logNameBuf,
                          std::size_t logNameBufSize);

// What VerInfo tells, but for the process's id (verbanner.cpp).
struct VerInfoFacts {
  long cpuCount;
  char system[128];
  const char* cpuKind;
  ZelCTimeStringType date;
  const char* dateFormat;
  uid_t realId;
  char realName[40];
  uid_t effectiveId;
  char effectiveName[256];
  bool hasLoginUser;
  int loginId;
  char loginName[40];
};

// Finds it out for a process with those ids.
void verFindInfo(VerInfoFacts& facts, uid_t realId, uid_t effectiveId);

// Writes the lines of VerInfo about this process to a descriptor. Signal-safe.
void verSafeInfo(int descriptor, const VerInfoFacts& facts);
