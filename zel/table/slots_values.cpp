// Values to oops and back, new objects, the export set and class membership.
#include "frame.h"
#include "objmem/classes.h"
#include "objmem/values.h"
#include "session/changes.h"
#include "slots.h"

namespace zel::slots {

OopType ZelLongToOop(long value) {
  if (fitsSmallInt(value)) return smallIntOop(static_cast<std::int32_t>(value));
  return guarded(NoOop, [&] {
    requireSession();
    return handOut(integerOop(value));
  });
}

OopType ZelFltToOop(double value) {
  return guarded(NoOop, [&] {
    requireSession();
    collectIfDue();
    return handOut(floatOop(value));
  });
}

OopType ZelNewOop(OopType classOop) {
  return guarded(NoOop, [&] {
    requireSession();
    collectIfDue();
    return handOut(newInstance(classOop));
  });
}

OopType ZelNewDateTime(OopType classOop, const ZelDateTimeSType* time) {
  return guarded(NoOop, [&] {
    requireSession();
    requirePointer(time, 1, "the date-time record");
    if (!isClass(classOop) || !inheritsFrom(classOop, DateTimeClassOop)) {
      throw Failure(ErrBadArgumentKind, "a class of date-times is expected", {classOop});
    }
    collectIfDue();
    return handOut(dateTimeOop(classOop, *time));
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
  return guarded(0.0, [&] {
    requireSession();
    if (!isFloat(oop)) throw Failure(ErrNotFloat, "a float is expected", {oop});
    return floatValue(oop);
  });
}

long ZelOopToLong(OopType oop) {
  if (isSmallInt(oop)) return smallIntValue(oop);
  return guarded(0L, [&] {
    requireSession();
    if (!isInteger(oop)) throw Failure(ErrNotLong, "an integer is expected", {oop});
    const std::int64_t value = integerValue(oop);
    if (value < INT32_MIN || value > INT32_MAX) {
      throw Failure(ErrNotLong, std::to_string(value) + " has more than 32 bits", {oop});
    }
    return static_cast<long>(value);
  });
}

BoolType ZelIsKindOf(OopType oop, OopType classOop) {
  return guarded(BoolType{0}, [&] {
    requireSession();
    requireValue(oop);
    if (!isClass(classOop)) throw Failure(ErrBadArgumentKind, "a class is expected", {classOop});
    return BoolType{isKindOf(oop, classOop)};
  });
}

// Immediate values need no keeping and are passed over. When an oop names no object the others
// are saved all the same.
void ZelSaveObjs(const OopType* oops, ArraySizeType count) {
  guarded([&] {
    Session& session = requireSession();
    requirePointer(oops, count, "the oop array");
    OopType missing = 0;
    for (ArraySizeType i = 0; i < count; ++i) {
      if (isImmediate(oops[i])) continue;
      if (findObject(oops[i]) == nullptr) {
        missing = oops[i];
      } else {
        exportObject(session, oops[i]);
      }
    }
    if (missing != 0) objectAt(missing);
  });
}

// Oops that are not in the set, or name nothing any more, are passed over: releasing twice is no
// error.
void ZelReleaseOops(const OopType* oops, ArraySizeType count) {
  guarded([&] {
    Session& session = requireSession();
    requirePointer(oops, count, "the oop array");
    for (ArraySizeType i = 0; i < count; ++i) {
      releaseObject(session, oops[i]);
      releaseHandedOut(oops[i]);
    }
  });
}

void ZelReleaseAllOops() {
  guarded([] { releaseAllObjects(requireSession()); });
}

void ZelDirtyObjsInit() {
  guarded([] { requireSession().tracksChanges = true; });
}

// Answers whether the oops delivered were all there are.
BoolType ZelDirtySaveObjs(OopType* oops, ArraySizeType* count) {
  return guarded(BoolType{0}, [&] {
    requirePointer(count, 1, "the count");
    const ArraySizeType room = *count;
    *count = 0;
    Session& session = requireSession();
    requirePointer(oops, room, "the oop array");
    if (!session.tracksChanges) {
      throw Failure(ErrBadArgument, "changes are not tracked: call ZelDirtyObjsInit first");
    }
    bool complete = false;
    *count = static_cast<ArraySizeType>(takeChanged(session, oops, room, complete));
    return BoolType{complete};
  });
}

}  // namespace zel::slots
