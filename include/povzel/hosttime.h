// Time: of day, of the processor, since the start; its format; and sleeping.
//
// The clocks, HostTIMEZONE and the sleeps may be called from any thread. The format and the
// locale's record are kept without a lock: ask for them from one thread, or at start-up.
//
// Sources: hosttime.cpp, hoststatistics.cpp (HostStatistics).
#pragma once

#include <locale.h>
#include <time.h>

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Returns the CPU time used since HostInit, user and system, in milliseconds; -1 when the system
// does not say.
POVZEL_EXPORT long HostClock(void);

// Returns the CPU time that the process has used, user and system, in seconds.
POVZEL_EXPORT double HostGetCpuTime(void);

// Store the time of day: seconds since 1970 and microseconds, or milliseconds. HostFtime stores 0
// and 0 when the time cannot be read.
POVZEL_EXPORT void HostGetTimeOfDay(long* sec, long* microsec);
POVZEL_EXPORT void HostFtime(long* seconds, unsigned short* milliseconds);

// Returns how many seconds the local zone is west of UTC, 3600 less when daylight saving time is
// in effect at `*arg`.
POVZEL_EXPORT int HostTIMEZONE(const time_t* arg);

// Writes a summary of what the process has used since HostInit into `string`, which holds
// `stringLength` bytes with the terminator:
//   " ELAPSED: 0 00:01:02.50  CPU: 0:00:03.10  FAULTS: 0  FIOIN: 8  FIOOUT: 16 "
// It stops before the first piece that does not fit.
POVZEL_EXPORT void HostStatistics(char* string, ArraySizeType stringLength);

// Returns the strftime format of dates: $TV_CFTIME (at most 100 characters) if it ends in "S",
// otherwise the locale's date and time formats. Any other value of the variable is refused with a
// warning on standard output. Decided by the first call.
POVZEL_EXPORT const char* HostDateTimeFormat(void);

// Returns the C library's record of the locale's conventions, or the first character of its
// decimal point. The record is asked for once after each change of the locale.
POVZEL_EXPORT struct lconv* HostLocale(void);
POVZEL_EXPORT char HostDecimalPoint(void);

// setlocale. Returns 1 if the locale could be set, else 0.
POVZEL_EXPORT BoolType HostSetLocale(int category, const char* localeStr);

// Sleep. A signal does not end the sleep, unless a termination request is pending; the last part
// of HostMilliSleep, less than a second, is not resumed after one. After a signal the wall clock
// tells in whole seconds how long remains: a clock set forward cuts the sleep short, one set back
// does not make it longer. HostNanoSleep sleeps whole milliseconds; a negative time is 0.
POVZEL_EXPORT void HostSleep(unsigned long seconds);
POVZEL_EXPORT void HostMilliSleep(unsigned long milliseconds);
POVZEL_EXPORT void HostNanoSleep(long long nanoseconds);

POVZEL_END_C
