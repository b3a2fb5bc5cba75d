// For programs that show how the interface library is looked for.
#pragma once

// Told of each attempt to open a library: its name, and why it failed, or null when it did not.
using ZelRtlAttemptFType = void (*)(const char* name, const char* failure);

// Called at each attempt of ZelRtlLoad; null for none.
extern ZelRtlAttemptFType zelRtlObserveAttempt;
