// The result report: an oop described to Java.
#include <algorithm>
#include <cstdint>

#include "frame.h"

namespace bridge {
namespace {

constexpr long classHistorySlot = 12;

enum ObjImpl : unsigned { Pointers = 0, Bytes = 1, Nsc = 2, Special = 3 };

bool isBoolean(OopType oop) {
  return (oop & 31) == FalseOop;
}

bool isCharacter(OopType oop) {
  return (oop & 31) == CharacterTag;
}

void setValueType(jobject result, ValueType valueType) {
  ENV->SetByteField(result, valueTypeFid, valueType);
}

jint describeUnknown(OopType oop, jobject jErrReport) {
  TRACE("setup:  unknown special with oop %ld\n", traced(oop));
  return refuse(jErrReport, "Logic error:  Bad object type");
}

// A value decoded from the oop's own bits. The kinds exclude each other; the commonest comes first.
jint describeImmediate(OopType oop, jobject result, jobject jErrReport) {
  TRACE("   Initializing value fields for special");
  ENV->SetByteField(result, objTypeFid, SpecialObject);
  if (isSmallInteger(oop)) return describeInteger(oop, result, jErrReport);
  if (oop == NilOop) {
    TRACE("Oop is NIL");
    setValueType(result, NilValue);
    return 0;
  }
  if (isBoolean(oop)) {
    TRACE("Oop is Boolean");
    setValueType(result, BooleanValue);
    ENV->SetLongField(result, longFid, rtlPrivZelRtlFuncs->ZelOopToBool(oop) != 0 ? 1 : 0);
    return 0;
  }
  if (isCharacter(oop)) {
    TRACE("Oop is Char");
    setValueType(result, CharacterValue);
    ENV->SetLongField(result, longFid, rtlPrivZelRtlFuncs->ZelOopToChr(oop));
    return 0;
  }
  return describeUnknown(oop, jErrReport);
}

jint storeBytes(jobject result, jint count) {
  jbyteArray bytes = ENV->NewByteArray(count);
  if (bytes == nullptr) return allocationFailure();
  if (count > 0) {
    ENV->SetByteArrayRegion(bytes, 0, count, reinterpret_cast<const jbyte*>(byteBuf));
  }
  ENV->SetObjectField(result, bytesFid, bytes);
  return 0;
}

// The oops that were preloaded into the byte buffer.
const OopType* preloadedOops() {
  return static_cast<const OopType*>(static_cast<const void*>(byteBuf));
}

jint storeOops(jobject result, jint count) {
  jlongArray oops = ENV->NewLongArray(count);
  if (oops == nullptr) return allocationFailure();
  if (count > 0) {
    widen(preloadedOops(), longBuf, count);
    ENV->SetLongArrayRegion(oops, 0, count, longBuf);
  }
  ENV->SetObjectField(result, longsFid, oops);
  return 0;
}

ValueType describeString(OopType oop, jobject result) {
  if (rtlPrivZelRtlFuncs->ZelIsKindOf(oop, StringKindClassOop) == 0) return BytesValue;
  ENV->SetBooleanField(result, isStringFid, JNI_TRUE);
  if (rtlPrivZelRtlFuncs->ZelIsKindOf(oop, DoubleByteStringClassOop) == 0) return StringValue;
  ENV->SetBooleanField(result, isDBStringFid, JNI_TRUE);
  return DoubleByteStringValue;
}

jint describeBytes(OopType oop, const ZelObjInfoSType& info, jint indexedSize, jobject result) {
  ValueType valueType = FloatValue;
  if (info.objClass == FloatClassOop) {
    const double value = rtlPrivZelRtlFuncs->ZelOopToFlt(oop);
    TRACE("setupReport on FLOAT: %f\n", value);
    ENV->SetDoubleField(result, doubleFid, value);
  } else {
    valueType = describeString(oop, result);
  }
  setValueType(result, valueType);
  return storeBytes(result, std::max(std::min(indexedSize, PreloadSizeBytes), 0));
}

// The number in the preloaded slot `index`; 0 if fewer than that were preloaded.
jint preloadedNumber(jint index, jint count) {
  if (index >= count) return 0;
  const OopType oop = preloadedOops()[index];
  if (isSmallInteger(oop)) return smallIntegerValue(oop);
  return rtlPrivZelRtlFuncs->ZelOopToLong(oop);
}

void describeDateTime(jint count, jobject result) {
  const jint year = preloadedNumber(0, count);
  const jint day = preloadedNumber(1, count);
  const jlong milliseconds = preloadedNumber(2, count);
  TRACE("setupReport CALENDAR: %ld %ld %lld\n", traced(year), traced(day), milliseconds);
  ENV->SetIntField(result, int1Fid, year);
  ENV->SetIntField(result, int2Fid, day);
  ENV->SetLongField(result, longFid, milliseconds);
}

jint describeOops(const ZelObjInfoSType& info, jobject result) {
  const jint count = std::max(std::min(PreloadSizeOops, info.objSize), 0);
  TRACE("setup:  OOP/NSC cache size = %d\n", count);
  const jint status = storeOops(result, count);
  if (status != 0) return status;
  ValueType valueType = OopsValue;
  if (info.objClass == DateTimeClassOop) {
    describeDateTime(count, result);
    valueType = DateTimeValue;
  }
  setValueType(result, valueType);
  return 0;
}

// A class without a history raises an error here, which is cleared.
void describeHistory(OopType objClass, jobject result) {
  const OopType history = rtlPrivZelRtlFuncs->ZelFetchNamedOop(objClass, classHistorySlot);
  rtlPrivZelRtlFuncs->ZelErr(&ZelError);
  ENV->SetLongField(result, classHistoryOopFid, history);
}

jint describeContents(OopType oop, const ZelObjInfoSType& info, jint indexedSize, jobject result,
                      jobject jErrReport) {
  switch (info.objImpl) {
    case Pointers:
    case Nsc:
      return describeOops(info, result);
    case Bytes:
      return describeBytes(oop, info, indexedSize, result);
    case Special:
      return refuse(jErrReport, "Logic error:  Special oop processing");
    default:
      return 0;
  }
}

jint describeFully(OopType oop, jobject result, jobject jErrReport) {
  ZelObjInfoSType info{};
  ArraySizeType fetched = 0;
  const auto preloadSize = static_cast<ArraySizeType>(std::max(PreloadSizeBytes, 0));
  if (rtlPrivZelRtlFuncs->ZelFetchObjInfo(oop, 1, preloadSize, &info, byteBuf, &fetched) == 0) {
    if (errorPending(jErrReport)) return -1;
    return refuse(jErrReport, "Failure in ZelFetchObjInfo() call");
  }
  ENV->SetLongField(result, classOopFid, info.objClass);
  describeHistory(info.objClass, result);

  // Subtracted as unsigned: the library's sizes may be anything.
  const auto indexedSize = static_cast<jint>(static_cast<std::uint32_t>(info.objSize) -
                                             static_cast<std::uint32_t>(info.namedSize));
  ENV->SetIntField(result, namedSizeFid, info.namedSize);
  ENV->SetLongField(result, indexedSizeFid, indexedSize);
  const auto objType = static_cast<jbyte>(info.objImpl);
  TRACE("setup: oop %ld objType %d\n", traced(oop), objType);
  ENV->SetByteField(result, objTypeFid, objType);
  ENV->SetBooleanField(result, isCollectionFid, info.isIndexable != 0 ? JNI_TRUE : JNI_FALSE);

  const jint status = describeContents(oop, info, indexedSize, result, jErrReport);
  if (status != 0) return status;
  return poll(jErrReport);
}

jint describe(OopType oop, jobject result, jobject jErrReport, BoolType fullSetup) {
  if (oop == 0) {
    const jint status = oopOf(result, &oop, jErrReport);
    if (status != 0) return status;
  }
  TRACE("setupReport: oop set to %ld\n", traced(oop));
  if (isObject(oop)) {
    const jint status = saveObject(oop, result, jErrReport);
    if (status != 0 || fullSetup == 0) return status;
    return describeFully(oop, result, jErrReport);
  }
  ENV->SetLongField(result, oopFid, oop);
  if (oop <= 1) return 0;
  const jint status = describeImmediate(oop, result, jErrReport);
  releaseStrings();
  return status;
}

}  // namespace
}  // namespace bridge

jint setupReport(OopType resultOop, jobject result, jobject jErrReport, BoolType fullSetup) {
  TRACE("setupReport: initial oop %ld\n", bridge::traced(resultOop));
  const jint status = result != nullptr
                          ? bridge::describe(resultOop, result, jErrReport, fullSetup)
                          : bridge::refuse(jErrReport, "setupReport(): NULL result argument");
  TRACE("Returning: %ld\n", bridge::traced(status));
  if (status != 0) bridge::releaseStrings();
  return status;
}
