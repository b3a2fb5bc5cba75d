// An interface library whose table is the test program's.
#include <povzel/zeltable.h>

extern "C" {

const ZelRtlJumpSType* fixtureTable();

POVZEL_EXPORT const ZelRtlJumpSType* ZelGetRtlTable() {
  return fixtureTable();
}

}  // extern "C"

// A symbol that is there and whose value is null.
asm(".globl FixtureNull\n.set FixtureNull, 0\n");
