#include "jnitable.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <tuple>
#include <type_traits>
#include <utility>

#include "calls.h"

namespace jnitable {

StateSType state;

namespace {

enum EffectEType { None, MakesReference, DropsReference, Obtains, GivesBack };

// ENTRY(function, can it fail, what it does to the counts): all that the natives may call.
#define JNI_ENTRIES(ENTRY) \
  ENTRY(FindClass, true, MakesReference) \
  ENTRY(GetFieldID, true, None) \
  ENTRY(DeleteLocalRef, false, DropsReference) \
  ENTRY(ExceptionCheck, false, None) \
  ENTRY(ExceptionClear, false, None) \
  ENTRY(GetObjectClass, false, MakesReference) \
  ENTRY(IsInstanceOf, false, None) \
  ENTRY(GetBooleanField, false, None) \
  ENTRY(GetByteField, false, None) \
  ENTRY(GetIntField, false, None) \
  ENTRY(GetLongField, false, None) \
  ENTRY(GetDoubleField, false, None) \
  ENTRY(GetObjectField, false, MakesReference) \
  ENTRY(SetBooleanField, false, None) \
  ENTRY(SetByteField, false, None) \
  ENTRY(SetIntField, false, None) \
  ENTRY(SetLongField, false, None) \
  ENTRY(SetDoubleField, false, None) \
  ENTRY(SetObjectField, false, None) \
  ENTRY(NewStringUTF, true, MakesReference) \
  ENTRY(GetStringUTFLength, false, None) \
  ENTRY(GetStringLength, false, None) \
  ENTRY(GetStringUTFChars, true, Obtains) \
  ENTRY(ReleaseStringUTFChars, false, GivesBack) \
  ENTRY(GetStringChars, true, Obtains) \
  ENTRY(ReleaseStringChars, false, GivesBack) \
  ENTRY(GetArrayLength, false, None) \
  ENTRY(GetObjectArrayElement, true, MakesReference) \
  ENTRY(NewByteArray, true, MakesReference) \
  ENTRY(NewLongArray, true, MakesReference) \
  ENTRY(GetByteArrayElements, true, Obtains) \
  ENTRY(ReleaseByteArrayElements, false, GivesBack) \
  ENTRY(SetByteArrayRegion, true, None) \
  ENTRY(GetLongArrayRegion, true, None) \
  ENTRY(SetLongArrayRegion, true, None)

enum EntryEType : std::size_t {
#define ENTRY(function, fails, effect) Entry_##function,
  JNI_ENTRIES(ENTRY)
#undef ENTRY
      entryCount
};

struct EntrySType {
  const char* name;
  bool canFail;
  EffectEType effect;
};

constexpr EntrySType entries[entryCount] = {
#define ENTRY(function, fails, effect) {#function, fails, effect},
    JNI_ENTRIES(ENTRY)
#undef ENTRY
};

const JNINativeInterface_* real = nullptr;
JNINativeInterface_ observed;
jclass outOfMemory = nullptr;

// IDs are unique within a class only.
struct FieldSType {
  jfieldID id;
  jclass owner;
  std::string name;
};
std::vector<FieldSType> knownFields;
std::vector<std::pair<jobject, std::string>> objectNames;

std::string nameOf(JNIEnv* env, jobject object) {
  if (object == nullptr) return "null";
  for (const auto& [known, shown] : objectNames) {
    if (real->IsSameObject(env, known, object)) return shown;
  }
  return "?";
}

std::string fieldName(JNIEnv* env, jobject object, jfieldID id) {
  for (const FieldSType& field : knownFields) {
    if (field.id == id && real->IsInstanceOf(env, object, field.owner)) return field.name;
  }
  return "?";
}

void learnField(JNIEnv* env, jfieldID id, jclass owner, const char* name) {
  if (id == nullptr) return;
  knownFields.push_back({id, static_cast<jclass>(real->NewGlobalRef(env, owner)), name});
}

// `object` is the call's first argument, which a field's ID belongs to.
template <typename T, typename O>
void addArgument(JNIEnv* env, std::string& text, [[maybe_unused]] O object, T value) {
  if constexpr (std::is_convertible_v<T, jobject>) {
    calls::addRaw(text, nameOf(env, value));
  } else if constexpr (std::is_same_v<T, jfieldID>) {
    calls::addRaw(text, fieldName(env, object, value));
  } else if constexpr (std::is_same_v<T, const char*> || std::is_same_v<T, double>) {
    calls::add(text, value);
  } else if constexpr (std::is_pointer_v<T>) {
    calls::addRaw(text, value != nullptr ? "*" : "null");
  } else {
    calls::add(text, static_cast<std::int64_t>(value));
  }
}

void addArguments(JNIEnv*, std::string&) {}

template <typename O, typename... Rest>
void addArguments(JNIEnv* env, std::string& text, O object, Rest... rest) {
  addArgument(env, text, object, object);
  (addArgument(env, text, object, rest), ...);
}

// Whether the call under way is one that was told to fail; then it has thrown.
bool failsNow(JNIEnv* env, const EntrySType& entry) {
  if (!entry.canFail || (!state.failName.empty() && state.failName != entry.name)) return false;
  ++state.count;
  const bool fails = state.count == state.failAt ||
                     (state.failAfterwards && state.failAt > 0 && state.count > state.failAt);
  if (!fails) return false;
  if (state.failed.empty()) state.failed = entry.name;
  real->ThrowNew(env, outOfMemory, "told to fail");
  return true;
}

void account(EffectEType effect, bool succeeded) {
  if (!succeeded) return;
  state.held += effect == Obtains ? 1 : effect == GivesBack ? -1 : 0;
  state.references += effect == MakesReference ? 1 : effect == DropsReference ? -1 : 0;
  if (state.references > state.mostReferences) state.mostReferences = state.references;
}

template <std::size_t Index, typename F>
struct Entry;

template <std::size_t Index, typename R, typename... Args>
struct Entry<Index, R(JNICALL*)(JNIEnv*, Args...)> {
  static R(JNICALL* realFunction)(JNIEnv*, Args...);

  static R JNICALL call(JNIEnv* env, Args... arguments) {
    if (calls::recording) {
      std::string text = std::string(entries[Index].name) + "(";
      addArguments(env, text, arguments...);
      calls::all.push_back(text + ")");
    }
    if (failsNow(env, entries[Index])) return R();
    if constexpr (std::is_void_v<R>) {
      realFunction(env, arguments...);
      account(entries[Index].effect, true);
    } else {
      const R result = realFunction(env, arguments...);
      account(entries[Index].effect, result != R());
      if constexpr (Index == Entry_GetFieldID) {
        const auto [owner, name, signature] = std::make_tuple(arguments...);
        learnField(env, result, owner, name);
      }
      return result;
    }
  }
};

template <std::size_t Index, typename R, typename... Args>
R(JNICALL* Entry<Index, R(JNICALL*)(JNIEnv*, Args...)>::realFunction)
(JNIEnv*, Args...) = nullptr;

void unexpected() {
  std::fputs("jnitable: a native called a JNI function that it has no business with\n", stderr);
  std::abort();
}

void prepare(JNIEnv* env) {
  real = env->functions;
  jclass local = env->FindClass("java/lang/OutOfMemoryError");
  outOfMemory = static_cast<jclass>(env->NewGlobalRef(local));
  env->DeleteLocalRef(local);

  using SlotType = void (*)();
  auto* slots = reinterpret_cast<SlotType*>(&observed);
  for (std::size_t i = 0; i < sizeof observed / sizeof(SlotType); ++i) slots[i] = unexpected;
#define ENTRY(function, fails, effect) \
  Entry<Entry_##function, decltype(observed.function)>::realFunction = real->function; \
  observed.function = &Entry<Entry_##function, decltype(observed.function)>::call;
  JNI_ENTRIES(ENTRY)
#undef ENTRY
}

}  // namespace

void reset() {
  state = StateSType();
  calls::all.clear();
}

void name(jobject object, const char* shown) {
  objectNames.emplace_back(object, shown);
}

void forgetNames() {
  objectNames.clear();
}

Watch::Watch(JNIEnv* watched) : env(watched) {
  if (real == nullptr) prepare(env);
  env->functions = &observed;
}

Watch::~Watch() {
  env->functions = real;
}

}  // namespace jnitable
