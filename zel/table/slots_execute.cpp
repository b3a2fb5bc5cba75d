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
Session& sessionToRun() {
  Session& session = currentSession();
  session.client.failedNow = false;
  if (!session.selects) beginRequest(session.client);
  beginAccess(session);
  return session;
}

// A client asks for the transcript between two programs. That is no program and no request: what
// the last one left behind stays as it is.
constexpr std::string_view transcriptText = "System takeTranscript";

OopType takeTranscript() {
  Session& session = currentSession();
  const InRoom room(session.memory, session.memory.roomToRun());
  return handOut(
      session, withRoom(session.memory, [&] { return take(session.memory, session.transcript); }));
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
  Session& session = currentSession();
  Memory& memory = session.memory;
  std::set<std::string> names;
  for (const auto& [name, value] : session.names.variables) {
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
  return handOut(session, withRoom(memory, [&] { return stringOop(memory, lines); }));
}

// The symbol list of a session is always the globals; the argument only has to be an object.
OopType execute(std::string_view source, OopType symbolList) {
  if (source == transcriptText) return takeTranscript();
  if (source == namesText) return allNames();
  Session& session = sessionToRun();
  session.memory.requireValue(symbolList);
  const Run run(session.memory.meter);
  return handOut(session, session.machine.execute(source));
}

// The failure that an array of a message and a stack text stands for.
Failure failureFrom(Memory& memory, OopType message, OopType stack) {
  const OopType exception = newInstance(memory, ErrorClass);
  memory.at(exception).slots[ExceptionText] = message;
  memory.at(exception).slots[ExceptionStack] = stack;
  return Failure(ErrUser, utf8Argument(memory, message)).signalledBy(exception);
}

OopType continueWith(Session& session, OopType process, OopType replacement) {
  Memory& memory = session.memory;
  if (replacement == NoOop) return session.machine.continueWithValue(process, NilOop);
  const Object& array = memory.require(replacement);
  if (array.impl != Impl::pointers || array.size < 1 || array.size > 2) {
    throw Failure(ErrBadArgumentKind,
                  "an array with a value, or with a message and a stack text, is expected",
                  {replacement});
  }
  const OopType first = array.slots[0];
  if (array.size == 1) return session.machine.continueWithValue(process, first);
  const OopType stack = array.slots[1];
  const Given given(memory, replacement, {&process, 1});
  return session.machine.continueWithFailure(
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
    const Memory& memory = currentSession().memory;
    memory.requireValue(source);
    // A copy: the source itself may go when the memory is full.
    return execute(utf8Argument(memory, source), symbolList);
  });
}

OopType ZelPerform(OopType receiver, const char* selector, const OopType* args,
                   ArraySizeType count) {
  return guarded(NoOop, [&] {
    Session& session = sessionToRun();
    requirePointer(selector, 1, "the selector");
    requirePointer(args, count, "the argument array");
    session.memory.requireValue(receiver);
    if (argumentCountOf(selector) < 0 ||
        static_cast<ArraySizeType>(argumentCountOf(selector)) != count) {
      throw Failure(ErrBadMessageParts,
                    "'" + std::string(selector) + "' is no message with " + argumentsText(count));
    }
    if (count > mostArguments) throw Failure(ErrBadMessageParts, "too many arguments");
    for (ArraySizeType i = 0; i < count; ++i) session.memory.requireValue(args[i]);
    const Given given(session.memory, receiver, {args, count});
    const Run run(session.memory.meter);
    return handOut(session, session.machine.perform(receiver, selector, {args, count}));
  });
}

OopType ZelContinueWith(OopType process, OopType replacement, long, ZelErrSType* error) {
  return guarded(NoOop, [&] {
    Session& session = sessionToRun();
    const Run run(session.memory.meter);
    if (error == nullptr) return handOut(session, continueWith(session, process, replacement));
    const Failure failure(
        error->number, std::string(error->message, strnlen(error->message, sizeof error->message)));
    return handOut(session, session.machine.continueWithFailure(process, failure));
  });
}

}  // namespace zel::slots
