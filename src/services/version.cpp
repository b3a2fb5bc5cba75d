#include <povzel/version.h>

#include <unistd.h>

#include <cstdint>
#include <cstdio>

#include <povzel/hostsystem.h>

#define VER_RELEASE "6.7"
#define VER_DBF_RELEASE "6.0A"
#define VER_BUILD_DATE "Sun Dec  6 23:23:09 2015"

namespace {

// The text that answers `paramId`, or null when the answer is no text.
const char* stringParam(int paramId) {
  switch (paramId) {
    case VER_INFO_CPU_KIND:
      return HostGetSystemInfo()->cpuKind;
    case VER_INFO_CPU_ARCH:
      return "i686";
    case VER_INFO_TV_BUILD_ARCH:
      return VerBuildPlatform;
    case VER_INFO_TV_BUILD_DATE:
      return VER_BUILD_DATE;
    case VER_INFO_TV_RELEASE:
    case VER_INFO_TV_VERSION:
      return VER_RELEASE;
    case VER_INFO_OS_NAME:
      return HostGetSystemInfo()->osName;
    case VER_INFO_OS_RELEASE:
      return HostGetSystemInfo()->osRelease;
    case VER_INFO_OS_VERSION:
      return HostGetSystemInfo()->osVersion;
    default:
      return nullptr;
  }
}

BoolType answerInt(VerParamResultSType* result, long value) {
  result->kind = VER_INT_KIND;
  result->intVal = static_cast<std::int32_t>(value);
  return 1;
}

}  // namespace

int VerDbfLevel() {
  return 62;
}
int VerDbfLevel40() {
  return 38;
}
int VerDbfLevel50() {
  return 54;
}
int VerDbfLevel60() {
  return 56;
}
int VerDbfLevel62() {
  return 62;
}
int VerLogLevel() {
  return 67;
}
int VerLogLevelMin() {
  return 60;
}
int VerLogLevelMax() {
  return 67;
}
int VerBkupLevel() {
  return 62;
}
int VerBkupLevel40() {
  return 38;
}
int VerBkupLevel41() {
  return 41;
}
int VerLgcLevel() {
  return 55;
}
int VerLgcLevelMinSupported() {
  return 55;
}
int VerLgcLevel32() {
  return 19;
}
int VerRDbfLevel() {
  return 663;
}

const char* VerTVVersion() {
  return VER_RELEASE ", " VER_BUILD_DATE;
}

const char* VerLibraryVersion() {
  return POVZEL_VERSION;
}

const char* VerDbfVersion() {
  static constexpr char text[100] = VER_DBF_RELEASE ", " VER_BUILD_DATE;
  return text;
}

const char* VerTrvCallVersion() {
  static constexpr char text[100] = VER_RELEASE ", " VER_BUILD_DATE;
  return text;
}

BoolType VerGetVersionParam(VerParamEType paramId, VerParamResultSType* result) {
  result->kind = VER_STRING_KIND;
  result->intVal = 0;
  result->stringVal[0] = '\0';
  result->stringVal[sizeof result->stringVal - 1] = '\0';

  const char* text = stringParam(paramId);
  if (text != nullptr) {
    std::snprintf(result->stringVal, sizeof result->stringVal, "%s", text);
    return 1;
  }
  switch (static_cast<int>(paramId)) {
    case VER_INFO_NODE_NAME:
      return HostGetHostname(result->stringVal, sizeof result->stringVal);
    case VER_INFO_PROCESS_ID:
      return answerInt(result, getpid());
    case VER_INFO_PROCESSOR_COUNT:
      return answerInt(result, HostGetCpuCount());
    default:
      return 0;
  }
}
