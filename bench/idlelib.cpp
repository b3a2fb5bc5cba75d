// An interface library that does next to nothing, so that what a benchmark of the bridge measures
// is the bridge. Executions answer the integer 7; every object is an array of 50 slots unless its
// oop says otherwise; transfers succeed in full; there is never an error.
#include "idlelib.h"

#include <cstring>

namespace {

OopType seven() {
  return idle::integerSeven;
}

BoolType fetchObjInfo(OopType oop, long, ArraySizeType size, ZelObjInfoSType* info, ByteType* bytes,
                      ArraySizeType* fetched) {
  *info = {};
  info->objId = oop;
  info->isIndexable = 1;
  if (oop == idle::stringOop) {
    info->objClass = StringClassOop;
    info->objImpl = 1;
    info->objSize = idle::stringSize;
    *fetched = size < idle::stringSize ? size : idle::stringSize;
  } else {
    info->objClass = ArrayClassOop;
    info->objSize = idle::arraySize;
    *fetched = size < 4 * idle::arraySize ? size : 4 * idle::arraySize;
  }
  std::memset(bytes, 4, *fetched);
  return 1;
}

BoolType isKindOf(OopType, OopType cls) {
  return cls == StringKindClassOop ? 1 : 0;
}

long fetchBytes(OopType, long, ByteType*, ArraySizeType count) {
  return static_cast<long>(count);
}

long fetchOops(OopType, long, OopType* oops, ArraySizeType count) {
  for (ArraySizeType i = 0; i < count; ++i) oops[i] = idle::arrayOop;
  return static_cast<long>(count);
}

BoolType dirtySaveObjs(OopType* oops, ArraySizeType* count) {
  fetchOops(0, 1, oops, *count);
  return 1;
}

ZelRtlJumpSType makeTable() {
  ZelRtlJumpSType table{};
  table.zelFeatureLevel = ZelRtlSlotCount;
  table.zelCompatiblityLevel = 1;
  table.ZelProduct = []() -> unsigned char { return 1; };
  table.ZelVersion = []() -> const char* { return "6.7"; };
  table.ZelInit = []() -> BoolType { return 1; };
  table.ZelErr = [](ZelErrSType*) -> BoolType { return 0; };
  table.ZelSetNet = [](const char*, const char*, const char*, const char*) {};
  table.ZelLogin = [](const char*, const char*) -> BoolType { return 1; };
  table.ZelLogout = []() {};
  table.ZelSetSessionId = [](ZelSessionIdType) {};
  table.ZelGetSessionId = []() -> ZelSessionIdType { return 1; };
  table.ZelDirtyObjsInit = []() {};
  table.ZelDirtySaveObjs = dirtySaveObjs;
  table.ZelExecuteStr = [](const char*, OopType) -> OopType { return seven(); };
  table.ZelPerform = [](OopType, const char*, const OopType*, ArraySizeType) -> OopType {
    return seven();
  };
  table.ZelSaveObjs = [](const OopType*, ArraySizeType) {};
  table.ZelReleaseOops = [](const OopType*, ArraySizeType) {};
  table.ZelFetchObjInfo = fetchObjInfo;
  table.ZelFetchNamedOop = [](OopType, long) -> OopType { return NilOop; };
  table.ZelIsKindOf = isKindOf;
  table.ZelFetchBytes = fetchBytes;
  table.ZelFetchVaryingOops = fetchOops;
  table.ZelFetchNamedOops = fetchOops;
  table.ZelStoreBytesInstanceOf = [](OopType, OopType, long, const ByteType*, ArraySizeType) {};
  table.ZelStoreIdxOops = [](OopType, long, const OopType*, ArraySizeType) {};
  table.ZelStoreNamedOops = [](OopType, long, const OopType*, ArraySizeType) {};
  return table;
}

const ZelRtlJumpSType table = makeTable();

}  // namespace

extern "C" POVZEL_EXPORT const ZelRtlJumpSType* ZelGetRtlTable() {
  return &table;
}
