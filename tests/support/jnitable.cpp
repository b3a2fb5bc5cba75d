#include "jnitable.h"

#include <algorithm>
#include <type_traits>

#include "misaligned.h"

namespace jnitable {

StateSType state;

namespace {

using Table = JNINativeInterface_;

const Table* real = nullptr;
jclass outOfMemory = nullptr;
Table observed;  // with nothing in the slots that a native has no business with

enum EffectEType { None, MakesReference, DropsReference, Obtains, GivesBack };

void account(EffectEType effect, const char* name) {
  if (effect == GivesBack) state.released += std::string(name) + " ";
  state.held += effect == Obtains ? 1 : effect == GivesBack ? -1 : 0;
  state.references += effect == MakesReference ? 1 : effect == DropsReference ? -1 : 0;
  state.mostReferences = std::max(state.mostReferences, state.references);
}

// Whether the call under way is one that was told to fail; then it has thrown.
bool failsNow(JNIEnv* env, const char* name) {
  if (!state.failName.empty() && state.failName != name) return false;
  ++state.count;
  const bool isLater = state.failAt > 0 && state.count > state.failAt;
  if (state.count != state.failAt && !(isLater && state.failAfterwards)) return false;
  if (state.failed.empty()) state.failed = name;
  real->ThrowNew(env, outOfMemory, "told to fail");
  return true;
}

// Functions that neither fail nor leave anything behind.
template <auto... slots>
void passOn() {
  ((observed.*slots = real->*slots), ...);
}

template <auto slot, EffectEType effect, bool canFail, typename R, typename... Args>
void observe(const char* called, R (JNICALL* Table::*)(JNIEnv*, Args...)) {
  static const char* const name = called;
  observed.*slot = [](JNIEnv* env, Args... arguments) -> R {
    state.misaligned |= !STACK_IS_ALIGNED();
    if (canFail && failsNow(env, name)) return R();
    if constexpr (std::is_void_v<R>) {
      account(effect, name);
      (real->*slot)(env, arguments...);
    } else {
      const R result = (real->*slot)(env, arguments...);
      if (result != R()) account(effect, name);
      return result;
    }
  };
}

#define FAILS(function, effect) observe<&Table::function, effect, true>(#function, &Table::function)
#define WORKS(function, effect) \
  observe<&Table::function, effect, false>(#function, &Table::function)

void observeAll() {
  passOn<&Table::ExceptionClear, &Table::GetArrayLength, &Table::GetStringLength,
         &Table::GetStringUTFLength, &Table::GetByteField, &Table::GetIntField,
         &Table::GetLongField, &Table::GetDoubleField, &Table::SetBooleanField,
         &Table::SetByteField, &Table::SetIntField, &Table::SetLongField, &Table::SetDoubleField,
         &Table::SetObjectField>();
  FAILS(FindClass, MakesReference);
  FAILS(GetFieldID, None);
  FAILS(NewStringUTF, MakesReference);
  FAILS(NewByteArray, MakesReference);
  FAILS(NewLongArray, MakesReference);
  FAILS(GetObjectArrayElement, MakesReference);
  WORKS(SetByteArrayRegion, None);
  WORKS(GetLongArrayRegion, None);
  WORKS(SetLongArrayRegion, None);
  FAILS(GetStringUTFChars, Obtains);
  FAILS(GetStringChars, Obtains);
  FAILS(GetByteArrayElements, Obtains);
  WORKS(ReleaseStringUTFChars, GivesBack);
  WORKS(ReleaseStringChars, GivesBack);
  WORKS(ReleaseByteArrayElements, GivesBack);
  WORKS(GetObjectField, MakesReference);
  WORKS(DeleteLocalRef, DropsReference);
}

}  // namespace

Watch::Watch(JNIEnv* watched) : env(watched) {
  if (real == nullptr) {
    jclass local = env->FindClass("java/lang/OutOfMemoryError");
    outOfMemory = static_cast<jclass>(env->NewGlobalRef(local));
    real = env->functions;
    observeAll();
  }
  env->functions = &observed;
}

Watch::~Watch() {
  env->functions = real;
}

}  // namespace jnitable
