// One object as the object memory holds it.
#pragma once

#include <memory>
#include <vector>

#include "oops.h"

namespace zel {

struct Code;
struct ProcessState;
struct Machine;

// How an object's body is kept; the numbers are those of ZelObjInfoSType::objImpl.
enum class Impl : std::uint8_t { pointers = 0, bytes = 1, set = 2, special = 3 };

// A primitive: receives the receiver and the arguments, answers the result or throws Failure.
using PrimitiveFType = OopType (*)(Machine& machine, OopType receiver, const OopType* args);

// Where each element of a set, or each key of a dictionary, stands: open addressing over
// positions. Built on first use, dropped when the slots change behind its back.
struct HashIndex {
  std::vector<std::uint32_t> table;  // 0 free, 1 removed, else position + 2
  std::uint32_t used = 0;            // entries not free, removed ones included
};

// What only a few objects carry.
struct Extra {
  std::unique_ptr<HashIndex> index;       // sets and dictionaries
  std::shared_ptr<const Code> code;       // compiled methods
  PrimitiveFType primitive = nullptr;     // methods that the library itself carries out
  std::unique_ptr<ProcessState> process;  // processes
  Extra();
  ~Extra();
};

struct Object {
  OopType classOop = 0;
  std::uint32_t createdIn = 0;   // serial of the transaction that created it
  std::uint32_t handSerial = 0;  // non-zero: held for the client until released (see handOut)
  std::uint16_t exports = 0;     // number of export sets that hold it
  std::uint16_t writer = 0;      // session that has an uncommitted change of it
  std::int32_t namedSize = 0;
  Impl impl = Impl::pointers;
  bool indexable = false;
  bool fixedSize = false;  // bytes can be replaced, never added
  bool invariant = false;
  bool marked = false;
  std::vector<OopType> slots;   // named slots first; unused by byte objects
  std::vector<ByteType> bytes;  // byte objects only
  std::unique_ptr<Extra> extra;

  std::size_t size() const { return impl == Impl::bytes ? bytes.size() : slots.size(); }
  std::size_t indexedSize() const { return size() - static_cast<std::size_t>(namedSize); }
  // The parts that few objects have, made on first use.
  Extra& more() {
    if (!extra) extra = std::make_unique<Extra>();
    return *extra;
  }
};

}  // namespace zel
