// Time stamps: the millisecond stamp that begins a log line, in several forms, and date strings in
// the host's date-time format (HostDateTimeFormat).
//
//   UtlTimeStampMs_s_flush(stdout, "listening on port 50377", 1);
//
// Any thread may call; a text that follows another thread's stamp in the same stream stands below
// it. Streams must not be null. The host's format is taken up to 40 characters: a longer one ends
// before the directive or character that would be cut, and standard output says so once.
//
// Stamps tell the time beyond 19 January 2038 as well; a time_t that a caller gives ends there.
#pragma once

#include <stddef.h>
#include <stdio.h>
#include <time.h>

#include <povzel/povzeltypes.h>

// A formatted date.
typedef struct ZelCTimeStringType {
  char msg[100];  // terminated
} ZelCTimeStringType;
POVZEL_STATIC_ASSERT(sizeof(ZelCTimeStringType) == 100,
                     "the layout of ZelCTimeStringType has changed");

POVZEL_BEGIN_C

// Writes "[date.mmm zone]" and, below it and indented, `text` (null: none); a new line at the end
// when `addCr` is non-zero. Within 9 milliseconds after a stamp that was written, the text alone,
// and for a null text nothing. When the clock has been set back since then, a stamp is written.
POVZEL_EXPORT void UtlTimeStampMs_s(FILE* stream, const char* text, BoolType addCr);

// The same, then flushes the stream.
POVZEL_EXPORT void UtlTimeStampMs_s_flush(FILE* stream, const char* text, BoolType addCr);

// Writes a stamp alone and a new line, under the same rule as UtlTimeStampMs_s.
POVZEL_EXPORT void UtlTimeStampMs(FILE* stream);

// Writes "date.mmm " and nothing else.
POVZEL_EXPORT void UtlTimeStampMs_f(FILE* stream);

// Writes the same stamp in double quotes, then the seconds since the epoch and a blank.
POVZEL_EXPORT void UtlTimeStampMs_time_t_f(FILE* stream);

// Returns "date.mmm zone:", cut to 79 characters, in a buffer of the calling thread that
// its next call rewrites.
POVZEL_EXPORT char* UtlTimeStampMs_str(void);

// Stores "date.mmm zone" of the given time in `result`, cut to `resultSize` bytes with its
// terminator. With `addCr` a new line is added where it still fits. A size of 0 stores nothing.
POVZEL_EXPORT void UtlTimeStampMsStr(time_t seconds, unsigned short milliSeconds, char* result,
                                     size_t resultSize, BoolType addCr);

// Stores the date of `when` with its zone in *result and returns its text, which is empty where the
// format gives more than 99 characters.
POVZEL_EXPORT char* UtlCtime(time_t when, ZelCTimeStringType* result);

// localtime_r: splits *when into *result in the local time zone.
POVZEL_EXPORT void UtlLocaltime(const time_t* when, struct tm* result);

POVZEL_END_C

#ifdef __cplusplus
// Returns the date of `when` with its zone in a buffer of the calling thread that its next call
// rewrites.
POVZEL_EXPORT char* UtlCtime(time_t when);
#endif
