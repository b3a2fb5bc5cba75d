// The message catalogue: turns a symbol and typed arguments into text in the user's language.
//
//   ErrMsgInit();                                  // HostInit does it
//   ErrMsgStrType text;
//   ErrMsgSymToText("host.fork7", text, sizeof text, "ds", 4711L, "/tmp/x.log");
//
// The texts live in a message file (errutl.h); its templates say where each argument goes. The
// kinds string has one letter for each argument passed, at most 10:
//
//   d, n  long                    s  const char*
//   o     OopType                 x  unsigned long, in hexadecimal
//   g     double
//
// Every request produces a text. When the file is missing or damaged, the symbol unknown, or more
// arguments are passed than the template has, it is the fallback form: the symbol and all
// arguments in square brackets, as in "[host.fork7 4711 /tmp/x.log]".
//
// All functions may be called from any thread. A request takes no lock and, but for
// ErrMsgGetString, allocates nothing: its text comes at once, whoever opens or closes the file
// meanwhile, also in a signal handler, whatever that interrupted, and with a spoilt heap. Those
// that write to a stream, ErrMsgSymToFile and its like, take that stream's lock.
// ErrMsgInit, ErrMsgReset and ErrMsgShutdown wait for each other and for a fork; they are not for
// signal handlers. One that interrupts another in the same thread leaves the file as it is.
//
// Widths and precisions of strings count characters where the string is valid UTF-8, else bytes. A
// null string argument shows as "[null]", a null symbol counts as an empty one, and of arguments
// beyond the tenth nothing is shown.
//
// Sources: errmsg.cpp, errmsgtext.cpp (templates), errmsgnumbers.cpp (symbols by number),
// errmsgreport.cpp (error reports).
#pragma once

#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>

#include <povzel/povzeltypes.h>
#include <povzel/zeltable.h>

// The category of the system's own errors; their numbers are those of ErrMsgTvErrNumToSym.
POVZEL_CONSTANT(OopType, SystemErrCategoryOop, 3613);

POVZEL_BEGIN_C

// Writes a piece of an error report.
typedef void ErrMsgPrinterFuncType(const char* text);
// Writes the object `oop` through `printer`.
typedef void ErrMsgObjPrinterFuncType(ErrMsgPrinterFuncType* printer, OopType oop);

// Opens the message file that the environment names (ErrUtlInit), a regular file, and reads it, at
// most its first 64 MB. Failures are reported on standard error; the catalogue then gives the
// fallback form only. May be called again to open another file.
POVZEL_EXPORT void ErrMsgInit(void);

// Opens the same file afresh, as a child must after fork, and reads it if it has changed. Its
// header must still be the one that ErrMsgInit found: a file with another one is as good as none.
// What is wrong with the file is reported on standard error, once. Returns 0 if it cannot be
// opened, be it for want of descriptors; the catalogue is then unusable. Returns 0, too, on top of
// another opening or closing in this thread. HostFork, which does the same, keeps what was read
// where there is no descriptor or memory for the file at that moment.
POVZEL_EXPORT BoolType ErrMsgReset(void);

// Closes the file; the catalogue is then unusable.
POVZEL_EXPORT void ErrMsgShutdown(void);

// Whether the catalogue is unusable ("panicked"): at start, after ErrMsgShutdown, and once the
// file turned out to be unreadable, or damaged where a request needed it, which one line on
// standard error tells. ErrMsgSetPanicked(1) keeps a failing process off the file. Neither waits.
POVZEL_EXPORT BoolType ErrMsgGetPanicked(void);
POVZEL_EXPORT void ErrMsgSetPanicked(BoolType panicked);

// Returns the bare template of `symbol`, with backslash-n and double backslashes resolved, or
// null if there is none. The caller frees it with UtlFree.
POVZEL_EXPORT char* ErrMsgGetString(const char* symbol);

// Puts the text of `symbol` into `buffer`, cut to `size` bytes with its terminator; the last byte
// of the buffer is zero in any case. Nothing is written for size 0. `kinds` may be null when there
// are no arguments. Signal-safe.
POVZEL_EXPORT void ErrMsgSymToText(const char* symbol, char* buffer, size_t size, const char* kinds,
                                   ...);
POVZEL_EXPORT void ErrMsgBuildString(const char* symbol, char* buffer, size_t size,
                                     const char* kinds, va_list arguments);

// Writes the text of `symbol`, at most 2048 characters, to `stream` and flushes it; the second
// without a time stamp.
POVZEL_EXPORT void ErrMsgSymToFile(const char* symbol, FILE* stream, const char* kinds, ...);
POVZEL_EXPORT void ErrMsgSymToFileNoTimeStamp(const char* symbol, FILE* stream, const char* kinds,
                                              ...);

// Writes the printf format with its one or two strings, at most 1023 characters, to `stream` with
// a time stamp, without the catalogue.
POVZEL_EXPORT void ErrMsgSymToFile_1(const char* format, FILE* stream, const char* string1);
POVZEL_EXPORT void ErrMsgSymToFile_2(const char* format, FILE* stream, const char* string1,
                                     const char* string2);

// Returns the symbol of a system error number: null, or "errmsg.invalidErr", when unknown.
POVZEL_EXPORT const char* ErrMsgTvErrNumToSym(long number);
POVZEL_EXPORT const char* ErrMsgNumToSym(long number);

// Puts the text of error `number` into `buffer` as ErrMsgSymToText does. A category other than
// SystemErrCategoryOop gives "errmsg.userErrTxt".
POVZEL_EXPORT void ErrMsgToTxt(OopType category, long number, char* buffer, size_t size);

// Writes a report of several lines about `error`, whose number is `number`, through `printer`:
// how many errors are in progress, the message, the category, and each argument by way of
// `objectPrinter`. With `displayOops` the oops of category and context are shown as well. The
// message is wrapped at 80 columns: a character each where it is valid UTF-8, but for one that
// its end may cut, else a byte.
POVZEL_EXPORT void ErrMsgWriteError(ErrMsgPrinterFuncType* printer,
                                    ErrMsgObjPrinterFuncType* objectPrinter, ZelErrSType* error,
                                    long number, BoolType displayOops, long errorsInProgress);

POVZEL_END_C
