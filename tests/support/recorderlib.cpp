// The interface library file whose table is the test program's.
#include <povzel/zeltable.h>

extern "C" {

const ZelRtlJumpSType* recorderTable();

POVZEL_EXPORT const ZelRtlJumpSType* ZelGetRtlTable() {
  return recorderTable();
}

}  // extern "C"
