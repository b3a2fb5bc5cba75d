#include "jvm.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <utility>
#include <vector>

namespace jvm {
namespace {

constexpr int warnedStatus = 70;

JNIEnv* env = nullptr;
jclass helpers = nullptr;  // Reports.java

std::mutex warningsMutex;
std::string warnings;

[[noreturn]] void die(const char* what, const char* detail) {
  std::fprintf(stderr, "jvm: %s: %s\n", what, detail);
  if (env != nullptr && env->ExceptionCheck()) env->ExceptionDescribe();
  std::_Exit(warnedStatus);
}

// Receives all that the JVM prints.
jint JNICALL print(FILE*, const char* format, va_list arguments) {
  char* line = nullptr;
  const int length = vasprintf(&line, format, arguments);
  if (length < 0) return length;
  std::fputs(line, stderr);
  const std::lock_guard<std::mutex> lock(warningsMutex);
  warnings += line;
  std::free(line);
  return length;
}

// The last thing in the process: the JVM's threads run on, so nothing is taken down under them.
void end(int status, void*) {
  std::fflush(nullptr);
  if (!takeWarnings().empty()) {
    std::fputs("jvm: the JVM printed warnings\n", stderr);
    status = warnedStatus;
  }
  _exit(status);
}

// Calls a static method of Reports.java, of objects for an object.
template <typename... Objects>
jobject call(const char* method, Objects... objects) {
  std::string signature = "(";
  for (std::size_t i = 0; i < sizeof...(objects); ++i) signature += "Ljava/lang/Object;";
  signature += ")Ljava/lang/Object;";
  jmethodID id = env->GetStaticMethodID(helpers, method, signature.c_str());
  jobject result = env->CallStaticObjectMethod(helpers, id, objects...);
  if (env->ExceptionCheck()) die("exception in", method);
  return result;
}

// The text of a Java string, which is given up.
std::string take(jobject string) {
  jstring text = static_cast<jstring>(string);
  const char* characters = env->GetStringUTFChars(text, nullptr);
  std::string copy = characters;
  env->ReleaseStringUTFChars(text, characters);
  env->DeleteLocalRef(text);
  return copy;
}

}  // namespace

JNIEnv* start(std::initializer_list<const char*> options) {
  if (env != nullptr) return env;
  void* library = dlopen(POVZEL_LIBJVM, RTLD_NOW | RTLD_GLOBAL);
  if (library == nullptr) die("dlopen", dlerror());
  auto* const create =
      reinterpret_cast<decltype(&JNI_CreateJavaVM)>(dlsym(library, "JNI_CreateJavaVM"));

  std::vector<JavaVMOption> all = {{const_cast<char*>("vfprintf"), reinterpret_cast<void*>(print)}};
  std::vector<std::string> texts = {"-Djava.class.path=" POVZEL_CLASS_PATH, "-XX:+UseSerialGC",
                                    "-XX:-UsePerfData", "-Xmx256m"};
  texts.insert(texts.end(), options.begin(), options.end());
  for (std::string& text : texts) all.push_back({text.data(), nullptr});

  JavaVMInitArgs arguments{JNI_VERSION_1_8, static_cast<jint>(all.size()), all.data(), JNI_FALSE};
  JavaVM* machine = nullptr;
  void* created = nullptr;
  if (create(&machine, &created, &arguments) != JNI_OK) {
    die("the JVM does not start", POVZEL_LIBJVM);
  }
  env = static_cast<JNIEnv*>(created);
  helpers = env->FindClass("Reports");
  on_exit(end, nullptr);
  return env;
}

std::string takeWarnings() {
  const std::lock_guard<std::mutex> lock(warningsMutex);
  return std::exchange(warnings, "");
}

jobject newReport(const std::string& fields) {
  jobject report = call("report");
  if (!fields.empty()) set(report, fields);
  return report;
}

jthrowable newException() {
  return static_cast<jthrowable>(call("error"));
}

jobjectArray newReports(jint count, jobject element) {
  jclass type = env->FindClass("com/tarvolin/povzel/PovZelReport");
  jobjectArray array = env->NewObjectArray(count, type, element);
  env->DeleteLocalRef(type);
  return array;
}

jlongArray newLongs(jint count) {
  jlongArray array = env->NewLongArray(count);
  for (jint i = 0; i < count; ++i) {
    const jlong value = i - 77;
    env->SetLongArrayRegion(array, i, 1, &value);
  }
  return array;
}

jbyteArray newBytes(const std::string& values) {
  const jsize count = static_cast<jsize>(values.size());
  jbyteArray array = env->NewByteArray(count);
  env->SetByteArrayRegion(array, 0, count, reinterpret_cast<const jbyte*>(values.data()));
  return array;
}

jstring newString(const std::string& modifiedUtf8) {
  return env->NewStringUTF(modifiedUtf8.c_str());
}

void set(jobject report, const std::string& fields) {
  jstring text = newString(fields);
  env->DeleteLocalRef(call("set", report, text));
  env->DeleteLocalRef(text);
}

std::string shown(jobject object) {
  return take(call("show", object));
}

}  // namespace jvm
