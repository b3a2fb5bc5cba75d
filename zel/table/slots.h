// The table's functions that libpovzel30 calls, under their own names.
//
// Each reports errors the same way: it leaves a pending error that ZelErr delivers once and answers
// 0, false or NoOop. Selecting a session begins a new request and drops an error that nobody read.
// Indexes count from 1. How long the oops that a function answers stay alive is told in
// objmem/clients.h; oops read out of an object live as long as that object holds them. Callers may
// align the stack to 4 bytes only.
#pragma once

#include <povzel/zeltable.h>

namespace zel::slots {

// What the table's functions are besides.
#define ZEL_SLOT __attribute__((force_align_arg_pointer))

#define ZEL_DECLARE_TYPED(name, result, arguments) ZEL_SLOT result name arguments;
#define ZEL_DECLARE_UNTYPED(name)
ZEL_RTL_SLOTS(ZEL_DECLARE_TYPED, ZEL_DECLARE_UNTYPED)
#undef ZEL_DECLARE_TYPED
#undef ZEL_DECLARE_UNTYPED

// Further functions whose use is plain: true on success; ZelAbort answers nothing. The breaks may
// be called from any thread, and answer whether they found a program that runs.
ZEL_SLOT BoolType ZelCommit();
ZEL_SLOT void ZelAbort();
ZEL_SLOT BoolType ZelSoftBreak();
ZEL_SLOT BoolType ZelHardBreak();
ZEL_SLOT void ZelReleaseAllOops();
ZEL_SLOT int ZelFeatureLevel();
ZEL_SLOT int ZelCompatiblityLevel();

}  // namespace zel::slots
