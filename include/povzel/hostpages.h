// Guard pages: memory pages that fault on any access until a handler lets the access pass, and
// plain page protection.
//
//   HostProtectPage(stackEnd, growStack, &err);   // growStack(page, faultAddress) answers true
//
// A page's handler runs inside the fault handler (HostInstallFaultHandler): it may call only what
// is safe in a signal handler, HostProtectPage (where it succeeds: its reasons for a failure come
// from the message catalogue, which may allocate and lock) and HostUnProtectPage among it. When it
// answers true the page becomes readable and writable, its slot is free again, and the faulting
// instruction is tried again.
//
// From any thread. Several threads may touch guarded pages at once; then a page's handler is called
// by each that finds the page still guarded, at the same time. What is guarded anew meanwhile stays
// guarded, and its handler is asked. A fault in a page's handler is reported like any other.
#pragma once

#include <stddef.h>

#include <povzel/povzeltypes.h>
#include <povzel/syserror.h>

// Gets the page's address and the address of the access; returns true when the access is its to
// deal with. An access at address 0 is offered to every guarded page.
typedef BoolType (*HostProtectHandlerFType)(char* pageAddr, char* faultAddr);

// How many pages can be guarded at one time.
POVZEL_CONSTANT(int, HostMaxProtectedPages, 16);

POVZEL_BEGIN_C

// Makes the page at `pageAddr` inaccessible and guards it with `handler` (null takes no access),
// which replaces the one it has. Returns 1, or 0 with the reason in *err: not the start of a page,
// 16 pages are guarded already, or the system refused.
POVZEL_EXPORT BoolType HostProtectPage(char* pageAddr, HostProtectHandlerFType handler,
                                       SysErrorSType* err);

// Makes a guarded page readable and writable and frees its slot. Returns 1, or 0 when it is not
// guarded or the system refused. Signal-safe.
POVZEL_EXPORT BoolType HostUnProtectPage(char* pageAddr);

// Makes `numBytes` bytes from `addr`, which must start a page, read-only, or readable and
// writable. Returns whether the system did. Signal-safe.
POVZEL_EXPORT BoolType HostBasicProtectPageReadOnly(char* addr, size_t numBytes);
POVZEL_EXPORT BoolType HostBasicUnprotectPage(char* addr, size_t numBytes);

POVZEL_END_C
