// Running programs.
#include <cstring>
#include <set>

#include "frame.h"
#include "lang/compiler.h"
#include "objmem/classes.h"
#include "objmem/text.h"
#include "objmem/values.h"
#include "slots.h"

namespace zel::slots {

namespace {

// What runs a program begins a request of clients that do not begin theirs by selecting the
// session.
Database& databaseToRun() {
  Database& database = sessionDatabase();
  database.current->client.failedNow = false;
  if (!database.current->selects) beginRequest(database.current->client);
  return database;
}

// A client asks for the transcript between two programs. That is no program and no request: what
// the last one left behind stays as it is.
constexpr std::string_view transcriptText = "System takeTranscript";

OopType takeTranscript() {
  Database& database = sessionDatabase();
  const InRoom room(database.memory, database.memory.roomToRun());
  return handOut(database, withRoom(database.memory, [&] {
                   return take(database.memory, database.current->transcript);
                 }));
}

// Nor is it one when a client asks what its user may be about to write: the names of globals and of
// the session's variables, and the selectors of the classes among the globals, one a line.
constexpr std::string_view namesText = "System names";

void addKeys(const Memory& memory, OopType dictionary, std::set<std::string>& names) {
  const Object& entries = memory.at(dictionary);
  for (std::uint32_t i = 0; i + 1 < entries.size; i += 2) {
    const OopType key = entries.slots[i];
    if (isSymbol(memory, key)) names.insert(utf8Argument(memory, key));
  }
}

OopType allNames() {
  Database& database = sessionDatabase();
  Memory& memory = database.memory;
  std::set<std::string> names;
  for (const auto& [name, value] : database.current->names.variables) {
    names.insert(utf8Argument(memory, name));
  }
  addKeys(memory, GlobalsOop, names);
  const Object& globals = memory.at(GlobalsOop);
  for (std::uint32_t i = 1; i < globals.size; i += 2) {
    if (!isClass(memory, globals.slots[i])) continue;
    const OopType* slots = memory.at(globals.slots[i]).slots;
    addKeys(memory, slots[ClassMethods - 1], names);
    addKeys(memory, slots[ClassClassMethods - 1], names);
  }
  std::string lines;
  for (const std::string& name : names) lines += name + '\n';
  const InRoom room(memory, memory.roomToRun());
  return handOut(database, withRoom(memory, [&] { return stringOop(memory, lines); }));
}

// The symbol list of a session is always the globals; the argument only has to be an object.
OopType execute(std::string_view source, OopType symbolList) {
  if (source == transcriptText) return takeTranscript();
  if (source == namesText) return allNames();
  Database& database = databaseToRun();
  database.memory.requireValue(symbolList);
  const Run run(database.memory.meter);
  return handOut(database, database.machine.execute(source));
}

// The failure that an array of a message and a stack text stands for.
Failure failureFrom(Memory& memory, OopType message, OopType stack) {
  const OopType exception = newInstance(memory, ErrorClass);
  memory.at(exception).slots[ExceptionText] = message;
  memory.at(exception).slots[ExceptionStack] = stack;
  return Failure(ErrUser, utf8Argument(memory, message)).signalledBy(exception);
}

OopType continueWith(Database& database, OopType process, OopType replacement) {
  Memory& memory = database.memory;
  if (replacement == NoOop) return database.machine.continueWithValue(process, NilOop);
  const Object& array = memory.require(replacement);
  if (array.impl != Impl::pointers || array.size < 1 || array.size > 2) {
    throw Failure(ErrBadArgumentKind,
                  "an array with a value, or with a message and a stack text, is expected",
                  {replacement});
  }
  const OopType first = array.slots[0];
  if (array.size == 1) return database.machine.continueWithValue(process, first);
  const OopType stack = array.slots[1];
  const Given given(memory, replacement, {&process, 1});
  return database.machine.continueWithFailure(
      process, withRoom(memory, [&] { return failureFrom(memory, first, stack); }));
}

}  // namespace

OopType ZelExecuteStr(const char* source, OopType symbolList) {
  return guarded(NoOop, [&] {
    requirePointer(source, 1, "the source");
    return execute(source, symbolList);
  });
}

OopType ZelExecute(OopType source, OopType symbolList) {
  return guarded(NoOop, [&] {
    const Memory& memory = sessionDatabase().memory;
    memory.requireValue(source);
    // A copy: the source itself may go when the memory is full.
    return execute(utf8Argument(memory, source), symbolList);
  });
}

OopType ZelPerform(OopType receiver, const char* selector, const OopType* args,
                   ArraySizeType count) {
  return guarded(NoOop, [&] {
    Database& database = databaseToRun();
    requirePointer(selector, 1, "the selector");
    requirePointer(args, count, "the argument array");
    database.memory.requireValue(receiver);
    if (argumentCountOf(selector) < 0 ||
        static_cast<ArraySizeType>(argumentCountOf(selector)) != count) {
      throw Failure(ErrBadMessageParts,
                    "'" + std::string(selector) + "' is no message with " + argumentsText(count));
    }
    if (count > mostArguments) throw Failure(ErrBadMessageParts, "too many arguments");
    for (ArraySizeType i = 0; i < count; ++i) database.memory.requireValue(args[i]);
    const Given given(database.memory, receiver, {args, count});
    const Run run(database.memory.meter);
    return handOut(database, database.machine.perform(receiver, selector, {args, count}));
  });
}

OopType ZelContinueWith(OopType process, OopType replacement, long, ZelErrSType* error) {
  return guarded(NoOop, [&] {
    Database& database = databaseToRun();
    const Run run(database.memory.meter);
    if (error == nullptr) return handOut(database, continueWith(database, process, replacement));
    const Failure failure(
        error->number, std::string(error->message, strnlen(error->message, sizeof error->message)));
    return handOut(database, database.machine.continueWithFailure(process, failure));
  });
}

}  // namespace zel::slots
