#include "fields.h"

namespace bridge {

jfieldID oopFid, classOopFid, classHistoryOopFid, objTypeFid, namedSizeFid, indexedSizeFid,
    isCollectionFid, isStringFid, isDBStringFid, valueTypeFid, int1Fid, int2Fid, longFid, doubleFid,
    bytesFid, longsFid, stringFid;
jfieldID numberFid, messageFid, categoryFid, contextFid, fatalFid, argCountFid, argsFid;

const Field reportFields[17] = {
    {"oop", "J", &oopFid},
    {"classOop", "J", &classOopFid},
    {"classHistoryOop", "J", &classHistoryOopFid},
    {"objType", "B", &objTypeFid},
    {"namedSize", "I", &namedSizeFid},
    {"indexedSize", "J", &indexedSizeFid},
    {"isCollection", "Z", &isCollectionFid},
    {"isString", "Z", &isStringFid},
    {"isDBString", "Z", &isDBStringFid},
    {"valueType", "B", &valueTypeFid},
    {"valueInt1", "I", &int1Fid},
    {"valueInt2", "I", &int2Fid},
    {"valueLong", "J", &longFid},
    {"valueDouble", "D", &doubleFid},
    {"valueBytes", "[B", &bytesFid},
    {"valueLongs", "[J", &longsFid},
    {"valueString", "Ljava/lang/String;", &stringFid},
};

const Field exceptionFields[7] = {
    {"number", "I", &numberFid},     {"message", "Ljava/lang/String;", &messageFid},
    {"category", "J", &categoryFid}, {"context", "J", &contextFid},
    {"fatal", "Z", &fatalFid},       {"argCount", "I", &argCountFid},
    {"args", "[J", &argsFid},
};

}  // namespace bridge
