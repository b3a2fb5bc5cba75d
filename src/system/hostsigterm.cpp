// Signal-safe throughout: calls the atomic primitives and nothing else.
#include <povzel/hostsigterm.h>

#include <povzel/atomics.h>

namespace {

int sigTermCount = 0;

}  // namespace

void HostIncrementSigTerm() {
  HostAsmSyncCtrAdd(&sigTermCount, 1);
}

int HostGetSigTerm_() {
  return HostAsmSyncCtrAdd(&sigTermCount, 0);
}

int HostGetSigTerm(const char* /*file*/, int /*line*/) {
  return HostGetSigTerm_();
}

int HostClearSigTerm() {
  return HostAsmSyncAnd(&sigTermCount, 0);
}
