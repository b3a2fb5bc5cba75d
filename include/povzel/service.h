// Service control: what a program that runs as a service of the system tells the service manager.
//
// Programs are never run as services on this platform: the queries answer 0 at once and the reports
// do nothing, so that a program may make the calls everywhere. Any thread may make them at any
// moment; nothing here is kept, and texts stay the caller's.
#pragma once

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Prepares the program to run as a service. Returns whether it may: 0.
POVZEL_EXPORT BoolType ServiceInit(void);

// Returns whether the process runs as a service: 0.
POVZEL_EXPORT BoolType ServiceIsService(void);

// Report that the service is about to start, to stop, to pause, and to go on after a pause. Return
// whether a service manager was told: 0.
POVZEL_EXPORT BoolType ServiceStarting(void);
POVZEL_EXPORT BoolType ServiceStopping(void);
POVZEL_EXPORT BoolType ServicePausing(void);
POVZEL_EXPORT BoolType ServiceContinuing(void);

// Reports that the service has started.
POVZEL_EXPORT void ServiceStarted(void);

// Reports that the service has stopped, `normally` (non-zero) or after a failure. UtlExit makes the
// call in a service, with status 0 as normal.
POVZEL_EXPORT void ServiceStopped(BoolType normally);

// Reports that the service has paused.
POVZEL_EXPORT void ServicePaused(void);

// Hands the line `text` to the service's debugging output.
POVZEL_EXPORT void ServiceDebugMsg(const char* text);

// Sets the exit code that ServiceStopped reports.
POVZEL_EXPORT void ServiceSetExitCode(int code);

// Names the log file, `name`, in which the service manager's user finds more.
POVZEL_EXPORT void ServiceSetLogName(const char* name);

// Reports that the log could not be written.
POVZEL_EXPORT void ServiceLogFailed(void);

// Reports that the service has ended by a fault.
POVZEL_EXPORT void ServiceCrashed(void);

POVZEL_END_C
