// Service control. On this platform programs are never run as services: the queries answer 0 and
// the reports do nothing.
#pragma once

#include <povzel/povzeltypes.h>

extern "C" {

POVZEL_EXPORT BoolType ServiceInit();
POVZEL_EXPORT BoolType ServiceIsService();
POVZEL_EXPORT BoolType ServiceStarting();
POVZEL_EXPORT BoolType ServiceStopping();
POVZEL_EXPORT BoolType ServicePausing();
POVZEL_EXPORT BoolType ServiceContinuing();

POVZEL_EXPORT void ServiceStarted();
POVZEL_EXPORT void ServiceStopped(BoolType normally);
POVZEL_EXPORT void ServicePaused();
POVZEL_EXPORT void ServiceDebugMsg(const char* text);
POVZEL_EXPORT void ServiceSetExitCode(int code);
POVZEL_EXPORT void ServiceSetLogName(const char* name);
POVZEL_EXPORT void ServiceLogFailed();
POVZEL_EXPORT void ServiceCrashed();

}  // extern "C"
