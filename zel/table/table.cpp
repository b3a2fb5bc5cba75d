// The table itself, and the one function that the library exports.
#include "frame.h"
#include "slots.h"
#include "zel.h"

namespace zel {

namespace {

// The result of every slot that is not provided: none, and an error that names the slot.
int refuse(const char* slot) {
  leaveError(Failure(ErrNotImplemented,
                     std::string(slot) + " is not provided by the embedded interface library"));
  return 0;
}

#define ZEL_TYPED_STUB(name, result, arguments)
#define ZEL_UNTYPED_STUB(name) \
  ZEL_SLOT int refuse##name() { \
    return refuse(#name); \
  }
ZEL_RTL_SLOTS(ZEL_TYPED_STUB, ZEL_UNTYPED_STUB)
#undef ZEL_TYPED_STUB
#undef ZEL_UNTYPED_STUB

template <typename Function>
ZelUntypedFType untyped(Function* function) {
  return reinterpret_cast<ZelUntypedFType>(function);
}

ZelRtlJumpSType makeTable() {
  ZelRtlJumpSType table{};
  table.zelFeatureLevel = ZelRtlSlotCount;
  table.zelCompatiblityLevel = 1;
#define ZEL_TYPED_ENTRY(name, result, arguments) table.name = slots::name;
#define ZEL_UNTYPED_ENTRY(name) table.name = untyped(refuse##name);
  ZEL_RTL_SLOTS(ZEL_TYPED_ENTRY, ZEL_UNTYPED_ENTRY)
#undef ZEL_TYPED_ENTRY
#undef ZEL_UNTYPED_ENTRY
  table.ZelCommit = untyped(slots::ZelCommit);
  table.ZelAbort = untyped(slots::ZelAbort);
  table.ZelSoftBreak = untyped(slots::ZelSoftBreak);
  table.ZelHardBreak = untyped(slots::ZelHardBreak);
  table.ZelReleaseAllOops = untyped(slots::ZelReleaseAllOops);
  table.ZelFeatureLevel = untyped(slots::ZelFeatureLevel);
  table.ZelCompatiblityLevel = untyped(slots::ZelCompatiblityLevel);
  return table;
}

}  // namespace

}  // namespace zel

const ZelRtlJumpSType* ZelGetRtlTable() {
  static const ZelRtlJumpSType table = zel::makeTable();
  return &table;
}
