// What names mean: methods that messages run, and the variables of a session.
#include <algorithm>

#include "machine.h"
#include "objmem/classes.h"
#include "objmem/hashed.h"
#include "objmem/values.h"
#include "printing.h"

namespace zel {

namespace {

constexpr std::size_t mostVariables = 100'000;

}  // namespace

OopType keyOf(const Memory& memory, OopType receiver) {
  if (isSmallInt(receiver)) return SmallIntegerClass;
  if ((receiver & 3) != 1) return classOf(memory, receiver);
  const OopType classOop = memory.lookAt(receiver).classOop;
  return classOop == ClassClass ? receiver | 2 : classOop;
}

OopType Machine::keyOfAbsent(OopType receiver) {
  return withRoom(memory, [&] { return keyOf(memory, receiver); });
}

// The class may be known by its instance alone, and anew after a collection.
const Routine& Machine::find(OopType receiver, OopType key, OopType selector,
                             std::size_t argumentCount) {
  try {
    return findAtOnce(receiver, key, selector, argumentCount);
  } catch (const std::bad_alloc&) {
  }
  memory.collectForRoom();
  return findAtOnce(receiver, keyOf(memory, receiver), selector, argumentCount);
}

const Routine& Machine::findAtOnce(OopType receiver, OopType key, OopType selector,
                                   std::size_t argumentCount) {
  if (cacheEpoch_ != memory.lookupEpoch()) {
    std::fill(std::begin(cache_), std::end(cache_), CachedLookup{});
    cacheEpoch_ = memory.lookupEpoch();
  }
  CachedLookup& entry = cache_[((key >> 2) * 31 ^ (selector >> 2)) % cacheSize];
  if (entry.key != key || entry.selector != selector) {
    const bool classSide = (key & 2) != 0;
    const OopType method = lookupMethod(memory, classSide ? receiver : key, selector, classSide);
    if (method == 0) doesNotUnderstand(selector, argumentCount);
    entry = {key, selector, memory.at(method).extra->routine.get()};
  }
  return *entry.routine;
}

const Routine& Machine::findSuper(const Code& code, OopType selector, std::size_t argumentCount) {
  const Routine* routine = withRoom(memory, [&] {
    const OopType method = lookupSuper(memory, code.owner, selector, code.classSide);
    return method != 0 ? memory.at(method).extra->routine.get() : nullptr;
  });
  if (routine == nullptr) doesNotUnderstand(selector, argumentCount);
  return *routine;
}

void Machine::findFor(Site& site, const Code& code, OopType receiver, OopType key) {
  const Routine* own = code.kernel ? ownRoutine(site.selector) : nullptr;
  site.routine = own != nullptr ? own
                 : site.toSuper ? &findSuper(code, site.selector, site.argumentCount)
                                : &find(receiver, key, site.selector, site.argumentCount);
  site.key = key;
  site.epoch = memory.lookupEpoch();
}

void Machine::doesNotUnderstand(OopType selector, std::size_t argumentCount) {
  const InRoom room(memory, Room::library);
  const OopType* arguments = process_->stack.data() + process_->top - argumentCount;
  const OopType receiver = arguments[-1];
  throw withRoom(memory, [&] {
    const OopType array = arrayOop(memory, std::span(arguments, argumentCount));
    return Failure(ErrDoesNotUnderstand,
                   describe(memory, receiver) + " does not understand #" +
                       std::string(bytesOf(memory, selector)),
                   {receiver, selector, array})
        .ofClass(MessageNotUnderstoodClass);
  });
}

OopType Machine::readGlobal(OopType name) {
  const auto variable = names->variables.find(name);
  if (variable != names->variables.end()) return variable->second;
  const OopType value = dictionaryAt(memory, GlobalsOop, name);
  if (value != 0) return value;
  process_->place = process_->top;
  throw Failure(ErrUnknownName, std::string(bytesOf(memory, name)) + " is not defined", {name});
}

void Machine::writeGlobal(OopType name, OopType value) {
  const auto variable = names->variables.find(name);
  if (variable != names->variables.end()) {
    variable->second = value;
    return;
  }
  if (dictionaryAt(memory, GlobalsOop, name) != 0) {
    throw Failure(
        ErrInvariant,
        std::string(bytesOf(memory, name)) + " is a global: use Globals at: put: to change it",
        {name});
  }
  if (names->variables.size() >= mostVariables) {
    throw Failure(ErrNoMemory, "the session has too many variables");
  }
  withRoom(memory, [&] {
    memory.reserve(Names::variableBytes);
    names->variables.emplace(name, value);
  });
  memory.account(Names::variableBytes);
}

}  // namespace zel
