#include "jvm.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <numeric>
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
  char line[4096];
  const int length = std::vsnprintf(line, sizeof line, format, arguments);
  std::fputs(line, stderr);
  const std::lock_guard<std::mutex> lock(warningsMutex);
  warnings += line;
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

// Calls a static method of Reports.java, which gives an object.
template <typename... Objects>
jobject call(const char* method, const char* signature, Objects... objects) {
  jmethodID id = env->GetStaticMethodID(helpers, method, signature);
  jobject result = env->CallStaticObjectMethod(helpers, id, objects...);
  if (env->ExceptionCheck()) die("exception in", method);
  return result;
}

jobject create(const char* type) {
  env->PushLocalFrame(2);
  jclass found = env->FindClass(type);
  return env->PopLocalFrame(call("create", "(Ljava/lang/Class;)Ljava/lang/Object;", found));
}

constexpr char reportClass[] = "com/tarvolin/povzel/PovZelReport";

}  // namespace

JNIEnv* start(std::initializer_list<const char*> options) {
  if (env != nullptr) return env;
  auto* const create = reinterpret_cast<decltype(&JNI_CreateJavaVM)>(
      dlsym(dlopen(POVZEL_LIBJVM, RTLD_NOW | RTLD_GLOBAL), "JNI_CreateJavaVM"));

  std::vector<JavaVMOption> all = {{const_cast<char*>("vfprintf"), reinterpret_cast<void*>(print)}};
  std::vector<std::string> texts = {"-Djava.class.path=" POVZEL_CLASS_PATH, "-XX:+UseSerialGC",
                                    "-XX:-UsePerfData", "-Xmx256m"};
  texts.insert(texts.end(), options.begin(), options.end());
  for (std::string& text : texts) all.push_back({text.data(), nullptr});

  JavaVMInitArgs arguments{JNI_VERSION_1_8, static_cast<jint>(all.size()), all.data(), JNI_FALSE};
  JavaVM* machine = nullptr;
  void* created = nullptr;
  if (create == nullptr || create(&machine, &created, &arguments) != JNI_OK) {
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
  jobject made = create(reportClass);
  if (!fields.empty()) set(made, fields);
  return made;
}

jthrowable newException() {
  return static_cast<jthrowable>(create("com/tarvolin/povzel/PovZelException"));
}

jobjectArray newReports(jint count, jobject element) {
  return env->NewObjectArray(count, env->FindClass(reportClass), element);
}

jlongArray newLongs(jint count) {
  std::vector<jlong> values(count);
  std::iota(values.begin(), values.end(), -77);
  jlongArray array = env->NewLongArray(count);
  env->SetLongArrayRegion(array, 0, count, values.data());
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
  const Frame frame(1);
  call("set", "(Ljava/lang/Object;Ljava/lang/String;)Ljava/lang/Object;", report,
       newString(fields));
}

std::string shown(jobject object) {
  const Frame frame(1);
  auto* text = static_cast<jstring>(call("show", "(Ljava/lang/Object;)Ljava/lang/String;", object));
  const char* characters = env->GetStringUTFChars(text, nullptr);
  std::string copy = characters;
  env->ReleaseStringUTFChars(text, characters);
  return copy;
}

}  // namespace jvm
