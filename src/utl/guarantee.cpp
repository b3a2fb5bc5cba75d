#include "utl/guarantee.h"

#include <cstdio>

#include "hostunix/hostdebug.h"

void utlGuaranteeFailed(const char* module, int line) {
  char text[1024];
  std::snprintf(text, sizeof text, "UTL_GUARANTEE failure in file %s at line %d", module, line);
  HostCallDebuggerMsg(text);
}
