#include "store/libpq.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace zel {

namespace {

constexpr const char* fileName = "libpq.so.5";
constexpr int leastVersion = 140000;  // the first with pipelines

[[noreturn]] void refuse(const std::string& why) {
  throw Failure(ErrLoginDenied, "no PostgreSQL server can be reached: " + why +
                                    " (install libpq 14 or later for 32-bit programs, Debian's "
                                    "package libpq5:i386)");
}

template <typename FType>
void find(void* library, const char* name, FType& function) {
  function = reinterpret_cast<FType>(::dlsym(library, name));
  if (function == nullptr) refuse(std::string("libpq has no ") + name);
}

}  // namespace

void LibPq::open() {
  // Never unloaded: what it loads leaves functions behind that are called at the end of threads.
  constexpr int flags = RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE;
  const char* named = std::getenv("POVZEL_LIBPQ");
  if (named != nullptr && *named != '\0') {
    library_ = ::dlopen(named, flags);
    return;
  }
  const char* tree = std::getenv("TARVOLIN");
  const std::string inTree = tree != nullptr ? std::string(tree) + "/lib/" + fileName : "";
  const bool isInTree = !inTree.empty() && ::access(inTree.c_str(), F_OK) == 0;
  library_ = ::dlopen(isInTree ? inTree.c_str() : fileName, flags);
}

LibPq::LibPq() {
  open();
  if (library_ == nullptr) {
    const char* said = ::dlerror();
    refuse(said != nullptr ? said : "libpq cannot be loaded");
  }
  try {
    find(library_, "PQlibVersion", libVersion);
    if (libVersion() < leastVersion) {
      refuse("libpq has the version " + std::to_string(libVersion() / 10000));
    }
    find(library_, "PQconninfoParse", conninfoParse);
    find(library_, "PQconninfoFree", conninfoFree);
    find(library_, "PQconnectStartParams", connectStartParams);
    find(library_, "PQconnectPoll", connectPoll);
    find(library_, "PQstatus", status);
    find(library_, "PQsocket", socket);
    find(library_, "PQerrorMessage", errorMessage);
    find(library_, "PQserverVersion", serverVersion);
    find(library_, "PQtransactionStatus", transactionStatus);
    find(library_, "PQfinish", finish);
    find(library_, "PQsetNoticeReceiver", setNoticeReceiver);
    find(library_, "PQescapeIdentifier", escapeIdentifier);
    find(library_, "PQfreemem", freemem);
    find(library_, "PQsetnonblocking", setnonblocking);
    find(library_, "PQenterPipelineMode", enterPipelineMode);
    find(library_, "PQpipelineSync", pipelineSync);
    find(library_, "PQsendPrepare", sendPrepare);
    find(library_, "PQsendQueryPrepared", sendQueryPrepared);
    find(library_, "PQflush", flush);
    find(library_, "PQconsumeInput", consumeInput);
    find(library_, "PQisBusy", isBusy);
    find(library_, "PQgetResult", getResult);
    find(library_, "PQresultStatus", resultStatus);
    find(library_, "PQresultErrorField", resultErrorField);
    find(library_, "PQntuples", ntuples);
    find(library_, "PQgetvalue", getvalue);
    find(library_, "PQgetlength", getlength);
    find(library_, "PQgetisnull", getisnull);
    find(library_, "PQclear", clear);
  } catch (...) {
    ::dlclose(library_);
    throw;
  }
}

LibPq::~LibPq() {
  ::dlclose(library_);
}

}  // namespace zel
