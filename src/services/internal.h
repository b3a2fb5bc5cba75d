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

// UtlCtime for now, also from 2038 on, which a time_t cannot tell (utltime.cpp).
char* utlCtimeOfNow(ZelCTimeStringType* result);
