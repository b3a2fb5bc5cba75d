// What the bridge knows of Java's report classes: their fields, and the codes that stand in them.
#pragma once

#include <jni.h>

#pragma GCC visibility push(hidden)
namespace bridge {

constexpr char reportClass[] = "com/tarvolin/povzel/PovZelReport";
constexpr char exceptionClass[] = "com/tarvolin/povzel/PovZelException";

extern jfieldID oopFid, classOopFid, classHistoryOopFid, objTypeFid, namedSizeFid, indexedSizeFid,
    isCollectionFid, isStringFid, isDBStringFid, valueTypeFid, int1Fid, int2Fid, longFid, doubleFid,
    bytesFid, longsFid, stringFid;
extern jfieldID numberFid, messageFid, categoryFid, contextFid, fatalFid, argCountFid, argsFid;

// A Java field, and where its ID is kept. _initialize looks them up in the tables' order.
struct Field {
  const char* name;
  const char* signature;
  jfieldID* id;
};
extern const Field reportFields[17];
extern const Field exceptionFields[7];

// Codes of `objType` and `valueType` in reports.
enum ObjType : jbyte { NewValue = -1, PointerObject, ByteObject, NscObject, SpecialObject };
enum ValueType : jbyte {
  NoValue = -1,
  NilValue,
  BooleanValue,
  CharacterValue,
  IntegerValue,
  FloatValue,
  BytesValue,
  OopsValue,
  StringValue,
  DoubleByteStringValue,
  DateTimeValue
};

}  // namespace bridge
#pragma GCC visibility pop
