#include "internal.h"

#include <cstdio>

#include <povzel/hostdebug.h>

void utlGuaranteeFailed(const char* module, int line) {
  char text[1024];
  std::snprintf(text, sizeof text, "UTL_GUARANTEE failure in file %s at line %d", module, line);
  HostCallDebuggerMsg(text);
}
