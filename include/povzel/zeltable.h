// The binary interface between libpovzel30 and an interface library: the records passed by
// address, the oops that both sides know, and the table of function pointers.
//
// An interface library exports one function, `ZelGetRtlTable`, which returns a ZelRtlJumpSType
// that it owns. Every layout here is fixed: the two sides are built separately.
#pragma once

#include <stddef.h>

#include <povzel/povzeltypes.h>

// A session of the interface library; 0 is none.
typedef int32_t ZelSessionIdType;

// The oops that both sides know.
POVZEL_CONSTANT(OopType, NilOop, 10);
POVZEL_CONSTANT(OopType, FalseOop, 6);
POVZEL_CONSTANT(OopType, TrueOop, 38);
POVZEL_CONSTANT(OopType, ArrayClassOop, 1045);
POVZEL_CONSTANT(OopType, StringClassOop, 1169);
POVZEL_CONSTANT(OopType, StringKindClassOop, 1257);  // what every single-byte string is a kind of
POVZEL_CONSTANT(OopType, FloatClassOop, 1521);
POVZEL_CONSTANT(OopType, DoubleByteStringClassOop, 1553);
POVZEL_CONSTANT(OopType, DateTimeClassOop, 1857);

// How many arguments an error has at the most.
POVZEL_CONSTANT(int, ZelMaxErrArgs, 10);

// An error of the interface library.
typedef struct ZelErrSType {
  OopType category;              // the object of the error's category
  int32_t number;                // which error of the category
  OopType context;               // the process that failed, or NilOop
  char message[401];             // terminated
  uint32_t args[ZelMaxErrArgs];  // the oops of its arguments
  int32_t argCount;              // how many of `args` are valid
  BoolType fatal;                // the session can no longer be used
} ZelErrSType;
POVZEL_STATIC_ASSERT(offsetof(ZelErrSType, number) == 4 && offsetof(ZelErrSType, context) == 8,
                     "the layout of ZelErrSType has changed");
POVZEL_STATIC_ASSERT(offsetof(ZelErrSType, message) == 12 && offsetof(ZelErrSType, args) == 416,
                     "the layout of ZelErrSType has changed");
POVZEL_STATIC_ASSERT(offsetof(ZelErrSType, argCount) == 456 && offsetof(ZelErrSType, fatal) == 460,
                     "the layout of ZelErrSType has changed");
POVZEL_STATIC_ASSERT(sizeof(ZelErrSType) == 464, "the layout of ZelErrSType has changed");

// What an object is.
typedef struct ZelObjInfoSType {
  int32_t namedSize;         // named instance variables
  OopType objId;             // the object itself
  OopType objClass;          // its class
  OopType segment;           // the segment that it is stored in
  int32_t objSize;           // named and indexed slots together; bytes for byte objects
  uint16_t reserved : 9;     // not used
  uint16_t isOverlayed : 1;  // not used here
  uint16_t isPartial : 1;    // not used here
  uint16_t isIndexable : 1;  // it has slots that are reached by number
  uint16_t isInvariant : 1;  // its contents cannot be changed
  uint16_t objImpl : 3;      // 0 pointers, 1 bytes, 2 unordered set, 3 special
  int16_t unused;            // not used
} ZelObjInfoSType;
POVZEL_STATIC_ASSERT(offsetof(ZelObjInfoSType, objSize) == 16 &&
                         offsetof(ZelObjInfoSType, unused) == 22,
                     "the layout of ZelObjInfoSType has changed");
POVZEL_STATIC_ASSERT(sizeof(ZelObjInfoSType) == 24, "the layout of ZelObjInfoSType has changed");

// A moment, in the time zone of an object.
typedef struct ZelDateTimeSType {
  int32_t year;          // such as 2026
  int32_t dayOfYear;     // from 1
  int32_t milliseconds;  // since midnight
  OopType timeZone;      // the object of its time zone
} ZelDateTimeSType;
POVZEL_STATIC_ASSERT(offsetof(ZelDateTimeSType, timeZone) == 12 && sizeof(ZelDateTimeSType) == 16,
                     "the layout of ZelDateTimeSType has changed");

// A slot whose signature this system does not need to know.
typedef void (*ZelUntypedFType)(void);

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
  TYPED(ZelDirtyObjsInit, void, (void)) \
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
  TYPED(ZelGetSessionId, ZelSessionIdType, (void)) \
  UNTYPED(ZelGetMaxSessionId) \
  UNTYPED(ZelHandleError) \
  UNTYPED(ZelHardBreak) \
  TYPED(ZelInit, BoolType, (void)) \
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
  TYPED(ZelLogout, void, (void)) \
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
  TYPED(ZelShutdown, void, (void)) \
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
  TYPED(ZelProduct, unsigned char, (void)) \
  TYPED(ZelVersion, const char*, (void)) \
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
  TYPED(ZelUnload, void, (void)) \
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
typedef struct ZelRtlJumpSType {
  int32_t zelFeatureLevel;       // number of function slots the library provides
  int32_t zelCompatiblityLevel;  // interface compatibility level
  int32_t reserved;              // not used
// What a slot of known signature is in the record.
#define ZEL_TYPED_MEMBER(name, result, arguments) result(*name) arguments;
// And one of unknown signature.
#define ZEL_UNTYPED_MEMBER(name) ZelUntypedFType name;
  ZEL_RTL_SLOTS(ZEL_TYPED_MEMBER, ZEL_UNTYPED_MEMBER)
#undef ZEL_TYPED_MEMBER
#undef ZEL_UNTYPED_MEMBER
  int unused;  // not used
} ZelRtlJumpSType;

// How many slots the table has.
POVZEL_CONSTANT(int, ZelRtlSlotCount, 312);

POVZEL_STATIC_ASSERT(sizeof(ZelRtlJumpSType) == 1264, "the layout of ZelRtlJumpSType has changed");
POVZEL_STATIC_ASSERT(offsetof(ZelRtlJumpSType, unused) == 12 + 4 * ZelRtlSlotCount,
                     "the layout of ZelRtlJumpSType has changed");

// Holds a slot to its place.
#define ZEL_SLOT_AT(name, offset) \
  POVZEL_STATIC_ASSERT(offsetof(ZelRtlJumpSType, name) == (offset), #name " is in another slot")
ZEL_SLOT_AT(ZelContinueWith, 84);
ZEL_SLOT_AT(ZelDirtyObjsInit, 100);
ZEL_SLOT_AT(ZelDirtySaveObjs, 104);
ZEL_SLOT_AT(ZelNewDateTime, 108);
ZEL_SLOT_AT(ZelErr, 140);
ZEL_SLOT_AT(ZelExecute, 144);
ZEL_SLOT_AT(ZelExecuteStr, 160);
ZEL_SLOT_AT(ZelFetchBytes, 180);
ZEL_SLOT_AT(ZelFetchVaryingOops, 196);
ZEL_SLOT_AT(ZelFetchNamedOop, 208);
ZEL_SLOT_AT(ZelFetchNamedOops, 212);
ZEL_SLOT_AT(ZelFetchObjInfo, 220);
ZEL_SLOT_AT(ZelFltToOop, 256);
ZEL_SLOT_AT(ZelGetSessionId, 268);
ZEL_SLOT_AT(ZelInit, 284);
ZEL_SLOT_AT(ZelInitAppName, 288);
ZEL_SLOT_AT(ZelIsKindOf, 300);
ZEL_SLOT_AT(ZelLogin, 328);
ZEL_SLOT_AT(ZelLogout, 332);
ZEL_SLOT_AT(ZelLongToOop, 336);
ZEL_SLOT_AT(ZelNewOop, 440);
ZEL_SLOT_AT(ZelOopToBool, 472);
ZEL_SLOT_AT(ZelOopToChr, 476);
ZEL_SLOT_AT(ZelOopToFlt, 484);
ZEL_SLOT_AT(ZelOopToLong, 488);
ZEL_SLOT_AT(ZelPerform, 496);
ZEL_SLOT_AT(ZelReleaseOops, 548);
ZEL_SLOT_AT(ZelSaveObjs, 576);
ZEL_SLOT_AT(ZelSetNet, 588);
ZEL_SLOT_AT(ZelSetSessionId, 592);
ZEL_SLOT_AT(ZelShutdown, 596);
ZEL_SLOT_AT(ZelStoreBytesInstanceOf, 612);
ZEL_SLOT_AT(ZelStoreIdxOops, 624);
ZEL_SLOT_AT(ZelStoreNamedOops, 632);
ZEL_SLOT_AT(ZelStoreOop, 636);
ZEL_SLOT_AT(ZelProduct, 696);
ZEL_SLOT_AT(ZelVersion, 700);
ZEL_SLOT_AT(ZelUnload, 908);
#undef ZEL_SLOT_AT

// The type of the one function that an interface library exports.
typedef const ZelRtlJumpSType* (*ZelGetRtlTableFuncPtr)(void);
