// What the product is: format levels of its files and protocols, version strings, and a query by
// enumeration for programs that show or compare them. Any thread may call.
#pragma once

#include <povzel/povzeltypes.h>

// What can be asked for.
POVZEL_ENUM_TYPE(VerParamEType, int);
enum POVZEL_ENUM(VerParamEType, int) {
  VER_INFO_CPU_KIND = 0,
  VER_INFO_CPU_ARCH = 1,
  VER_INFO_TV_BUILD_ARCH = 2,
  VER_INFO_TV_BUILD_DATE = 3,
  VER_INFO_TV_IMAGE_KIND = 4,
  VER_INFO_TV_RELEASE = 5,
  VER_INFO_TV_VERSION = 6,
  VER_INFO_NODE_NAME = 7,
  VER_INFO_OS_NAME = 8,
  VER_INFO_OS_RELEASE = 9,
  VER_INFO_OS_VERSION = 10,
  VER_INFO_PROCESS_ID = 11,
  VER_INFO_PROCESSOR_COUNT = 12,
};

// Which value of an answer holds it.
POVZEL_ENUM_TYPE(VerResultEType, int);
enum POVZEL_ENUM(VerResultEType, int) { VER_INT_KIND = 0, VER_STRING_KIND = 1 };

// The answer to a query.
typedef struct VerParamResultSType {
  VerResultEType kind;  // which of the two values holds the answer
  int32_t intVal;       // of VER_INT_KIND
  char stringVal[300];  // of VER_STRING_KIND, terminated
} VerParamResultSType;
POVZEL_STATIC_ASSERT(sizeof(VerParamResultSType) == 308,
                     "the layout of VerParamResultSType has changed");

// The platform that the product was built for.
static const char VerBuildPlatform[] = "x86 (Linux 2.6.18-8.el5PAE #1 SMP glibc-2.5-12)";

POVZEL_BEGIN_C

// Format levels of the database file, transaction log, backup, logical log and remote database
// formats; the numbered forms are the levels of the releases they name.
POVZEL_EXPORT int VerDbfLevel(void);
POVZEL_EXPORT int VerDbfLevel40(void);
POVZEL_EXPORT int VerDbfLevel50(void);
POVZEL_EXPORT int VerDbfLevel60(void);
POVZEL_EXPORT int VerDbfLevel62(void);
POVZEL_EXPORT int VerLogLevel(void);
POVZEL_EXPORT int VerLogLevelMin(void);
POVZEL_EXPORT int VerLogLevelMax(void);
POVZEL_EXPORT int VerBkupLevel(void);
POVZEL_EXPORT int VerBkupLevel40(void);
POVZEL_EXPORT int VerBkupLevel41(void);
POVZEL_EXPORT int VerLgcLevel(void);
POVZEL_EXPORT int VerLgcLevelMinSupported(void);
POVZEL_EXPORT int VerLgcLevel32(void);
POVZEL_EXPORT int VerRDbfLevel(void);

// The product's release and build date.
POVZEL_EXPORT const char* VerTVVersion(void);

// The version of the library itself, such as "6.7.1": what its packages and its jar carry.
POVZEL_EXPORT const char* VerLibraryVersion(void);

// Version and build date of the database file format and of the remote call interface.
POVZEL_EXPORT const char* VerDbfVersion(void);
POVZEL_EXPORT const char* VerTrvCallVersion(void);

// Answers `paramId` in *result, a string cut to 299 characters. Returns 0 with an empty string
// result for an unknown id and for VER_INFO_TV_IMAGE_KIND, which this platform does not have;
// VER_INFO_NODE_NAME returns what HostGetHostname does.
POVZEL_EXPORT BoolType VerGetVersionParam(VerParamEType paramId, VerParamResultSType* result);

POVZEL_END_C
