// The heap: every allocation of the host-support library passes through here.
//
//   auto* entry = static_cast<Entry*>(UtlMalloc(sizeof(Entry), "mytable"));
//   if (entry == NULL) return false;  // reported already
//   UtlFree(entry);
//
// The memory is the C library's own (malloc), aligned for any type and not cleared. A failure is
// reported with the requester's name and handed to HostCallDebuggerMsg, which ends the process
// unless it is told not to. All functions may be called from any thread.
#pragma once

#include <stddef.h>

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Returns `length` bytes, which the caller frees with UtlFree. On failure prints "malloc failure
// allocating %u bytes: %s\n" with the length and `reason` on standard error, calls the fatal path
// with an empty text and, should that return, returns null. With a null `reason` a failure is
// silent.
POVZEL_EXPORT void* UtlMalloc(size_t length, const char* reason);

// The same for a caller known by `fileName` and `lineNum`; the report is "malloc failure
// allocating %d bytes from %s line %d\n", so a length of 2^31 or more shows as negative. A null
// `fileName` is shown as "(null)"; the failure is reported all the same.
POVZEL_EXPORT void* UtlMallocF(size_t length, int lineNum, const char* fileName);

// Returns `length` bytes, or null without any report. `line` is not used.
POVZEL_EXPORT void* UtlMalloc_(size_t length, int line);

// As UtlMallocF, in memory that code can run from: every page that the block touches becomes
// readable, writable and executable, and stays so. If the system refuses that, the block is freed
// and null returned, without a report.
POVZEL_EXPORT void* UtlMallocExe(size_t length, int lineNum, const char* fileName);

// Frees a block of the functions above. A null `ptr` is a broken guarantee: "Freeing a NULL
// pointer" on standard output, then the fatal path; should that return, nothing is freed.
POVZEL_EXPORT void UtlFree(const void* ptr);

// Prepares the module. The first allocation does it when nobody else has; calls after the first
// do nothing.
POVZEL_EXPORT void UtlHeapInit(void);

// Does nothing: the heap cannot be checked on this platform.
POVZEL_EXPORT void UtlHeapCheck(void);

// Returns 0: the heap is not measured on this platform.
POVZEL_EXPORT size_t UtlHeapSizeKB(void);

// Prints "--- C Heap summary not available" and a newline on standard output.
POVZEL_EXPORT void UtlHeapPrint(void);

POVZEL_END_C
