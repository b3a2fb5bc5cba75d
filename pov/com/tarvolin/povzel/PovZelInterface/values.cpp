// Java values turned into oops.
#include <iterator>

#include "frame.h"

namespace bridge {
namespace {

// Stores a produced oop where the caller and the report keep it.
void produce(OopType made, jobject jobj, OopType* oop) {
  *oop = made;
  ENV->SetLongField(jobj, oopFid, made);
}

// The same for oops that are formed rather than created: the error poll comes afterwards.
jint produceValue(OopType made, jobject jobj, OopType* oop, jobject jErrReport) {
  produce(made, jobj, oop);
  return poll(jErrReport);
}

jint nilOop(jobject jobj, OopType* oop, jobject) {
  produce(NilOop, jobj, oop);
  return 0;
}

jint booleanOop(jobject jobj, OopType* oop, jobject jErrReport) {
  const bool value = ENV->GetLongField(jobj, longFid) != 0;
  return produceValue(value ? TrueOop : FalseOop, jobj, oop, jErrReport);
}

jint characterOop(jobject jobj, OopType* oop, jobject jErrReport) {
  const auto code = static_cast<OopType>(ENV->GetLongField(jobj, longFid)) & 0xffff;
  return produceValue(code << 5 | CharacterTag, jobj, oop, jErrReport);
}

jint integerOop(jobject jobj, OopType* oop, jobject jErrReport) {
  const auto value = static_cast<long>(ENV->GetLongField(jobj, longFid));
  return produceValue(rtlPrivZelRtlFuncs->ZelLongToOop(value), jobj, oop, jErrReport);
}

jint floatOop(jobject jobj, OopType* oop, jobject jErrReport) {
  const double value = ENV->GetDoubleField(jobj, doubleFid);
  return produceValue(rtlPrivZelRtlFuncs->ZelFltToOop(value), jobj, oop, jErrReport);
}

// A string object, unless the text could not be converted to `bytes`.
jint createString(OopType stringClass, const ByteType* bytes, ArraySizeType size, jobject jobj,
                  OopType* oop, jobject jErrReport) {
  if (bytes == nullptr) return allocationFailure();
  OopType made = 0;
  const jint status = createBytes(stringClass, bytes, size, &made, jErrReport);
  if (status == 0) produce(made, jobj, oop);
  return status;
}

// The report's text, for one conversion. An array of strings is converted in one native call, so
// the reference ends here; the bytes taken from it have to be released first.
struct ReportText {
  explicit ReportText(jobject jobj)
      : text(static_cast<jstring>(ENV->GetObjectField(jobj, stringFid))) {}
  ~ReportText() {
    if (text == nullptr) return;
    releaseStrings();
    ENV->DeleteLocalRef(text);
  }
  ReportText(const ReportText&) = delete;
  ReportText& operator=(const ReportText&) = delete;

  jstring text;
};

jint refuseNullText(jobject jErrReport) {
  return refuse(jErrReport, "getOop(): NULL valueString");
}

jint stringOop(jobject jobj, OopType* oop, jobject jErrReport) {
  const ReportText value(jobj);
  if (value.text == nullptr) return refuseNullText(jErrReport);
  const auto size = static_cast<ArraySizeType>(ENV->GetStringUTFLength(value.text));
  return createString(StringClassOop, GetSbString(value.text), size, jobj, oop, jErrReport);
}

jint doubleByteStringOop(jobject jobj, OopType* oop, jobject jErrReport) {
  const ReportText value(jobj);
  if (value.text == nullptr) return refuseNullText(jErrReport);
  const auto length = static_cast<ArraySizeType>(ENV->GetStringLength(value.text));
  return createString(DoubleByteStringClassOop, GetDbString(value.text), 2 * length, jobj, oop,
                      jErrReport);
}

jint dateTimeOop(jobject jobj, OopType* oop, jobject jErrReport) {
  const jlong milliseconds = ENV->GetLongField(jobj, longFid);
  const jint year = ENV->GetIntField(jobj, int1Fid);
  const jint day = ENV->GetIntField(jobj, int2Fid);
  TRACE("CALENDAR: yr %ld day %ld ms %lld\n", traced(year), traced(day), milliseconds);
  const ZelDateTimeSType dateTime{year, day, static_cast<std::int32_t>(milliseconds), NilOop};
  const OopType made = rtlPrivZelRtlFuncs->ZelNewDateTime(DateTimeClassOop, &dateTime);
  if (errorPending(jErrReport)) return -1;
  produce(made, jobj, oop);
  return 0;
}

// How a new value of each type becomes an oop. Null: it does not.
using MakerFType = jint (*)(jobject jobj, OopType* oop, jobject jErrReport);
constexpr MakerFType makers[] = {
    nilOop,  booleanOop, characterOop, integerOop,          floatOop,
    nullptr, nullptr,    stringOop,    doubleByteStringOop, dateTimeOop,
};
static_assert(std::size(makers) == DateTimeValue + 1);

}  // namespace

jint createBytes(OopType byteClass, const ByteType* bytes, ArraySizeType size, OopType* oop,
                 jobject jErrReport) {
  *oop = rtlPrivZelRtlFuncs->ZelNewOop(byteClass);
  if (errorPending(jErrReport)) return -1;
  rtlPrivZelRtlFuncs->ZelStoreBytesInstanceOf(NilOop, *oop, 1, bytes, size);
  return poll(jErrReport);
}

jint makeOop(jobject jobj, OopType* oop, jobject jErrReport) {
  const jbyte valueType = ENV->GetByteField(jobj, valueTypeFid);
  if (valueType == NoValue) return 0;
  const bool known = valueType >= NilValue && valueType <= DateTimeValue;
  const MakerFType maker = known ? makers[valueType] : nullptr;
  if (maker == nullptr) {
    TRACE("getOop(): Logic error in case statement");
    return 0;
  }
  return maker(jobj, oop, jErrReport);
}

}  // namespace bridge

jint getOop(jobject jobj, OopType* oop, jobject jErrReport) {
  if (jobj == nullptr) return bridge::leave(bridge::refuse(jErrReport, "getOop(): NULL report"));
  return bridge::oopOf(jobj, oop, jErrReport);
}
