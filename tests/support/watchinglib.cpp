// An interface library in front of the embedded one, which POVZEL_REAL names. It writes the calls
// that change or fetch something to the file POVZEL_WATCH, a line each: the slot's name, and what
// is performed. A file beside it with .fail at its end holds "SLOT NUMBER": instead of the next
// call of the slot it leaves that error.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <povzel/zeltable.h>

namespace {

const ZelRtlJumpSType* real;
ZelErrSType error{231169, 10, 0, "", {}, 0, 0};
bool pending = false;

bool fails(const char* slot, const std::string& what = "") {
  const std::string file = std::getenv("POVZEL_WATCH");
  std::ofstream(file, std::ios::app) << slot << what << '\n';
  std::string failing;
  if (!(std::ifstream(file + ".fail") >> failing >> error.number) || failing != slot) return false;
  unlink((file + ".fail").c_str());
  std::snprintf(error.message, sizeof error.message, "%s was told to fail", slot);
  return pending = true;
}

OopType executeStr(const char* source, OopType symbolList) {
  return fails("ExecuteStr") ? 1 : real->ZelExecuteStr(source, symbolList);
}
OopType perform(OopType receiver, const char* selector, const OopType* args, ArraySizeType count) {
  return fails("Perform", std::string(" ") + selector)
             ? 1
             : real->ZelPerform(receiver, selector, args, count);
}
long fetchBytes(OopType oop, long start, ByteType* bytes, ArraySizeType count) {
  return fails("FetchBytes") ? 0 : real->ZelFetchBytes(oop, start, bytes, count);
}
BoolType commit() {
  return fails("Commit") ? 0 : reinterpret_cast<BoolType (*)()>(real->ZelCommit)();
}
void abortNow() {
  if (!fails("Abort")) reinterpret_cast<void (*)()>(real->ZelAbort)();
}
BoolType takeError(ZelErrSType* taken) {
  if (!pending) return real->ZelErr(taken);
  *taken = error;
  pending = false;
  return 1;
}

}  // namespace

extern "C" POVZEL_EXPORT const ZelRtlJumpSType* ZelGetRtlTable() {
  static ZelRtlJumpSType table;
  void* library = dlopen(std::getenv("POVZEL_REAL"), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return nullptr;
  real = reinterpret_cast<const ZelRtlJumpSType* (*)()>(dlsym(library, "ZelGetRtlTable"))();
  table = *real;
  table.ZelExecuteStr = executeStr;
  table.ZelPerform = perform;
  table.ZelFetchBytes = fetchBytes;
  table.ZelErr = takeError;
  table.ZelCommit = reinterpret_cast<ZelUntypedFType>(commit);
  table.ZelAbort = reinterpret_cast<ZelUntypedFType>(abortNow);
  return &table;
}
