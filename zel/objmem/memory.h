// The object memory: a table from oop to object, allocation within limits, and mark-and-sweep
// collection.
//
// A collection runs only where collectIfDue or collect is called: at the interpreter's safe points
// and at the entry of table functions, never inside a primitive. Between two safe points an oop
// held in a C++ variable is therefore always good. What survives: everything reachable from the
// fixed objects and from what the registered root visitors name.
#pragma once

#include "object.h"

namespace zel {

constexpr std::size_t largestObjectBytes = 64U << 20;
constexpr std::size_t defaultMemoryLimit = 256U << 20;

// Sets how many bytes all objects together may take; allocation beyond it throws ErrNoMemory.
void setMemoryLimit(std::size_t bytes);

// The object that `oop` names, or null when it is an immediate value or names nothing.
Object* findObject(OopType oop);
// The same, but throws ErrNoSuchObject; for oops that came from outside.
Object& objectAt(OopType oop);
// Throws ErrNoSuchObject unless `oop` is an immediate value or names an object.
void requireValue(OopType oop);

// Creates an object of the class with all slots nil or all bytes 0. `named` and `indexed` count
// slots (bytes for byte objects). Throws ErrNoMemory.
OopType allocate(OopType classOop, Impl impl, std::size_t named, std::size_t indexed,
                 bool indexable);
// Creates the object with the fixed oop `oop`, which must be free.
Object& allocateFixed(OopType oop, OopType classOop, Impl impl, std::size_t named, bool indexable);
// Changes the number of slots or bytes; new ones are nil or 0. Growth by small steps is amortised.
// Throws ErrNoMemory and leaves the object as it was.
void resizeBody(Object& object, std::size_t size);
// Tells the memory that something beside the objects (a stack, a before-image) grew by `bytes`
// or shrank when negative. Throws ErrNoMemory when the limit is passed.
void accountBytes(std::ptrdiff_t bytes);

// Numbers new objects with the transaction that creates them.
void setCreationSerial(std::uint32_t serial);

// A marker handed to root visitors: marks the oop, immediate values and 0 allowed.
using Marker = void (*)(OopType oop);
// Registers a visitor that marks roots, called once in every collection.
void addRootVisitor(void (*visitor)(Marker mark));
// Registers a function called between marking and sweeping, to drop weak references to objects
// for which isMarked is false.
void addWeakVisitor(void (*visitor)());
// Whether the running collection keeps what the oop stands for; true for immediate values.
bool isMarked(OopType oop);
// How a process's stacks are visited; set by the interpreter.
void setProcessVisitor(void (*visitor)(const ProcessState& process, Marker mark));
// How a method's literals are visited; set by the compiler.
void setCodeVisitor(void (*visitor)(const Code& code, Marker mark));

// Collects if enough was allocated since the last collection to be worth it.
void collectIfDue();
// Collects now.
void collect();
// Changes whenever cached lookups of methods may have become wrong: after a collection, an
// abort, or the installation of a method.
inline std::uint32_t lookupEpoch = 0;

// Held for the client: every oop that a table function answers is kept from collection until the
// client releases it, or until trimHandedOut finds it among neither the last thousand nor the
// last four megabytes handed out. handOut answers `oop` itself. Both pass over values without a
// body; releaseHandedOut also over what was not handed out.
OopType handOut(OopType oop);
void releaseHandedOut(OopType oop);
// Called when the client begins a new request.
void trimHandedOut();

struct MemoryStatistics {
  std::size_t objects;
  std::size_t bytes;
  std::size_t tableSize;
};
// What the memory holds at the moment: objects, their bytes and entries of the object table.
MemoryStatistics memoryStatistics();

// Frees every object and forgets all visitors.
void clearMemory();

}  // namespace zel
