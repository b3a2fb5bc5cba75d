// tvinfo: what this installation is and what is in force. The first thing to run when something is
// wrong.
//
//   tvinfo                    banner, version block, parameters, locations, interface libraries
//   tvinfo --symbol NAME      the message text of a symbol
//   tvinfo --errno NUMBER     the text of an operating-system error

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <povzel/errmsg.h>
#include <povzel/errutl.h>
#include <povzel/hostfname.h>
#include <povzel/hostinit.h>
#include <povzel/unixerr.h>
#include <povzel/utlheap.h>
#include <povzel/utlinstall.h>
#include <povzel/vermsg.h>
#include <povzel/version.h>
#include <povzel/zelrtl.h>
#include "loader/internal.h"

namespace {

constexpr int usageStatus = 2;

struct Parameter {
  VerParamEType id;
  const char* name;
};
constexpr Parameter parameters[] = {
    {VER_INFO_CPU_KIND, "CPU kind"},
    {VER_INFO_CPU_ARCH, "CPU architecture"},
    {VER_INFO_TV_BUILD_ARCH, "Built for"},
    {VER_INFO_TV_BUILD_DATE, "Build date"},
    {VER_INFO_TV_IMAGE_KIND, "Image kind"},
    {VER_INFO_TV_RELEASE, "Release"},
    {VER_INFO_TV_VERSION, "Version"},
    {VER_INFO_NODE_NAME, "Host"},
    {VER_INFO_OS_NAME, "System"},
    {VER_INFO_OS_RELEASE, "System release"},
    {VER_INFO_OS_VERSION, "System version"},
    {VER_INFO_PROCESS_ID, "Process"},
    {VER_INFO_PROCESSOR_COUNT, "Processors"},
};

void item(const char* name, const char* value) {
  std::printf("  %-18s %s\n", name, value);
}

void showParameters() {
  std::puts("\nParameters");
  for (const Parameter& parameter : parameters) {
    VerParamResultSType result;
    char number[16];
    const char* value = "(not supported on this platform)";
    if (VerGetVersionParam(parameter.id, &result)) {
      std::snprintf(number, sizeof number, "%d", result.intVal);
      value = result.kind == VER_INT_KIND ? number : result.stringVal;
    }
    item(parameter.name, value);
  }
}

void showVariable(const char* name, const char* whenUnset) {
  const char* value = std::getenv(name);
  item(name, value != nullptr && value[0] != '\0' ? value : whenUnset);
}

void showLocations() {
  std::puts("\nLocations");
  showVariable("TARVOLIN", "(not set: point it at the installation directory)");
  showVariable("TARVOLIN_LANG", "(not set: $TARVOLIN/sys/english67.err)");
  item("Message file", ErrUtlErrFileName);
  item("", ErrMsgGetPanicked() ? "not usable: messages show as [symbol arguments]" : "in use");
  item("Global directory", UtlGetGlobalTarvolinDir());
  item("Lock directory", UtlGetFifoDir());
}

void showAttempt(const char* name, const char* failure) {
  item(failure == nullptr ? "found" : "not found", failure == nullptr ? name : failure);
}

void showInterfaceLibrary(BoolType useRpc) {
  std::printf("\nInterface library, %s\n", useRpc ? "remote (rpc)" : "linked (lnk)");
  zelRtlObserveAttempt = showAttempt;
  char why[1024];
  if (!ZelRtlLoad(useRpc, nullptr, why, sizeof why)) {
    item("not usable", why);
    return;
  }
  item("version", rtlPrivZelRtlFuncs->ZelVersion());
  ZelRtlUnload();
}

int showSymbol(const char* symbol) {
  char* text = ErrMsgGetString(symbol);
  if (text == nullptr) {
    std::fprintf(stderr, "tvinfo: the message file has no symbol '%s'\n", symbol);
    return 1;
  }
  std::puts(text);
  UtlFree(text);
  return 0;
}

int showErrno(const char* argument) {
  char* end = nullptr;
  const long number = std::strtol(argument, &end, 10);
  if (end == argument || *end != '\0') {
    std::fprintf(stderr, "tvinfo: '%s' is not a number\n", argument);
    return usageStatus;
  }
  ErrMsgStrType text;
  UnixErr(static_cast<int>(number), text, sizeof text);
  std::puts(text);
  return 0;
}

int showAll() {
  VerBanner(stdout, "tvinfo", "tvinfo.desc", nullptr, 0);
  VerEndEdge(stdout);
  showParameters();
  showLocations();
  std::puts("");
  showVariable("ZELRTL_BASELIBNAME", "(not set: zel)");
  showVariable("ZELRTL_VERSION", "(not set: 67)");
  showInterfaceLibrary(1);
  showInterfaceLibrary(0);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  HostInit();
  if (argc == 1) return showAll();
  if (argc == 3 && std::strcmp(argv[1], "--symbol") == 0) return showSymbol(argv[2]);
  if (argc == 3 && std::strcmp(argv[1], "--errno") == 0) return showErrno(argv[2]);
  std::fputs("usage: tvinfo [--symbol NAME | --errno NUMBER]\n", stderr);
  return usageStatus;
}
