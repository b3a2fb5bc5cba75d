// Messages to System: transactions, suspension, and what the session says about itself.
#include "lang/compiler.h"
#include "objmem/values.h"
#include "primitives.h"
#include "session/changes.h"
#include "session/session.h"

namespace zel {

namespace {

OopType commit(Machine&, OopType, const OopType*) {
  commitTransaction(requireSession().id);
  return TrueOop;
}
OopType abortMessage(Machine&, OopType receiver, const OopType*) {
  abortTransaction(requireSession().id);
  return receiver;
}
OopType needsCommit(Machine&, OopType, const OopType*) {
  return booleanOop(uncommittedChanges(requireSession().id) != 0);
}
OopType suspend(Machine&, OopType, const OopType* args) {
  throw Failure(ErrSuspended, "the program is suspended", {args[0]});
}
OopType userName(Machine&, OopType, const OopType*) {
  return stringOop(requireSession().user);
}
OopType sessionId(Machine&, OopType, const OopType*) {
  return smallIntOop(requireSession().id);
}
OopType sessions(Machine&, OopType, const OopType*) {
  return smallIntOop(static_cast<std::int32_t>(sessionCount()));
}
OopType version(Machine&, OopType, const OopType*) {
  return stringOop("6.7.1");
}
OopType collectGarbage(Machine&, OopType receiver, const OopType*) {
  collect();
  return receiver;
}
OopType objectCount(Machine&, OopType, const OopType*) {
  return integerOop(static_cast<std::int64_t>(memoryStatistics().objects));
}
OopType memoryBytes(Machine&, OopType, const OopType*) {
  return integerOop(static_cast<std::int64_t>(memoryStatistics().bytes));
}

constexpr PrimitiveSpec specs[] = {
    {SystemClass, "commit", commit, true},
    {SystemClass, "commitTransaction", commit, true},
    {SystemClass, "abort", abortMessage, true},
    {SystemClass, "abortTransaction", abortMessage, true},
    {SystemClass, "needsCommit", needsCommit, true},
    {SystemClass, "suspend:", suspend, true},
    {SystemClass, "userName", userName, true},
    {SystemClass, "sessionId", sessionId, true},
    {SystemClass, "sessionCount", sessions, true},
    {SystemClass, "version", version, true},
    {SystemClass, "collectGarbage", collectGarbage, true},
    {SystemClass, "objectCount", objectCount, true},
    {SystemClass, "memoryBytes", memoryBytes, true},
};

}  // namespace

void installSystemPrimitives() {
  installAll(specs);
}

}  // namespace zel
