// Time: of day, of the processor, since the start; its format; and sleeping.
//
// Any thread may call, at any time but in a signal handler; only HostSetLocale needs the process to
// itself, because the C library changes the locale under whoever uses it: call it at start-up.
//
// A long and a time_t of 32 bits end at 03:14:07 UTC on 19 January 2038. From then on the functions
// that store seconds of the day in them store 0. Time stamps and banners (utltime.h) go on.
//
// Sources: hosttime.cpp, hoststatistics.cpp (HostStatistics).
#pragma once

#include <locale.h>
#include <time.h>

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Returns the CPU time used since HostInit, user and system, in milliseconds: 0 in a forked child
// until it has used as much as its parent had before HostInit, and LONG_MAX after 24.8 days of it.
// -1 when the system does not say.
POVZEL_EXPORT long HostClock(void);

// Returns the CPU time that the process has used, user and system, in seconds. The system counts
// each of the two in 32 bits of clock ticks: it begins again at 0 after 497 days of it.
POVZEL_EXPORT double HostGetCpuTime(void);

// Store the time of day: seconds since 1970 and microseconds, or milliseconds; 0 and 0 when the
// time cannot be read or told.
POVZEL_EXPORT void HostGetTimeOfDay(long* sec, long* microsec);
POVZEL_EXPORT void HostFtime(long* seconds, unsigned short* milliseconds);

// Returns how many seconds the local zone is west of UTC as its latest rules have it, 3600 less
// when daylight saving time is in effect at `*arg`. That is not the offset at `*arg` where the
// rules were others then, where summer time is not one hour, or where winter has the saving time
// (Europe/Dublin): UtlLocaltime's tm_gmtoff is.
POVZEL_EXPORT int HostTIMEZONE(const time_t* arg);

// Writes a summary of what the process has used since HostInit into `string`, which holds
// `stringLength` bytes with the terminator:
//   " ELAPSED: 0 00:01:02.50  CPU: 0:00:03.10  FAULTS: 0  FIOIN: 8  FIOOUT: 16 "
// It stops before the first piece that does not fit. The elapsed time does not depend on the time
// of day, whoever sets that; a suspended machine's counts.
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
