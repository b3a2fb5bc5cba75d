// Executes arbitrary text in the embedded database, with small limits: every end but a crash, a
// hang or a leak is a good one.
#include <string>

#include "table/frame.h"
#include "zel.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static int runs = 0;
  const ZelRtlJumpSType* zel = ZelGetRtlTable();
  if (runs++ % 64 == 0) {
    // Inputs share a database for a while, so that one can build on another's objects.
    zel->ZelShutdown();
    zel->ZelInit();
    zel->ZelLogin("SystemUser", "swordfish");
    zel::Session& session = *zel::library().database->current;
    session.memory.setLimit(32U << 20);
    session.memory.meter.limit = 20'000;
    session.machine.mostFrames = 500;
    zel->ZelDirtyObjsInit();
  }
  zel->ZelSetSessionId(zel->ZelGetSessionId());
  const std::string text(reinterpret_cast<const char*>(data), size);
  const OopType result = zel->ZelExecuteStr(text.c_str(), NilOop);
  ZelErrSType error;
  if (zel->ZelErr(&error) != 0) {
    zel->ZelContinueWith(error.context, 1, 0, nullptr);
    zel->ZelErr(&error);
    return 0;
  }
  ZelObjInfoSType info;
  ByteType body[64];
  ArraySizeType count = 0;
  zel->ZelSaveObjs(&result, 1);
  zel->ZelFetchObjInfo(result, 1, sizeof body, &info, body, &count);
  zel->ZelPerform(result, "printString", nullptr, 0);
  zel->ZelReleaseOops(&result, 1);
  zel->ZelErr(&error);
  return 0;
}
