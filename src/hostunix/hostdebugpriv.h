// The framed reports of the fatal paths.
#pragma once

#include <cstdio>

#include "povzeltypes.h"

// Opens a box on standard output that says that `caller` was entered, and when.
void printDebuggerBanner(const char* caller);

// Forgets the fatal-report callback, and that HostCallDebugger has run.
void forgetFatalReports();

// Puts the catalogue's text about `error`, an errno value, into `text`.
void errnoMessage(int error, ErrMsgStrType text);
