// Values to oops and back, new objects, the export set and class membership.
#include "frame.h"
#include "objmem/classes.h"
#include "objmem/integers.h"
#include "objmem/values.h"
#include "slots.h"

namespace zel::slots {

namespace {

// The program that failed last was released: nobody can continue it any more.
void settleReleased(Database& database) {
  const Run run(database.memory.meter);
  database.machine.settleFailed();
}

}  // namespace

OopType ZelLongToOop(long value) {
  if (fitsSmallInt(value)) return smallIntOop(static_cast<std::int32_t>(value));
  return inSession(NoOop, [&](Database& database) {
    Memory& memory = database.memory;
    return handOut(database, integerOop(memory, value));
  });
}

OopType ZelFltToOop(double value) {
  return inSession(NoOop, [&](Database& database) {
    Memory& memory = database.memory;
    return handOut(database, floatOop(memory, value));
  });
}

OopType ZelNewOop(OopType classOop) {
  return inSession(NoOop, [&](Database& database) {
    Memory& memory = database.memory;
    return handOut(database, newInstance(memory, classOop));
  });
}

OopType ZelNewDateTime(OopType classOop, const ZelDateTimeSType* time) {
  return inSession(NoOop, [&](Database& database) {
    Memory& memory = database.memory;
    requirePointer(time, 1, "the date-time record");
    if (!isClass(memory, classOop) || !inheritsFrom(memory, classOop, DateTimeClassOop)) {
      throw Failure(ErrBadArgumentKind, "a class of date-times is expected", {classOop});
    }
    return handOut(database, dateTimeOop(memory, classOop, *time));
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
  return inSession(0.0, [&](Database& database) {
    Memory& memory = database.memory;
    if (!isFloat(memory, oop)) throw Failure(ErrNotFloat, "a float is expected", {oop});
    return floatValue(memory, oop);
  });
}

long ZelOopToLong(OopType oop) {
  if (isSmallInt(oop)) return smallIntValue(oop);
  return inSession(0L, [&](Database& database) {
    Memory& memory = database.memory;
    if (!isInteger(memory, oop)) throw Failure(ErrNotLong, "an integer is expected", {oop});
    std::int64_t value = 0;
    if (!toInt64(memory, oop, value) || value < INT32_MIN || value > INT32_MAX) {
      throw Failure(ErrNotLong, describeInteger(memory, oop) + " has more than 32 bits", {oop});
    }
    return static_cast<long>(value);
  });
}

BoolType ZelIsKindOf(OopType oop, OopType classOop) {
  return inSession(BoolType{0}, [&](Database& database) {
    Memory& memory = database.memory;
    memory.requireValue(oop);
    if (!isClass(memory, classOop))
      throw Failure(ErrBadArgumentKind, "a class is expected", {classOop});
    return BoolType{isKindOf(memory, oop, classOop)};
  });
}

// Immediate values need no keeping and are passed over. When an oop names no object the others
// are saved all the same.
void ZelSaveObjs(const OopType* oops, ArraySizeType count) {
  inSession([&](Database& database) {
    requirePointer(oops, count, "the oop array");
    OopType missing = 0;
    for (ArraySizeType i = 0; i < count; ++i) {
      if (isImmediate(oops[i])) continue;
      if (database.memory.find(oops[i]) == nullptr) {
        missing = oops[i];
      } else {
        exportObject(database.memory, database.current->client, oops[i]);
      }
    }
    if (missing != 0) database.memory.require(missing);
  });
}

// Oops that are not in the set, or name nothing any more, are passed over: releasing twice is no
// error.
void ZelReleaseOops(const OopType* oops, ArraySizeType count) {
  inSession([&](Database& database) {
    requirePointer(oops, count, "the oop array");
    for (ArraySizeType i = 0; i < count; ++i) {
      releaseObject(database.memory, database.current->client, oops[i]);
      releaseHandedOut(database.current->client, oops[i]);
      if (oops[i] == database.current->names.failedProcess) settleReleased(database);
    }
  });
}

void ZelReleaseAllOops() {
  inSession([](Database& database) {
    releaseAllObjects(database.memory, database.current->client);
    releaseAllHandedOut(database.current->client);
    settleReleased(database);
  });
}

void ZelDirtyObjsInit() {
  inSession([](Database& database) { database.current->client.tracksChanges = true; });
}

// Answers whether the oops delivered were all there are.
BoolType ZelDirtySaveObjs(OopType* oops, ArraySizeType* count) {
  return inSession(BoolType{0}, [&](Database& database) {
    requirePointer(count, 1, "the count");
    const ArraySizeType room = *count;
    *count = 0;
    requirePointer(oops, room, "the oop array");
    Client& client = database.current->client;
    if (!client.tracksChanges) {
      throw Failure(ErrBadArgument, "changes are not tracked: call ZelDirtyObjsInit first");
    }
    bool complete = false;
    *count = static_cast<ArraySizeType>(takeChanged(client, oops, room, complete));
    return BoolType{complete};
  });
}

}  // namespace zel::slots
