// Mutexes between the threads of one process, over POSIX mutexes with default attributes.
//
//   static HostMutexSType mutex;
//   HostMutexInit(&mutex);
//   HostMutexAcquire(&mutex);
//   ...
//   HostMutexRelease(&mutex);
//
// A mutex call that fails is a programming error: it is reported on standard output and ends in
// HostCallDebuggerMsg with "UTL_GUARANTEE failure in file %s at line %d". Should that return, the
// call has had no effect. A null mutex fails like a broken one. The caller owns the record.
//
// HostMutexAcquire and HostMutexRelease are compiled into their callers, in C and C++, so that a
// lock costs no more than the system's; the library exports them too, for pointers to them and for
// other languages.
#pragma once

#include <pthread.h>
#include <stddef.h>

#include <povzel/povzeltypes.h>

// A mutex; its fields are the system's.
typedef pthread_mutex_t HostMutexSType;

POVZEL_BEGIN_C

// Makes *mutex a free mutex.
POVZEL_EXPORT void HostMutexInit(HostMutexSType* mutex);

// Ends *mutex, which nobody may hold: on failure prints "mutexDestroy failed" first.
POVZEL_EXPORT void HostMutexDestroy(HostMutexSType* mutex);

// Waits until *mutex is free and takes it: on failure prints "mutexLock failed" first. A thread
// that already holds it waits for ever.
POVZEL_EXPORT void HostMutexAcquire(HostMutexSType* mutex);

// Frees *mutex. A failure prints "mutexUnLock failed=n" without a new line and goes on.
POVZEL_EXPORT void HostMutexRelease(HostMutexSType* mutex);

// The exported two under names that are not compiled in.
POVZEL_EXPORT void povzelMutexAcquire(HostMutexSType* mutex) __asm__("HostMutexAcquire");
POVZEL_EXPORT void povzelMutexRelease(HostMutexSType* mutex) __asm__("HostMutexRelease");

// A null mutex makes the exported function report the failure and nothing else.
POVZEL_COMPILED_IN void HostMutexAcquire(HostMutexSType* mutex) {
  if (__builtin_expect(mutex == NULL || pthread_mutex_lock(mutex) != 0, 0)) {
    povzelMutexAcquire(NULL);
  }
}

POVZEL_COMPILED_IN void HostMutexRelease(HostMutexSType* mutex) {
  if (__builtin_expect(mutex == NULL || pthread_mutex_unlock(mutex) != 0, 0)) {
    povzelMutexRelease(NULL);
  }
}

// Reports a mutex error that a caller found at its line `lineNum`: prints
// "HostMutexError :  caller line %ld\n", then fails as above.
POVZEL_EXPORT void HostMutexError(long lineNum);

POVZEL_END_C
