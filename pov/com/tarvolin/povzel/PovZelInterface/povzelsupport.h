// What the jar asks the library beside its natives proper: com/tarvolin/povzel/PovZelSupport.
#pragma once

#include <jni.h>

#include <povzel/povzeltypes.h>

extern "C" {

// The version of this library, such as "6.7.1"; null, with an exception pending, without memory.
// Takes no part in the bridge's state, so it may be called at any time.
POVZEL_EXPORT jstring Java_com_tarvolin_povzel_PovZelSupport_libraryVersion(JNIEnv* env,
                                                                            jclass ignore);
}
