#include "recorder.h"

#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <type_traits>

#include "calls.h"

namespace recorder {

StateSType state;

namespace {

enum SlotEType : std::size_t {
#define TYPED_ID(name, result, arguments) Slot_##name,
#define UNTYPED_ID(name) Slot_##name,
  ZEL_RTL_SLOTS(TYPED_ID, UNTYPED_ID)
#undef TYPED_ID
#undef UNTYPED_ID
};

constexpr const char* slotNames[] = {
#define TYPED_NAME(name, result, arguments) #name,
#define UNTYPED_NAME(name) #name,
    ZEL_RTL_SLOTS(TYPED_NAME, UNTYPED_NAME)
#undef TYPED_NAME
#undef UNTYPED_NAME
};

[[noreturn]] void die(const char* what) {
  std::fprintf(stderr, "recorder: %s\n", what);
  std::abort();
}

void addAll(std::string&) {}

// Oops with their count, which is the room when the call is made.
// NOLINTNEXTLINE(readability-non-const-parameter): a pointer to const would not be chosen
void addAll(std::string& text, OopType*, ArraySizeType* count) {
  calls::addRaw(text, "*,*" + std::to_string(*count));
}

template <typename T, typename... Rest>
void addAll(std::string& text, T value, Rest... rest);

template <typename T, typename... Rest>
requires std::is_same_v<T, OopType> || std::is_same_v<T, ByteType>
void addAll(std::string& text, const T* values, ArraySizeType count, Rest... rest) {
  calls::add(text, values, count);
  addAll(text, count, rest...);
}

template <typename T, typename... Rest>
void addAll(std::string& text, T value, Rest... rest) {
  if constexpr (std::is_same_v<T, const char*> || std::is_same_v<T, double>) {
    calls::add(text, value);
  } else if constexpr (std::is_same_v<T, const ZelDateTimeSType*>) {
    calls::addRaw(text, "{" + std::to_string(value->year) + "," + std::to_string(value->dayOfYear) +
                            "," + std::to_string(value->milliseconds) + "," +
                            std::to_string(value->timeZone) + "}");
  } else if constexpr (std::is_pointer_v<T>) {
    calls::addRaw(text, value != nullptr ? "*" : "null");
  } else {
    calls::add(text, static_cast<std::int64_t>(value));
  }
  addAll(text, rest...);
}

// The oop and byte buffers that the bridge hands over are blocks of the heap.
template <typename T>
void requireRoom(T* buffer, std::size_t count) {
  if (malloc_usable_size(buffer) < count * sizeof(T)) die("a buffer is smaller than its size");
}

ArraySizeType deliver(OopType* oops, ArraySizeType room) {
  requireRoom(oops, room);
  ArraySizeType count = 0;
  for (; count < room && count < state.oops.size(); ++count) oops[count] = state.oops[count];
  return count;
}

ArraySizeType deliver(ByteType* bytes, ArraySizeType room) {
  const ArraySizeType count = state.body.size() < room ? state.body.size() : room;
  std::copy_n(state.body.begin(), count, bytes);
  return count;
}

// What each slot does beyond the recording, where that is more than to answer.
double behave(std::integral_constant<std::size_t, Slot_ZelErr>, ZelErrSType* error) {
  const bool reports = state.pending;
  state.pending = false;
  if (reports) *error = state.error;
  return reports;
}

template <std::size_t Index>
requires(Index == Slot_ZelFetchVaryingOops || Index == Slot_ZelFetchNamedOops) double behave(
    std::integral_constant<std::size_t, Index>, OopType, long, OopType* oops, ArraySizeType count) {
  return deliver(oops, count);
}

double behave(std::integral_constant<std::size_t, Slot_ZelFetchBytes>, OopType, long,
              ByteType* bytes, ArraySizeType count) {
  return deliver(bytes, count);
}

double behave(std::integral_constant<std::size_t, Slot_ZelDirtySaveObjs>, OopType* oops,
              ArraySizeType* count) {
  *count = deliver(oops, *count);
  const auto claimed = state.results.find("changed");
  if (claimed != state.results.end()) *count = static_cast<ArraySizeType>(claimed->second);
  return 1;
}

double behave(std::integral_constant<std::size_t, Slot_ZelFetchObjInfo>, OopType oop, long,
              ArraySizeType room, ZelObjInfoSType* info, ByteType* buffer, ArraySizeType* count) {
  requireRoom(buffer, room);
  *info = state.info;
  info->objId = oop;
  *count = deliver(buffer, room);
  return 1;
}

template <std::size_t Index>
requires(Index == Slot_ZelNewOop || Index == Slot_ZelNewDateTime ||
         Index == Slot_ZelFltToOop) double behave(std::integral_constant<std::size_t, Index>,
                                                  auto...) {
  const OopType made = state.nextOop;
  state.nextOop += 4;
  return made;
}

double behave(std::integral_constant<std::size_t, Slot_ZelLongToOop>, long value) {
  return static_cast<OopType>(value) << 2 | 3;
}

template <std::size_t Index>
requires(Index == Slot_ZelInit || Index == Slot_ZelLogin ||
         Index == Slot_ZelProduct) double behave(std::integral_constant<std::size_t, Index>,
                                                 auto...) {
  return 1;
}

double behave(...) {
  return 0;
}

template <std::size_t Index, typename F>
struct Slot;

template <std::size_t Index, typename R, typename... Args>
struct Slot<Index, R (*)(Args...)> {
  static R call(Args... arguments) {
    if (calls::recording) {
      std::string text = std::string(slotNames[Index]) + "(";
      addAll(text, arguments...);
      calls::all.push_back(Index == Slot_ZelErr ? poll : text + ")");
    }
    double result = 0;
    result = behave(std::integral_constant<std::size_t, Index>(), arguments...);
    const auto told = state.results.find(slotNames[Index]);
    if (told != state.results.end()) result = told->second;
    if (Index != Slot_ZelErr && (state.failName.empty() || state.failName == slotNames[Index]) &&
        ++state.count == state.failAt) {
      state.failed = slotNames[Index];
      state.pending = true;
    }
    if constexpr (std::is_same_v<R, const char*>) {
      return state.version.c_str();
    } else if constexpr (!std::is_void_v<R>) {
      return static_cast<R>(
          static_cast<std::conditional_t<std::is_same_v<R, double>, double, std::int64_t>>(result));
    }
  }
};

template <std::size_t Index>
void unexpected() {
  die(slotNames[Index]);
}

ZelRtlJumpSType makeTable() {
  ZelRtlJumpSType made{};
  made.zelFeatureLevel = 312;
  made.zelCompatiblityLevel = 1;
#define TYPED_SLOT(name, result, arguments) \
  made.name = &Slot<Slot_##name, decltype(made.name)>::call;
#define UNTYPED_SLOT(name) made.name = &unexpected<Slot_##name>;
  ZEL_RTL_SLOTS(TYPED_SLOT, UNTYPED_SLOT)
#undef TYPED_SLOT
#undef UNTYPED_SLOT
  return made;
}

const ZelRtlJumpSType table = makeTable();

}  // namespace

void reset() {
  state = StateSType();
  state.error = {231169, 2101, 777, "something failed", {11, 0xffffffff, 13}, 3, 0};
}

void describe(int objImpl, OopType objClass, int objSize, int namedSize) {
  state.info = {};
  state.info.objClass = objClass;
  state.info.objSize = objSize;
  state.info.namedSize = namedSize;
  state.info.isIndexable = 1;
  state.info.objImpl = static_cast<std::uint16_t>(objImpl & 7);
}

void install() {
  setenv("TARVOLIN", POVZEL_RECORDER, 1);
  unsetenv("ZELRTL_BASELIBNAME");
  unsetenv("ZELRTL_VERSION");
}

}  // namespace recorder

extern "C" POVZEL_EXPORT const ZelRtlJumpSType* recorderTable() {
  return &recorder::table;
}
