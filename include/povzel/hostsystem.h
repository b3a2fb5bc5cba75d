// The machine: its names, its processors, its memory. Any thread may call.
#pragma once

#include <povzel/povzeltypes.h>

// What HostInit has found out; all names are cut to their fields.
typedef struct HostSystemInfoSType {
  char osName[20];     // such as "Linux"
  char nodeName[80];   // the host's name
  char osRelease[20];  // the kernel's
  char osVersion[24];  // the kernel's build
  char cpuKind[20];    // the machine name
  int32_t cpuCount;    // processors in use
  char cpuMisc[80];    // the physical memory, as in "512MB"
} HostSystemInfoSType;
POVZEL_STATIC_ASSERT(sizeof(HostSystemInfoSType) == 248,
                     "the layout of HostSystemInfoSType has changed");

POVZEL_BEGIN_C

// Puts the host's official name into `nameBuf`, cut to `bufLen` bytes with its terminator. The
// resolver is asked until it has answered once. Returns 1, or 0 when the name was cut, is empty or
// longer than 255 characters, or cannot be found, which is then said on standard output.
POVZEL_EXPORT BoolType HostGetHostname(char* nameBuf, ArraySizeType bufLen);

// Puts a description of the system into `nameBuf`, cut to `bufLen` bytes with its terminator: node
// name, machine, system name, release and version, as in "db1 i686 (Linux 6.1.0 #1 SMP)". Before
// HostInit it is a fixed text.
POVZEL_EXPORT void HostGetSystemName(char* nameBuf, ArraySizeType bufLen);

// Returns the record that HostInit has filled.
POVZEL_EXPORT HostSystemInfoSType* HostGetSystemInfo(void);

// Returns the number of processors in use.
POVZEL_EXPORT long HostGetCpuCount(void);

// Do nothing on this platform.
POVZEL_EXPORT void HostDisableFPE(void);
POVZEL_EXPORT void HostEnableFPE(void);

POVZEL_END_C
