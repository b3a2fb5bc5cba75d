// The binary interface between libpovzel30 and an interface library: the records passed by
// address, the oops that both sides know, and the table of function pointers.
//
// An interface library exports one function, `ZelGetRtlTable`, which returns a ZelRtlJumpSType
// that it owns. Every layout here is fixed: the two sides are built separately.
#pragma once

#include <cstddef>

#include <povzel/povzeltypes.h>

using ZelSessionIdType = std::int32_t;

constexpr OopType NilOop = 10;
constexpr OopType FalseOop = 6;
constexpr OopType TrueOop = 38;
constexpr OopType ArrayClassOop = 1045;
constexpr OopType StringClassOop = 1169;
constexpr OopType StringKindClassOop = 1257;  // what every single-byte string is a kind of
constexpr OopType FloatClassOop = 1521;
constexpr OopType DoubleByteStringClassOop = 1553;
constexpr OopType DateTimeClassOop = 1857;

constexpr int ZelMaxErrArgs = 10;

// An error of the interface library. `message` is terminated; the first `argCount` of `args` are
// valid; `fatal` is non-zero when the session can no longer be used.
struct ZelErrSType {
  OopType category;
  std::int32_t number;
  OopType context;
  char message[401];
  std::uint32_t args[ZelMaxErrArgs];
  std::int32_t argCount;
  BoolType fatal;
};
static_assert(offsetof(ZelErrSType, number) == 4 && offsetof(ZelErrSType, context) == 8);
static_assert(offsetof(ZelErrSType, message) == 12 && offsetof(ZelErrSType, args) == 416);
static_assert(offsetof(ZelErrSType, argCount) == 456 && offsetof(ZelErrSType, fatal) == 460);
static_assert(sizeof(ZelErrSType) == 464);

// What an object is: `objSize` counts named and indexed slots together (bytes for byte objects).
struct ZelObjInfoSType {
  std::int32_t namedSize;
  OopType objId;
  OopType objClass;
  OopType segment;
  std::int32_t objSize;
  std::uint16_t reserved : 9;
  std::uint16_t isOverlayed : 1;
  std::uint16_t isPartial : 1;
  std::uint16_t isIndexable : 1;
  std::uint16_t isInvariant : 1;
  std::uint16_t objImpl : 3;  // 0 pointers, 1 bytes, 2 unordered set, 3 special
  std::int16_t unused;
};
static_assert(offsetof(ZelObjInfoSType, objSize) == 16 && offsetof(ZelObjInfoSType, unused) == 22);
static_assert(sizeof(ZelObjInfoSType) == 24);

struct ZelDateTimeSType {
  std::int32_t year;
  std::int32_t dayOfYear;
  std::int32_t milliseconds;  // since midnight
  OopType timeZone;
};
static_assert(offsetof(ZelDateTimeSType, timeZone) == 12 && sizeof(ZelDateTimeSType) == 16);

// A slot whose signature this system does not need to know.
using ZelUntypedFType = void (*)();

// The 312 slots in table order. TYPED(name, result, (arguments)) declares a slot that libpovzel30
// calls, UNTYPED(name) any other.
#define ZEL_RTL_SLOTS(TYPED, UNTYPED) \
  UNTYPED(ZelAbort) \
  UNTYPED(ZelAddOopToNsc) \
  UNTYPED(ZelAddOopsToNsc) \
  UNTYPED(ZelAddSaveObjsToReadSet) \
  UNTYPED(ZelAlteredObjs) \
  UNTYPED(ZelAppendBytes) \
  UNTYPED(ZelAppendChars) \
  UNTYPED(ZelAppendOops) \
  UNTYPED(ZelBegin) \
  UNTYPED(ZelCallInProgress) \
  UNTYPED(ZelCheckAuth) \
  UNTYPED(ZelClampedTraverseObjs) \
  UNTYPED(ZelClampedTrav) \
  UNTYPED(ZelClassMethodForClass) \
  UNTYPED(ZelClassNamedSize) \
  UNTYPED(ZelClearStack) \
  UNTYPED(ZelCommit) \
  UNTYPED(ZelContinue) \
  TYPED(ZelContinueWith, OopType, (OopType, OopType, long, ZelErrSType*)) \
  UNTYPED(ZelNbContinueWith) \
  UNTYPED(ZelCreateOopObj) \
  UNTYPED(ZelCreateByteObj) \
  TYPED(ZelDirtyObjsInit, void, ()) \
  TYPED(ZelDirtySaveObjs, BoolType, (OopType*, ArraySizeType*)) \
  TYPED(ZelNewDateTime, OopType, (OopType, const ZelDateTimeSType*)) \
  UNTYPED(ZelFetchDateTime) \
  UNTYPED(ZelDateTimeToCTime) \
  UNTYPED(ZelCTimeToDateTime) \
  UNTYPED(ZelDbgEstablish) \
  UNTYPED(ZelDbgEstablishToFile) \
  UNTYPED(ZelDbgLogString) \
  UNTYPED(ZelEnableSignaledErrors) \
  TYPED(ZelErr, BoolType, (ZelErrSType*)) \
  TYPED(ZelExecute, OopType, (OopType, OopType)) \
  UNTYPED(ZelExecuteDbg) \
  UNTYPED(ZelExecuteFromContext) \
  UNTYPED(ZelExecuteFromContextDbg) \
  TYPED(ZelExecuteStr, OopType, (const char*, OopType)) \
  UNTYPED(ZelExecuteStrDbg) \
  UNTYPED(ZelExecuteStrFromContext) \
  UNTYPED(ZelExecuteStrFromContextDbg) \
  UNTYPED(ZelFetchByte) \
  TYPED(ZelFetchBytes, long, (OopType, long, ByteType*, ArraySizeType)) \
  UNTYPED(ZelFetchChars) \
  UNTYPED(ZelFetchClass) \
  UNTYPED(ZelFetchVaryingOop) \
  TYPED(ZelFetchVaryingOops, long, (OopType, long, OopType*, ArraySizeType)) \
  UNTYPED(ZelFetchVaryingSize) \
  UNTYPED(ZelFetchNameOfClass) \
  TYPED(ZelFetchNamedOop, OopType, (OopType, long)) \
  TYPED(ZelFetchNamedOops, long, (OopType, long, OopType*, ArraySizeType)) \
  UNTYPED(ZelFetchNamedSize) \
  TYPED(ZelFetchObjInfo, BoolType, \
        (OopType, long, ArraySizeType, ZelObjInfoSType*, ByteType*, ArraySizeType*)) \
  UNTYPED(ZelFetchObjectInfo) \
  UNTYPED(ZelFetchObjImpl) \
  UNTYPED(ZelFetchOop) \
  UNTYPED(ZelFetchOops) \
  UNTYPED(ZelFetchPaths) \
  UNTYPED(ZelFetchSize) \
  UNTYPED(ZelFindObjRep) \
  UNTYPED(ZelFloatKind) \
  TYPED(ZelFltToOop, OopType, (double)) \
  UNTYPED(ZelGetFreeOop) \
  UNTYPED(ZelGetFreeOops) \
  TYPED(ZelGetSessionId, ZelSessionIdType, ()) \
  UNTYPED(ZelGetMaxSessionId) \
  UNTYPED(ZelHandleError) \
  UNTYPED(ZelHardBreak) \
  TYPED(ZelInit, BoolType, ()) \
  TYPED(ZelInitAppName, void, (const char*, BoolType)) \
  UNTYPED(ZelSetCacheName) \
  UNTYPED(ZelInstMethodForClass) \
  TYPED(ZelIsKindOf, BoolType, (OopType, OopType)) \
  UNTYPED(ZelIsKindOfClass) \
  UNTYPED(ZelIsSubclassOf) \
  UNTYPED(ZelIsSubclassOfClass) \
  UNTYPED(ZelIsRemote) \
  UNTYPED(ZelSessionIsRemote) \
  UNTYPED(ZelIvNameToIdx) \
  TYPED(ZelLogin, BoolType, (const char*, const char*)) \
  TYPED(ZelLogout, void, ()) \
  TYPED(ZelLongToOop, OopType, (long)) \
  UNTYPED(ZelUnsignedLongToOop) \
  UNTYPED(ZelMoreTraversal) \
  UNTYPED(ZelNbEnd) \
  UNTYPED(ZelNbAbort) \
  UNTYPED(ZelNbBegin) \
  UNTYPED(ZelNbClampedTraverseObjs) \
  UNTYPED(ZelNbClampedTrav) \
  UNTYPED(ZelNbCommit) \
  UNTYPED(ZelNbContinue) \
  UNTYPED(ZelNbExecute) \
  UNTYPED(ZelNbExecuteDbg) \
  UNTYPED(ZelNbExecuteStr) \
  UNTYPED(ZelNbExecuteStrDbg) \
  UNTYPED(ZelNbExecuteStrFromContext) \
  UNTYPED(ZelNbExecuteStrFromContextDbg) \
  UNTYPED(ZelNbMoreTraversal) \
  UNTYPED(ZelNbPerform) \
  UNTYPED(ZelNbPerformNoDebug) \
  UNTYPED(ZelNbPerformTraverse) \
  UNTYPED(ZelNbExecuteStrTrav) \
  UNTYPED(ZelNbPerformTrav) \
  UNTYPED(ZelNbStoreTrav) \
  UNTYPED(ZelNbTraverseObjs) \
  UNTYPED(ZelNewByteObj) \
  UNTYPED(ZelNewCharObj) \
  TYPED(ZelNewOop, OopType, (OopType)) \
  UNTYPED(ZelNewOops) \
  UNTYPED(ZelNewOopUsingObjRep) \
  UNTYPED(ZelNewString) \
  UNTYPED(ZelNewSymbol) \
  UNTYPED(ZelObjExists) \
  UNTYPED(ZelObjInCollection) \
  UNTYPED(ZelObjRepSize) \
  TYPED(ZelOopToBool, BoolType, (OopType)) \
  TYPED(ZelOopToChr, char, (OopType)) \
  UNTYPED(ZelOopToChar16) \
  TYPED(ZelOopToFlt, double, (OopType)) \
  TYPED(ZelOopToLong, long, (OopType)) \
  UNTYPED(ZelPathToStr) \
  TYPED(ZelPerform, OopType, (OopType, const char*, const OopType*, ArraySizeType)) \
  UNTYPED(ZelPerformSymDbg) \
  UNTYPED(ZelPerformNoDebug) \
  UNTYPED(ZelPerformTraverse) \
  UNTYPED(ZelPerformTrav) \
  UNTYPED(ZelExecuteStrTrav) \
  UNTYPED(ZelProcessDeferredUpdates) \
  UNTYPED(ZelPollForSignal) \
  UNTYPED(ZelPopErrJump) \
  UNTYPED(ZelPushErrHandler) \
  UNTYPED(ZelPushErrJump) \
  UNTYPED(ZelRefreshClassCache) \
  UNTYPED(ZelReleaseAllOops) \
  TYPED(ZelReleaseOops, void, (const OopType*, ArraySizeType)) \
  UNTYPED(ZelRemoveOopFromNsc) \
  UNTYPED(ZelRemoveOopsFromNsc) \
  UNTYPED(ZelReplaceOops) \
  UNTYPED(ZelReplaceVaryingOops) \
  UNTYPED(ZelResolveSymbol) \
  UNTYPED(ZelResolveSymbolObj) \
  TYPED(ZelSaveObjs, void, (const OopType*, ArraySizeType)) \
  UNTYPED(ZelSendMsg) \
  UNTYPED(ZelSetErrJump) \
  TYPED(ZelSetNet, void, (const char*, const char*, const char*, const char*)) \
  TYPED(ZelSetSessionId, void, (ZelSessionIdType)) \
  TYPED(ZelShutdown, void, ()) \
  UNTYPED(ZelSoftBreak) \
  UNTYPED(ZelStep) \
  UNTYPED(ZelStoreByte) \
  TYPED(ZelStoreBytesInstanceOf, void, (OopType, OopType, long, const ByteType*, ArraySizeType)) \
  UNTYPED(ZelStoreChars) \
  UNTYPED(ZelStoreIdxOop) \
  TYPED(ZelStoreIdxOops, void, (OopType, long, const OopType*, ArraySizeType)) \
  UNTYPED(ZelStoreNamedOop) \
  TYPED(ZelStoreNamedOops, void, (OopType, long, const OopType*, ArraySizeType)) \
  TYPED(ZelStoreOop, void, (OopType, long, OopType)) \
  UNTYPED(ZelStoreOops) \
  UNTYPED(ZelStorePaths) \
  UNTYPED(ZelStoreTrav) \
  UNTYPED(ZelStrToPath) \
  UNTYPED(ZelStringToInteger) \
  UNTYPED(ZelSymDictAt) \
  UNTYPED(ZelSymDictAtObj) \
  UNTYPED(ZelSymDictAtObjPut) \
  UNTYPED(ZelSymDictAtPut) \
  UNTYPED(ZelStrKeyValueDictAt) \
  UNTYPED(ZelStrKeyValueDictAtObj) \
  UNTYPED(ZelStrKeyValueDictAtObjPut) \
  UNTYPED(ZelStrKeyValueDictAtPut) \
  UNTYPED(ZelTraverseObjs) \
  TYPED(ZelProduct, unsigned char, ()) \
  TYPED(ZelVersion, const char*, ()) \
  UNTYPED(ZelInUserAction) \
  UNTYPED(ZelInstallUserAction) \
  UNTYPED(ZelRaiseException) \
  UNTYPED(ZelLoadUserActionLibrary) \
  UNTYPED(ZelCompatiblityLevel) \
  UNTYPED(ZelFeatureLevel) \
  UNTYPED(ZelGetAppIdent) \
  UNTYPED(ZelSetAppIdent) \
  UNTYPED(ZelGetCmdReader) \
  UNTYPED(ZelSetCmdReader) \
  UNTYPED(ZelGetCmdLine) \
  UNTYPED(ZelSetCmdLine) \
  UNTYPED(ZelNetOobHandler) \
  UNTYPED(ZelGetLogger) \
  UNTYPED(ZelInitExeName) \
  UNTYPED(ZelSetLogger) \
  UNTYPED(Zel_PRIVATE_RegisterCallBack) \
  UNTYPED(Zel_PRIVATE_ClearCallBack) \
  UNTYPED(ZelVerbose) \
  UNTYPED(ZelGetNet) \
  UNTYPED(ZelSessionInUse) \
  UNTYPED(ZelSetLoginCallback) \
  UNTYPED(ZelOopMapCreate) \
  UNTYPED(ZelOopMapDestroy) \
  UNTYPED(ZelOopMapEntryAdd) \
  UNTYPED(ZelOopMapEntryFind) \
  UNTYPED(ZelOopMapForeach) \
  UNTYPED(ZelOopMapEntryDelete) \
  UNTYPED(ZelOopMapEntryGetOop) \
  UNTYPED(ZelOopMapEntryGetValue) \
  UNTYPED(ZelOopMapEntrySetValue) \
  UNTYPED(ZelNbGetNotifyHandle) \
  UNTYPED(ZelGetSignalHandle) \
  UNTYPED(ZelWaitOnHandle) \
  UNTYPED(ZelInitNoSharedCache) \
  UNTYPED(ZelUseSharedCache) \
  UNTYPED(ZelOverlayReplaceOops) \
  UNTYPED(ZelOverlayStoreOops) \
  UNTYPED(ZelOverlayStoreNamedOops) \
  UNTYPED(ZelServerFind) \
  UNTYPED(ZelServerForeach) \
  UNTYPED(ZelServerPing) \
  UNTYPED(ZelServerClean) \
  UNTYPED(ZelDisassemble) \
  UNTYPED(ZelClassRemoveAllMethods) \
  UNTYPED(ZelProtectMethods) \
  UNTYPED(ZelStoreClientData) \
  UNTYPED(ZelGetClientData) \
  UNTYPED(ZelGetCBuffer) \
  UNTYPED(ZelStoreTravDo) \
  UNTYPED(ZelNbStoreTravDo) \
  TYPED(ZelUnload, void, ()) \
  UNTYPED(ZelUseRealUid) \
  UNTYPED(ZelUseEffectiveUid) \
  UNTYPED(ZelEncrypt) \
  UNTYPED(ZelSetNetEx) \
  UNTYPED(ZelLoginEx) \
  UNTYPED(ZelNbLoginEx) \
  UNTYPED(ZelGetClearAllTempsCount) \
  UNTYPED(ZelSetLoggerFlush) \
  UNTYPED(ZelGetLoggerFlush) \
  UNTYPED(ZelDirtyExportedObjs) \
  UNTYPED(ZelDirtyTrackedObjs) \
  UNTYPED(ZelEnableFreeOopEncoding) \
  UNTYPED(ZelEnableFullCompression) \
  UNTYPED(ZelFetchNumEncodedOops) \
  UNTYPED(ZelDecodeOopArray) \
  UNTYPED(ZelEncodeOopArray) \
  UNTYPED(ZelGetFreeOopsEncoded) \
  UNTYPED(ZelHiddenSetIncludesOop) \
  UNTYPED(ZelReleaseAllTrackedOops) \
  UNTYPED(ZelReleaseTrackedOops) \
  UNTYPED(ZelSaveAndTrackObjs) \
  UNTYPED(ZelTrackedObjsFetchAllDirty) \
  UNTYPED(ZelTrackedObjsInit) \
  UNTYPED(ZelCompress) \
  UNTYPED(ZelUncompress) \
  UNTYPED(ZelNscIncludesOop) \
  UNTYPED(ZelSetVaryingSize) \
  UNTYPED(ZelOopToEncodedLong) \
  UNTYPED(ZelEncodedLongToOop) \
  UNTYPED(ZelStoreTravDoTrav) \
  UNTYPED(ZelNbStoreTravDoTrav) \
  UNTYPED(ZelTvSocketWrite) \
  UNTYPED(ZelTvSocketRead) \
  UNTYPED(ZelOopToUnsignedLong) \
  UNTYPED(ZelErrMsgWriteError) \
  UNTYPED(ZelErrMsgSymToFile) \
  UNTYPED(ZelErrMsgSymToText) \
  UNTYPED(ZelHelp) \
  UNTYPED(ZelUnixIoFgetc) \
  UNTYPED(ZelUnixIoFgets) \
  UNTYPED(ZelVerBanner) \
  UNTYPED(ZelVerEndEdge) \
  UNTYPED(ZelUtlCtime) \
  UNTYPED(ZelTimeStampMsStr) \
  UNTYPED(ZelUtlSetExeDir) \
  UNTYPED(ZelUtlPartialStrCmp) \
  UNTYPED(ZelUtlExit) \
  UNTYPED(ZelUtlMalloc) \
  UNTYPED(ZelUtlFree) \
  UNTYPED(ZelUtlOpenFile) \
  UNTYPED(ZelHostCallDebugger) \
  UNTYPED(ZelHostExWaitForDebug) \
  UNTYPED(ZelHostExpandFileName) \
  UNTYPED(ZelHostftell) \
  UNTYPED(ZelHostfseek) \
  UNTYPED(ZelHostGetCpuTime) \
  UNTYPED(ZelHostGetEnv) \
  UNTYPED(ZelHostSetEnv) \
  UNTYPED(ZelHostTempFileSpec) \
  UNTYPED(ZelHostCallDebuggerMsg) \
  UNTYPED(ZelHostFtime) \
  UNTYPED(ZelHostInit) \
  UNTYPED(ZelHostSilentGetLine) \
  UNTYPED(ZelHostSpawn) \
  UNTYPED(ZelHostStrCmpi) \
  UNTYPED(ZelHostRemoveFile) \
  UNTYPED(ZelHostInstallFaultHandler) \
  UNTYPED(ZelHostEnableKbInt) \
  UNTYPED(ZelHostSleep) \
  UNTYPED(ZelHostDisableInterrupts) \
  UNTYPED(ZelHostEnableInterrupts) \
  UNTYPED(ZelDllSetHaltOnError) \
  UNTYPED(ZelDllDbInConversion) \
  UNTYPED(ZelDllSetDbInConversion) \
  UNTYPED(ZelHostMilliSleep) \
  UNTYPED(ZelFloatPlusInfinityVal) \
  UNTYPED(ZelFloatMinusInfinityVal) \
  UNTYPED(ZelFloatPlusQuietNanVal) \
  UNTYPED(ZelFloatMinusQuietNanVal) \
  UNTYPED(ZelFloatPlusSignalingNanVal) \
  UNTYPED(ZelFloatMinusSignalingNanVal) \
  UNTYPED(ZelFloatKindSign) \
  UNTYPED(ZelFloatIsNaN) \
  UNTYPED(ZelFloatSwizzleRead) \
  UNTYPED(ZelFloatSwizzleWrite) \
  UNTYPED(ZelFloatSwizzleReadSingle) \
  UNTYPED(ZelFloatSwizzleWriteSingle)
// The table that an interface library hands out.
struct ZelRtlJumpSType {
  std::int32_t zelFeatureLevel;       // number of function slots the library provides
  std::int32_t zelCompatiblityLevel;  // interface compatibility level
  std::int32_t reserved;
#define ZEL_TYPED_MEMBER(name, result, arguments) result(*name) arguments;
#define ZEL_UNTYPED_MEMBER(name) ZelUntypedFType name;
  ZEL_RTL_SLOTS(ZEL_TYPED_MEMBER, ZEL_UNTYPED_MEMBER)
#undef ZEL_TYPED_MEMBER
#undef ZEL_UNTYPED_MEMBER
  int unused;
};

constexpr int ZelRtlSlotCount = 312;

static_assert(sizeof(ZelRtlJumpSType) == 1264);
static_assert(offsetof(ZelRtlJumpSType, unused) == 12 + 4 * ZelRtlSlotCount);
static_assert(offsetof(ZelRtlJumpSType, ZelContinueWith) == 84);
static_assert(offsetof(ZelRtlJumpSType, ZelDirtyObjsInit) == 100);
static_assert(offsetof(ZelRtlJumpSType, ZelDirtySaveObjs) == 104);
static_assert(offsetof(ZelRtlJumpSType, ZelNewDateTime) == 108);
static_assert(offsetof(ZelRtlJumpSType, ZelErr) == 140);
static_assert(offsetof(ZelRtlJumpSType, ZelExecute) == 144);
static_assert(offsetof(ZelRtlJumpSType, ZelExecuteStr) == 160);
static_assert(offsetof(ZelRtlJumpSType, ZelFetchBytes) == 180);
static_assert(offsetof(ZelRtlJumpSType, ZelFetchVaryingOops) == 196);
static_assert(offsetof(ZelRtlJumpSType, ZelFetchNamedOop) == 208);
static_assert(offsetof(ZelRtlJumpSType, ZelFetchNamedOops) == 212);
static_assert(offsetof(ZelRtlJumpSType, ZelFetchObjInfo) == 220);
static_assert(offsetof(ZelRtlJumpSType, ZelFltToOop) == 256);
static_assert(offsetof(ZelRtlJumpSType, ZelGetSessionId) == 268);
static_assert(offsetof(ZelRtlJumpSType, ZelInit) == 284);
static_assert(offsetof(ZelRtlJumpSType, ZelInitAppName) == 288);
static_assert(offsetof(ZelRtlJumpSType, ZelIsKindOf) == 300);
static_assert(offsetof(ZelRtlJumpSType, ZelLogin) == 328);
static_assert(offsetof(ZelRtlJumpSType, ZelLogout) == 332);
static_assert(offsetof(ZelRtlJumpSType, ZelLongToOop) == 336);
static_assert(offsetof(ZelRtlJumpSType, ZelNewOop) == 440);
static_assert(offsetof(ZelRtlJumpSType, ZelOopToBool) == 472);
static_assert(offsetof(ZelRtlJumpSType, ZelOopToChr) == 476);
static_assert(offsetof(ZelRtlJumpSType, ZelOopToFlt) == 484);
static_assert(offsetof(ZelRtlJumpSType, ZelOopToLong) == 488);
static_assert(offsetof(ZelRtlJumpSType, ZelPerform) == 496);
static_assert(offsetof(ZelRtlJumpSType, ZelReleaseOops) == 548);
static_assert(offsetof(ZelRtlJumpSType, ZelSaveObjs) == 576);
static_assert(offsetof(ZelRtlJumpSType, ZelSetNet) == 588);
static_assert(offsetof(ZelRtlJumpSType, ZelSetSessionId) == 592);
static_assert(offsetof(ZelRtlJumpSType, ZelShutdown) == 596);
static_assert(offsetof(ZelRtlJumpSType, ZelStoreBytesInstanceOf) == 612);
static_assert(offsetof(ZelRtlJumpSType, ZelStoreIdxOops) == 624);
static_assert(offsetof(ZelRtlJumpSType, ZelStoreNamedOops) == 632);
static_assert(offsetof(ZelRtlJumpSType, ZelStoreOop) == 636);
static_assert(offsetof(ZelRtlJumpSType, ZelProduct) == 696);
static_assert(offsetof(ZelRtlJumpSType, ZelVersion) == 700);
static_assert(offsetof(ZelRtlJumpSType, ZelUnload) == 908);
// The type of the one function that an interface library exports.
using ZelGetRtlTableFuncPtr = const ZelRtlJumpSType* (*)();
