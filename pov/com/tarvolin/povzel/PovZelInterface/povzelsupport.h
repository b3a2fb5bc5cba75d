// What the jar asks the library beside its natives proper: com/tarvolin/povzel/PovZelSupport.
#pragma once

#include <jni.h>

#include <povzel/povzeltypes.h>

extern "C" {

// ---- At any time, from any thread ----

// The version of this library, such as "6.7.1"; null, with an exception pending, without memory.
POVZEL_EXPORT jstring Java_com_tarvolin_povzel_PovZelSupport_libraryVersion(JNIEnv* env,
                                                                            jclass ignore);

// The name of an error number, such as "rtErrDoesNotUnderstand": the catalogue's symbol without its
// "errmsg.". Null if the number has none; with an exception pending, without memory.
POVZEL_EXPORT jstring Java_com_tarvolin_povzel_PovZelSupport_errorName(JNIEnv* env, jclass ignore,
                                                                       jint number);

// Breaks the program that runs in the interface library, whatever its session: for good if `hard`,
// else so that it can be continued. Meant for a moment in which another thread is inside a native.
// Returns whether the interface library says that it ran one; false before _initialize, and of a
// library that has no breaks.
POVZEL_EXPORT jboolean Java_com_tarvolin_povzel_PovZelSupport_breakProgram(JNIEnv* env,
                                                                           jclass ignore,
                                                                           jboolean hard);

// ---- As the natives of PovZelInterface: one at a time, in a session, with their statuses ----

// Commits what the session has changed, or takes it back. Return 0, -1 or -2.
POVZEL_EXPORT jint Java_com_tarvolin_povzel_PovZelSupport_commit(JNIEnv* env, jclass ignore,
                                                                 jint sessionId,
                                                                 jthrowable jErrReport);
POVZEL_EXPORT jint Java_com_tarvolin_povzel_PovZelSupport_abort(JNIEnv* env, jclass ignore,
                                                                jint sessionId,
                                                                jthrowable jErrReport);
}
