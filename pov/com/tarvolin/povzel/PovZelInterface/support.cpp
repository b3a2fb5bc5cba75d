// The version, by which the jar knows the library that it was made with.
#include <povzel/version.h>
#include "povzelsupport.h"

jstring Java_com_tarvolin_povzel_PovZelSupport_libraryVersion(JNIEnv* env, jclass) {
  return env->NewStringUTF(VerLibraryVersion());
}
