#include "jvm.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace jvm {
namespace {

constexpr int warnedStatus = 70;

JNIEnv* env = nullptr;
jclass reportClass = nullptr;
jclass exceptionClass = nullptr;

std::mutex warningsMutex;
std::string warnings;

struct FieldSType {
  const char* name;
  const char* signature;
};

constexpr FieldSType fields[] = {
    {"oop", "J"},
    {"classOop", "J"},
    {"classHistoryOop", "J"},
    {"objType", "B"},
    {"namedSize", "I"},
    {"indexedSize", "J"},
    {"isCollection", "Z"},
    {"isString", "Z"},
    {"isDBString", "Z"},
    {"valueType", "B"},
    {"valueInt1", "I"},
    {"valueInt2", "I"},
    {"valueLong", "J"},
    {"valueDouble", "D"},
    {"valueBytes", "[B"},
    {"valueLongs", "[J"},
    {"valueString", "Ljava/lang/String;"},
    {"number", "I"},
    {"message", "Ljava/lang/String;"},
    {"category", "J"},
    {"context", "J"},
    {"fatal", "Z"},
    {"argCount", "I"},
    {"args", "[J"},
};

[[noreturn]] void die(const char* what, const char* detail) {
  std::fprintf(stderr, "jvm: %s: %s\n", what, detail);
  if (env != nullptr && env->ExceptionCheck()) env->ExceptionDescribe();
  std::_Exit(warnedStatus);
}

template <typename T>
T require(T value, const char* what) {
  if (value == nullptr) die("cannot be had", what);
  return value;
}

// Receives all that the JVM prints.
jint JNICALL print(FILE*, const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  char* line = nullptr;
  const int length = vasprintf(&line, format, again);
  va_end(again);
  if (length < 0) return length;
  std::fputs(line, stderr);
  {
    const std::lock_guard<std::mutex> lock(warningsMutex);
    warnings += line;
  }
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

jfieldID fieldOf(jobject object, const char* name, char* type) {
  for (const FieldSType& field : fields) {
    if (std::strcmp(field.name, name) != 0) continue;
    jclass owner = env->GetObjectClass(object);
    jfieldID id = require(env->GetFieldID(owner, name, field.signature), name);
    env->DeleteLocalRef(owner);
    *type = field.signature[0];
    return id;
  }
  die("no such field", name);
}

jobject reference(jobject object, const char* field) {
  char type = 0;
  jfieldID id = fieldOf(object, field, &type);
  return env->GetObjectField(object, id);
}

jclass globalClass(const char* name) {
  jclass local = require(env->FindClass(name), name);
  return static_cast<jclass>(env->NewGlobalRef(local));
}

jobject newObject(jclass type) {
  jmethodID constructor = require(env->GetMethodID(type, "<init>", "()V"), "constructor");
  return require(env->NewObject(type, constructor), "object");
}

}  // namespace

JNIEnv* start(std::initializer_list<const char*> options) {
  if (env != nullptr) return env;
  void* library = dlopen(POVZEL_LIBJVM, RTLD_NOW | RTLD_GLOBAL);
  if (library == nullptr) die("dlopen", dlerror());
  using CreateFType = jint(JNICALL*)(JavaVM**, void**, void*);
  const CreateFType create = reinterpret_cast<CreateFType>(dlsym(library, "JNI_CreateJavaVM"));

  std::string classPath = std::string("-Djava.class.path=") + POVZEL_CLASS_PATH;
  std::vector<JavaVMOption> all;
  // The hook is the function's address in a field of type void*.
  void* hook = nullptr;
  const auto printer = &print;
  std::memcpy(&hook, &printer, sizeof hook);
  char hookName[] = "vfprintf";
  all.push_back({hookName, hook});
  all.push_back({classPath.data(), nullptr});
  std::vector<std::string> texts = {"-XX:+UseSerialGC", "-XX:-UsePerfData", "-Xmx256m"};
  texts.insert(texts.end(), options.begin(), options.end());
  for (std::string& text : texts) all.push_back({text.data(), nullptr});

  JavaVMInitArgs arguments{JNI_VERSION_1_8, static_cast<jint>(all.size()), all.data(), JNI_FALSE};
  JavaVM* machine = nullptr;
  void* created = nullptr;
  if (create == nullptr || create(&machine, &created, &arguments) != JNI_OK) {
    die("the JVM does not start", POVZEL_LIBJVM);
  }
  env = static_cast<JNIEnv*>(created);
  reportClass = globalClass("com/tarvolin/povzel/PovZelReport");
  exceptionClass = globalClass("com/tarvolin/povzel/PovZelException");
  on_exit(end, nullptr);
  return env;
}

std::string takeWarnings() {
  const std::lock_guard<std::mutex> lock(warningsMutex);
  std::string taken;
  taken.swap(warnings);
  return taken;
}

Frame::Frame(jint capacity) {
  if (env->PushLocalFrame(capacity) != 0) die("PushLocalFrame", "no memory");
}

Frame::~Frame() {
  env->PopLocalFrame(nullptr);
}

jobject newReport() {
  return newObject(reportClass);
}

jthrowable newException() {
  return static_cast<jthrowable>(newObject(exceptionClass));
}

jobjectArray newReports(jint count, jobject element) {
  return require(env->NewObjectArray(count, reportClass, element), "report array");
}

jlongArray newLongs(const std::vector<jlong>& values) {
  const jsize count = static_cast<jsize>(values.size());
  jlongArray array = require(env->NewLongArray(count), "long array");
  env->SetLongArrayRegion(array, 0, count, values.data());
  return array;
}

jbyteArray newBytes(const std::string& values) {
  const jsize count = static_cast<jsize>(values.size());
  jbyteArray array = require(env->NewByteArray(count), "byte array");
  env->SetByteArrayRegion(array, 0, count, reinterpret_cast<const jbyte*>(values.data()));
  return array;
}

jstring newString(const char* modifiedUtf8) {
  return require(env->NewStringUTF(modifiedUtf8), "string");
}

jstring newString(const std::u16string& codeUnits) {
  return require(env->NewString(reinterpret_cast<const jchar*>(codeUnits.data()),
                                static_cast<jsize>(codeUnits.size())),
                 "string");
}

std::int64_t number(jobject object, const char* field) {
  char type = 0;
  jfieldID id = fieldOf(object, field, &type);
  switch (type) {
    case 'Z':
      return env->GetBooleanField(object, id);
    case 'B':
      return env->GetByteField(object, id);
    case 'I':
      return env->GetIntField(object, id);
    case 'J':
      return env->GetLongField(object, id);
    default:
      die("not a number", field);
  }
}

double real(jobject object, const char* field) {
  char type = 0;
  jfieldID id = fieldOf(object, field, &type);
  return env->GetDoubleField(object, id);
}

std::string text(jobject object, const char* field) {
  jstring value = static_cast<jstring>(reference(object, field));
  if (value == nullptr) return "(null)";
  const char* characters = require(env->GetStringUTFChars(value, nullptr), field);
  std::string copy = characters;
  env->ReleaseStringUTFChars(value, characters);
  env->DeleteLocalRef(value);
  return copy;
}

std::vector<jlong> longs(jobject object, const char* field) {
  jlongArray value = static_cast<jlongArray>(reference(object, field));
  return value != nullptr ? elements(value) : std::vector<jlong>();
}

std::string bytes(jobject object, const char* field) {
  jbyteArray value = static_cast<jbyteArray>(reference(object, field));
  return value != nullptr ? elements(value) : std::string();
}

bool isNull(jobject object, const char* field) {
  jobject value = reference(object, field);
  env->DeleteLocalRef(value);
  return value == nullptr;
}

void setNumber(jobject object, const char* field, std::int64_t value) {
  char type = 0;
  jfieldID id = fieldOf(object, field, &type);
  switch (type) {
    case 'Z':
      return env->SetBooleanField(object, id, static_cast<jboolean>(value != 0));
    case 'B':
      return env->SetByteField(object, id, static_cast<jbyte>(value));
    case 'I':
      return env->SetIntField(object, id, static_cast<jint>(value));
    case 'J':
      return env->SetLongField(object, id, value);
    default:
      die("not a number", field);
  }
}

void setReal(jobject object, const char* field, double value) {
  char type = 0;
  jfieldID id = fieldOf(object, field, &type);
  env->SetDoubleField(object, id, value);
}

void setObject(jobject object, const char* field, jobject value) {
  char type = 0;
  jfieldID id = fieldOf(object, field, &type);
  env->SetObjectField(object, id, value);
}

std::vector<jlong> elements(jlongArray array) {
  std::vector<jlong> values(static_cast<std::size_t>(env->GetArrayLength(array)));
  env->GetLongArrayRegion(array, 0, static_cast<jsize>(values.size()), values.data());
  return values;
}

std::string elements(jbyteArray array) {
  std::string values(static_cast<std::size_t>(env->GetArrayLength(array)), '\0');
  env->GetByteArrayRegion(array, 0, static_cast<jsize>(values.size()),
                          reinterpret_cast<jbyte*>(values.data()));
  return values;
}

}  // namespace jvm
