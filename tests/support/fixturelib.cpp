// An interface library reduced to what the loader looks at. FIXTURE_NAME, FIXTURE_FEATURE,
// FIXTURE_COMPATIBILITY and FIXTURE_ENTRY (the entry point's name) make the variants.
#include <povzel/zeltable.h>

extern "C" void fixtureEvent(const char* event);

namespace {

#ifdef FIXTURE_FEATURE
ZelRtlJumpSType makeTable() {
  ZelRtlJumpSType made{};
  made.zelFeatureLevel = FIXTURE_FEATURE;
  made.zelCompatiblityLevel = FIXTURE_COMPATIBILITY;
  made.ZelShutdown = [] { fixtureEvent("ZelShutdown"); };
  made.ZelUnload = [] { fixtureEvent("ZelUnload"); };
  return made;
}

const ZelRtlJumpSType table = makeTable();
const ZelRtlJumpSType* const handedOut = &table;
#else
const ZelRtlJumpSType* const handedOut = nullptr;
#endif

__attribute__((constructor)) void opened() {
  fixtureEvent("opened " FIXTURE_NAME);
}

__attribute__((destructor)) void closed() {
  fixtureEvent("closed " FIXTURE_NAME);
}

}  // namespace

extern "C" POVZEL_EXPORT const ZelRtlJumpSType* FIXTURE_ENTRY() {
  return handedOut;
}

// A symbol that is there and whose value is null.
asm(".globl FixtureNull\n.set FixtureNull, 0\n");
