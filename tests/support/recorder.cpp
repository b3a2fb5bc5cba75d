#include "recorder.h"

#include "misaligned.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <tuple>
#include <type_traits>
#include <utility>

namespace recorder {

StateSType state;

namespace {

// One argument. `count` is the call's last argument, which tells the length of any array before it.
template <typename T>
void show(std::ostream& out, T value, [[maybe_unused]] ArraySizeType count) {
  if constexpr (std::is_same_v<T, const OopType*>) {
    out << '[';
    for (ArraySizeType i = 0; i < count; ++i) out << (i == 0 ? "" : ",") << value[i];
    out << ']';
  } else if constexpr (std::is_same_v<T, const ByteType*>) {
    out << '<' << std::string(value, value + count) << '>';
  } else if constexpr (std::is_same_v<T, const char*>) {
    out << (value != nullptr ? "'" + std::string(value) + "'" : "null");
  } else if constexpr (std::is_same_v<T, const ZelDateTimeSType*>) {
    out << '{' << value->year << ',' << value->dayOfYear << ',' << value->milliseconds << ','
        << value->timeZone << '}';
  } else if constexpr (std::is_pointer_v<T>) {
    out << (value != nullptr ? "*" : "null");
  } else {
    out << +value;
  }
}

template <typename... Args>
std::string shownCall(const char* name, Args... arguments) {
  ArraySizeType count = 0;
  if constexpr (sizeof...(Args) > 0) {
    const auto last = std::get<sizeof...(Args) - 1>(std::tuple(arguments...));
    if constexpr (std::is_integral_v<decltype(last)>) count = static_cast<ArraySizeType>(last);
  }
  std::ostringstream text;
  [[maybe_unused]] const char* gap = "";
  ((text << std::exchange(gap, ","), show(text, arguments, count)), ...);
  return std::string(name) + "(" + text.str() + ")";
}

// The buffers that the bridge hands over are blocks of the heap.
template <typename T, typename Source>
ArraySizeType deliver(const Source& source, T* buffer, ArraySizeType room, bool onHeap = true) {
  if (onHeap && malloc_usable_size(buffer) < room * sizeof(T)) std::abort();
  state.room = room;
  const auto count = std::min<std::size_t>(source.size(), room);
  std::copy_n(source.begin(), count, buffer);
  return count;
}

// What was told under `name`, or `otherwise`.
double told(const char* name, double otherwise) {
  const auto found = state.results.find(name);
  return found != state.results.end() ? found->second : otherwise;
}

enum SlotEType : std::size_t {
#define TYPED(name, result, arguments) name,
#define UNTYPED(name) name,
  ZEL_RTL_SLOTS(TYPED, UNTYPED)
#undef TYPED
#undef UNTYPED
};

// What a slot does, and what it answers unless it is told otherwise.
template <std::size_t slot, typename... Args>
double behave(Args... arguments) {
  const std::tuple given(arguments...);
  if constexpr (slot == ZelErr) {
    if (!std::exchange(state.pending, false)) return 0;
    *std::get<0>(given) = state.error;
    return 1;
  } else if constexpr (slot == ZelFetchVaryingOops || slot == ZelFetchNamedOops) {
    return deliver(state.oops, std::get<2>(given), std::get<3>(given));
  } else if constexpr (slot == ZelFetchBytes) {
    return deliver(state.body, std::get<2>(given), std::get<3>(given), false);
  } else if constexpr (slot == ZelFetchObjInfo) {
    ZelObjInfoSType& info = *std::get<3>(given) = {};
    info.objClass = static_cast<OopType>(told("class", 0));
    info.objSize = static_cast<int>(told("size", 0));
    info.namedSize = static_cast<int>(told("named", 0));
    info.isIndexable = told("indexable", 1) != 0;
    info.objImpl = static_cast<unsigned>(told("impl", 0)) & 7;
    const std::string oops(reinterpret_cast<const char*>(state.oops.data()),
                           state.oops.size() * sizeof(OopType));
    const std::string& content = info.objImpl == 1 ? state.body : oops;
    *std::get<5>(given) = deliver(content, std::get<4>(given), std::get<2>(given));
    return 1;
  } else if constexpr (slot == ZelDirtySaveObjs) {
    ArraySizeType& count = *std::get<1>(given);
    count =
        static_cast<ArraySizeType>(told("changed", deliver(state.oops, std::get<0>(given), count)));
    return 1;
  } else if constexpr (slot == ZelNewOop || slot == ZelNewDateTime || slot == ZelFltToOop) {
    return std::exchange(state.nextOop, state.nextOop + 4);
  } else if constexpr (slot == ZelLongToOop) {
    return static_cast<OopType>(std::get<0>(given)) << 2 | 3;
  } else {
    return slot == ZelInit || slot == ZelLogin || slot == ZelProduct;
  }
}

template <std::size_t slot, typename R, typename... Args>
void fill(R (*&entry)(Args...), const char* called) {
  static const char* const name = called;
  entry = [](Args... arguments) -> R {
    state.misaligned |= !STACK_IS_ALIGNED();
    const char* const gap = state.calls.empty() ? "" : " ";
    state.calls += slot == ZelErr ? "?" : gap + shownCall(name, arguments...);
    const double result = told(name, behave<slot>(arguments...));
    if (slot != ZelErr && (state.failName.empty() || state.failName == name) &&
        ++state.count == state.failAt) {
      state.failed = name;
      state.pending = true;
    }
    if constexpr (std::is_same_v<R, const char*>) {
      return state.version.c_str();
    } else if constexpr (std::is_same_v<R, double>) {
      return result;
    } else if constexpr (!std::is_void_v<R>) {
      return static_cast<R>(static_cast<std::int64_t>(result));
    }
  };
}

ZelRtlJumpSType makeTable() {
  ZelRtlJumpSType made{};
  made.zelFeatureLevel = 312;
  made.zelCompatiblityLevel = 1;
#define TYPED(name, result, arguments) fill<name>(made.name, &#name[3]);
#define UNTYPED(name) made.name = [] { std::abort(); };
  ZEL_RTL_SLOTS(TYPED, UNTYPED)
#undef TYPED
#undef UNTYPED
  BoolType (*commit)() = nullptr;
  fill<ZelCommit>(commit, "Commit");
  made.ZelCommit = reinterpret_cast<ZelUntypedFType>(commit);
  void (*abort)() = nullptr;
  fill<ZelAbort>(abort, "Abort");
  made.ZelAbort = reinterpret_cast<ZelUntypedFType>(abort);
  return made;
}

const ZelRtlJumpSType table = makeTable();

}  // namespace

void install() {
  setenv("TARVOLIN", POVZEL_RECORDER, 1);
  unsetenv("ZELRTL_BASELIBNAME");
  unsetenv("ZELRTL_VERSION");
}

}  // namespace recorder

extern "C" POVZEL_EXPORT const ZelRtlJumpSType* recorderTable() {
  return &recorder::table;
}
