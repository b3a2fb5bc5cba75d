// Threads of the process, over POSIX threads. Any thread may call.
//
//   HostThreadType thread;
//   if (HostThreadCreate(&thread, serve, socket, 1 << 20) == 0) HostThreadJoin(thread, NULL);
#pragma once

#include <pthread.h>
#include <stddef.h>

#include <povzel/povzeltypes.h>

// A thread of the process.
typedef pthread_t HostThreadType;
// What a thread runs; its result is for who joins the thread.
typedef void* HostThreadFuncType(void* arg);

POVZEL_STATIC_ASSERT(sizeof(HostThreadType) == 4, "the width of HostThreadType has changed");

POVZEL_BEGIN_C

// Starts a thread that runs funcPtr(arg), with a stack of at least `minStackSize` bytes; 0 and
// sizes up to the default give the default size. If the size cannot be set, the reason goes to
// standard output and the thread gets the default. *threadId receives its id. Returns 0, or the
// error number of pthread_create.
POVZEL_EXPORT int HostThreadCreate(HostThreadType* threadId, HostThreadFuncType* funcPtr, void* arg,
                                   size_t minStackSize);

// Sends `sig` to the thread (0 only checks). Returns 0 or an error number.
POVZEL_EXPORT int HostThreadKill(HostThreadType threadId, int sig);

// Waits for the thread to end; *value_ptr (may be null) receives what it returned or ended with.
// Returns 0 or an error number.
POVZEL_EXPORT int HostThreadJoin(HostThreadType threadId, void** value_ptr);

// Returns 1 when both ids name the same thread, else 0.
POVZEL_EXPORT int HostThreadEqual(HostThreadType t1, HostThreadType t2);

// Returns the calling thread's id.
POVZEL_EXPORT HostThreadType HostThreadSelf(void);

// Ends the calling thread; HostThreadJoin hands out `value_ptr`.
POVZEL_NORETURN POVZEL_EXPORT void HostThreadExit(void* value_ptr);

POVZEL_END_C
