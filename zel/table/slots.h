// The table's functions that libpovzel30 calls, under their own names.
//
// Each reports errors the same way: it leaves a pending error that ZelErr delivers once and answers
// 0, false or NoOop. Selecting a session begins a new request and drops an error that nobody read.
// Indexes count from 1. How long the oops that a function answers stay alive is told in
// objmem/clients.h; oops read out of an object live as long as that object holds them.
#pragma once

#include <povzel/zeltable.h>

namespace zel::slots {

#define ZEL_DECLARE_TYPED(name, result, arguments) result name arguments;
#define ZEL_DECLARE_UNTYPED(name)
ZEL_RTL_SLOTS(ZEL_DECLARE_TYPED, ZEL_DECLARE_UNTYPED)
#undef ZEL_DECLARE_TYPED
#undef ZEL_DECLARE_UNTYPED

// Further functions whose use is plain: true on success; ZelAbort answers nothing. The breaks may
// be called from any thread, and answer whether they found a program that runs.
BoolType ZelCommit();
void ZelAbort();
BoolType ZelSoftBreak();
BoolType ZelHardBreak();
void ZelReleaseAllOops();
int ZelFeatureLevel();
int ZelCompatiblityLevel();

}  // namespace zel::slots
