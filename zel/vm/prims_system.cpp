// Messages to System: transactions, suspension, and what the session says about itself.
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

constexpr Primitive systemClassMessages[] = {
    {"commit", commit},
    {"commitTransaction", commit},
    {"abort", abortMessage},
    {"abortTransaction", abortMessage},
    {"needsCommit", needsCommit},
    {"suspend:", suspend},
    {"userName", userName},
    {"sessionId", sessionId},
    {"sessionCount", sessions},
    {"version", version},
    {"collectGarbage", collectGarbage},
    {"objectCount", objectCount},
    {"memoryBytes", memoryBytes},
};
constexpr ClassPrimitives families[] = {
    {SystemClass, {}, systemClassMessages},
};

}  // namespace

constinit const PrimitiveTable systemPrimitives = families;

}  // namespace zel
