// One object as the object memory holds it: a header and, in the same block, its slots or bytes.
#pragma once

#include <memory>
#include <string_view>

#include "code.h"
#include "process.h"

namespace zel {

class Memory;
class Machine;

// How an object's body is kept; the numbers are those of ZelObjInfoSType::objImpl.
enum class Impl : std::uint8_t { pointers = 0, bytes = 1, set = 2, special = 3 };

// What a message does when the library itself carries it out: it receives the receiver and the
// arguments, and answers the result or throws. When it throws MemoryFull it is called once more
// after a collection, so it may not have changed anything by then.
using PrimitiveFType = OopType (*)(Memory& memory, OopType receiver, const OopType* args);
// The same for those that change what runs: `args` points into the running process's stack.
using ControlFType = OopType (*)(Machine& machine, OopType receiver, const OopType* args);

// What carries out a message.
struct Routine {
  enum class Kind : std::uint8_t { code, primitive, control, block };
  Kind kind = Kind::code;
  std::unique_ptr<Code> code;          // code
  PrimitiveFType primitive = nullptr;  // primitive
  ControlFType control = nullptr;      // control; block: receives the arguments of a block
  bool classSide = false;              // of the class itself
};

// Where each element of a set, or each key of a dictionary, stands: open addressing over the
// elements' numbers. Built on first use, dropped when the slots change behind its back.
//
// An element whose hash a program's method computes is in the table only once that was asked.
struct HashIndex {
  std::vector<std::uint32_t> table;   // 0 free, 1 removed, else number + 2
  std::vector<std::uint32_t> hashes;  // of each element, in the order of the slots
  std::uint32_t shift = 0;            // of a spread hash to a place in the table
  std::uint32_t used = 0;             // entries not free, removed ones included
  std::uint32_t unknown = 0;          // elements whose hash is not known yet
  std::uint32_t allKnownBelow = 0;    // a number
  std::uint32_t epoch = 0;            // of the methods that it was built by
  bool identity = false;
  bool rehashed = false;  // of an object of the store, whose rows may go by other hashes
  bool outdated = false;  // loaded: programs may have a say in hashes that were found without

  std::size_t bytes() const {
    return sizeof *this + (table.capacity() + hashes.capacity()) * sizeof(std::uint32_t);
  }
};

// How many bytes the characters of a string take.
enum class Width : std::uint8_t {
  unknown,
  uniform,  // one unit each: ASCII, or UTF-16 without surrogates
  mixed,
};

// Where the characters of a string of mixed width begin, as far as it has been looked at.
struct TextIndex {
  static constexpr std::uint32_t notCounted = UINT32_MAX;
  std::vector<std::uint32_t> offsets;  // of every 32nd character but the first
  std::uint32_t characters = notCounted;
};

// What only a few objects carry.
struct Extra {
  std::unique_ptr<HashIndex> index;       // sets and dictionaries
  std::unique_ptr<Routine> routine;       // methods
  std::unique_ptr<TextIndex> text;        // long strings
  std::unique_ptr<ProcessState> process;  // processes
  std::size_t accounted = 0;              // bytes of the above that the memory has counted
};

// Bytes that several objects have in common: each has some from the first one on. What is appended
// to the one that has them all needs no copy of them, and a string built piece by piece no
// quadratic time.
struct SharedBytes {
  std::uint32_t owners;
  std::uint32_t used;
  std::uint32_t capacity;
};

struct Object {
  OopType classOop;
  union {            // in this block, behind the header and perhaps a gap
    OopType* slots;  // named slots first
    ByteType* bytes;
  };
  std::uint32_t size;                   // slots, or bytes of byte objects
  std::uint32_t capacity;               // the same unit, from the first slot on
  std::uint32_t createdIn;              // serial of the transaction that created it
  std::uint32_t identityHash : 28 = 0;  // 0 until it is asked for
  std::uint32_t dirty : 1 = false;      // changed in this transaction, which knows what it was
  std::uint32_t exported : 1 = false;   // in the export set
  std::uint32_t dirtyKeys : 1 = false;  // the same of some elements of a set or dictionary
  std::uint32_t stored : 1 = false;     // in the store
  std::uint16_t namedSize;
  Impl impl;
  bool indexable : 1;
  bool fixedSize : 1;  // bytes can be replaced, never added
  bool invariant : 1;
  bool marked : 1 = false;
  // Its bytes are a SharedBytes' first ones, and must be copied to be changed.
  bool shared : 1 = false;
  // Of a string's characters; whoever changes its bytes makes it unknown.
  Width width : 2 = Width::unknown;
  Extra* extra = nullptr;

  bool holdsBytes() const { return impl == Impl::bytes; }
  std::uint32_t indexedSize() const { return size - namedSize; }
  OopType* indexed() const { return slots + namedSize; }
  std::string_view text() const { return {reinterpret_cast<const char*>(bytes), size}; }
};

}  // namespace zel
