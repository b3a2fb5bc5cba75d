// What the sources of the services share.
//
//   exits     utlexit.cpp
//   stamps    utltime.cpp, utllogname.cpp
//   others    public alone
#pragma once

#include <povzel/utltime.h>

// The end of the process (utlexit.cpp). One thread carries it out, and no other thread or signal
// cuts it short.

// Claims it for the calling thread; a child after a fork claims its own. Returns false if another
// thread has it. Signal-safe.
bool utlClaimExit();

// Whether any thread of this process has claimed it. Signal-safe.
bool utlExitIsClaimed();

// Leaves it to the thread that has it: waits, with all signals blocked, for the process to end.
// Signal-safe.
[[noreturn]] void utlAwaitExit();

// Dates (utltime.cpp)

// UtlCtime for now, also from 2038 on, which a time_t cannot tell.
char* utlCtimeOfNow(ZelCTimeStringType* result);

// The same with the time zone that was in force when an ordinary date of the present was last
// written: asking the C library for the zone takes a lock. Of the host's format, the directives %d
// %m %y %Y %H %M %S %D %F %R %T %% are known; one with others gives way to "%m/%d/%y %H:%M:%S".
// Signal-safe.
char* utlSafeCtimeOfNow(ZelCTimeStringType* result);

// Keeps the time zone in force for that, before any date has been written.
void utlRememberTimeZone();
