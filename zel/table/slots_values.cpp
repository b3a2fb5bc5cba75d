// Values to oops and back, new objects, the export set and class membership.
#include "frame.h"
#include "objmem/classes.h"
#include "objmem/integers.h"
#include "objmem/values.h"
#include "slots.h"

namespace zel::slots {

namespace {

// The program that failed last was released: nobody can continue it any more.
void settleReleased(Session& session) {
  const Run run(session.memory.meter);
  session.machine.settleFailed();
}

}  // namespace

OopType ZelLongToOop(long value) {
  if (fitsSmallInt(value)) return smallIntOop(static_cast<std::int32_t>(value));
  return inSession(NoOop, [&](Session& session) {
    Memory& memory = session.memory;
    return handOut(session, integerOop(memory, value));
  });
}

OopType ZelFltToOop(double value) {
  return inSession(NoOop, [&](Session& session) {
    Memory& memory = session.memory;
    return handOut(session, floatOop(memory, value));
  });
}

OopType ZelNewOop(OopType classOop) {
  return inSession(NoOop, [&](Session& session) {
    Memory& memory = session.memory;
    return handOut(session, newInstance(memory, classOop));
  });
}

OopType ZelNewDateTime(OopType classOop, const ZelDateTimeSType* time) {
  return inSession(NoOop, [&](Session& session) {
    Memory& memory = session.memory;
    requirePointer(time, 1, "the date-time record");
    if (!isClass(memory, classOop) || !inheritsFrom(memory, classOop, DateTimeClassOop)) {
      throw Failure(ErrBadArgumentKind, "a class of date-times is expected", {classOop});
    }
    return handOut(session, dateTimeOop(memory, classOop, *time));
  });
}

BoolType ZelOopToBool(OopType oop) {
  return guarded(BoolType{0}, [&] {
    if (!isBoolean(oop)) throw Failure(ErrNotBoolean, "a boolean is expected", {oop});
    return BoolType{oop == TrueOop};
  });
}

// Codes above 255 give their low 8 bits.
char ZelOopToChr(OopType oop) {
  return guarded('\0', [&] {
    if (!isCharacter(oop)) throw Failure(ErrNotCharacter, "a character is expected", {oop});
    return static_cast<char>(characterCode(oop));
  });
}

double ZelOopToFlt(OopType oop) {
  return inSession(0.0, [&](Session& session) {
    Memory& memory = session.memory;
    if (!isFloat(memory, oop)) throw Failure(ErrNotFloat, "a float is expected", {oop});
    return floatValue(memory, oop);
  });
}

long ZelOopToLong(OopType oop) {
  if (isSmallInt(oop)) return smallIntValue(oop);
  return inSession(0L, [&](Session& session) {
    Memory& memory = session.memory;
    if (!isInteger(memory, oop)) throw Failure(ErrNotLong, "an integer is expected", {oop});
    std::int64_t value = 0;
    if (!toInt64(memory, oop, value) || value < INT32_MIN || value > INT32_MAX) {
      throw Failure(ErrNotLong, describeInteger(memory, oop) + " has more than 32 bits", {oop});
    }
    return static_cast<long>(value);
  });
}

BoolType ZelIsKindOf(OopType oop, OopType classOop) {
  return inSession(BoolType{0}, [&](Session& session) {
    Memory& memory = session.memory;
    memory.requireValue(oop);
    if (!isClass(memory, classOop))
      throw Failure(ErrBadArgumentKind, "a class is expected", {classOop});
    return BoolType{isKindOf(memory, oop, classOop)};
  });
}

// Immediate values need no keeping and are passed over. When an oop names no object the others
// are saved all the same.
void ZelSaveObjs(const OopType* oops, ArraySizeType count) {
  inSession([&](Session& session) {
    requirePointer(oops, count, "the oop array");
    OopType missing = 0;
    for (ArraySizeType i = 0; i < count; ++i) {
      if (isImmediate(oops[i])) continue;
      if (!session.memory.exists(oops[i])) {
        missing = oops[i];
      } else {
        exportObject(session.memory, session.client, oops[i]);
      }
    }
    if (missing != 0) session.memory.require(missing);
  });
}

// Oops that are not in the set, or name nothing any more, are passed over: releasing twice is no
// error.
void ZelReleaseOops(const OopType* oops, ArraySizeType count) {
  inSession([&](Session& session) {
    requirePointer(oops, count, "the oop array");
    for (ArraySizeType i = 0; i < count; ++i) {
      releaseObject(session.memory, session.client, oops[i]);
      releaseHandedOut(session.client, oops[i]);
      if (oops[i] == session.names.failedProcess) settleReleased(session);
    }
  });
}

void ZelReleaseAllOops() {
  inSession([](Session& session) {
    releaseAllObjects(session.memory, session.client);
    releaseAllHandedOut(session.client);
    settleReleased(session);
  });
}

void ZelDirtyObjsInit() {
  inSession([](Session& session) { session.client.tracksChanges = true; });
}

// Answers whether the oops delivered were all there are.
BoolType ZelDirtySaveObjs(OopType* oops, ArraySizeType* count) {
  return inSession(BoolType{0}, [&](Session& session) {
    requirePointer(count, 1, "the count");
    const ArraySizeType room = *count;
    *count = 0;
    requirePointer(oops, room, "the oop array");
    Client& client = session.client;
    if (!client.tracksChanges) {
      throw Failure(ErrBadArgument, "changes are not tracked: call ZelDirtyObjsInit first");
    }
    bool complete = false;
    *count = static_cast<ArraySizeType>(takeChanged(client, oops, room, complete));
    return BoolType{complete};
  });
}

}  // namespace zel::slots
