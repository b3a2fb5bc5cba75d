// tvinfo: what this installation is and what is in force, and what of it cannot work and why. The
// first thing to run when something is wrong. It needs the C library alone.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <povzel/errmsg.h>
#include <povzel/errutl.h>
#include <povzel/hostfname.h>
#include <povzel/hostinit.h>
#include <povzel/unixerr.h>
#include <povzel/utlexe.h>
#include <povzel/utlheap.h>
#include <povzel/utlinstall.h>
#include <povzel/vermsg.h>
#include <povzel/version.h>
#include <povzel/zelrtl.h>
#include "basics/internal.h"
#include "hostunix/internal.h"
#include "loader/internal.h"
#include "messages/internal.h"

namespace {

constexpr int faultStatus = 1;
constexpr int usageStatus = 2;

constexpr char usage[] =
    "usage: tvinfo                    what is installed and in force; status 1 if it cannot work\n"
    "       tvinfo --symbol NAME      the message text of a symbol\n"
    "       tvinfo --errno NUMBER     the text of an operating-system error\n"
    "       tvinfo --version | --help";

// Whether something that is set, or that every program needs, cannot work.
bool isBroken = false;

// The installation that is looked at: TARVOLIN, else the one that this program lies in; null for
// none.
const char* tree = nullptr;
bool isTreeSet = false;  // by TARVOLIN

bool isUnwritten = false;  // output of a process apart

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

// A file name or a text about one.
using Text = char[PATH_MAX + 256];

[[gnu::format(printf, 1, 2)]] void notUsable(const char* format, ...) {
  Text why;
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(why, sizeof why, format, arguments);
  va_end(arguments);
  item("not usable", why);
  isBroken = true;
}

const char* valueOf(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && value[0] != '\0' ? value : nullptr;
}

// The mode of a file of any inode number and date; 0 if it is not there.
unsigned modeOf(const char* name) {
  struct statx status;
  return unixIoStatx(name, STATX_TYPE, status) ? status.stx_mode : 0;
}

void showVariable(const char* name, const char* whenUnset) {
  const char* value = valueOf(name);
  item(name, value != nullptr ? value : whenUnset);
}

// What a process apart tells of its look.
struct Report {
  bool isDone, isBroken, isWritten;
};

[[noreturn]] void lookAndReport(void (*look)(), volatile Report* report) {
  isBroken = false;
  setlinebuf(stdout);
  look();
  report->isBroken = isBroken;
  report->isWritten = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
  report->isDone = true;
  _exit(0);
}

// Makes a look at foreign code in a process of its own: it may end that process, and what was seen
// until then is shown.
void apart(void (*look)()) {
  std::fflush(stdout);
  std::signal(SIGCHLD, SIG_DFL);  // ignored, it would leave no status
  void* shared =
      mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  const pid_t child = shared != MAP_FAILED ? fork() : -1;
  if (child < 0) return look();
  auto* const report = static_cast<volatile Report*>(shared);
  if (child == 0) lookAndReport(look, report);
  int status = 0;
  waitpid(child, &status, 0);
  if (report->isDone) {
    if (report->isBroken) isBroken = true;
    if (!report->isWritten) isUnwritten = true;
  } else if (WIFSIGNALED(status)) {
    notUsable("it ended the program that opened it, by signal %d", WTERMSIG(status));
  } else {
    notUsable("it ended the program that opened it, with status %d", WEXITSTATUS(status));
  }
  munmap(shared, sizeof(Report));
}

// Ends with `status`, or with a fault if not all of the output was written.
int finish(int status) {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0 && !isUnwritten) return status;
  std::fputs(
      "tvinfo: the output could not be written\n"
      "See that standard output is open and has room.\n",
      stderr);
  return faultStatus;
}

// Messages

HostFnameStrType messageFile;

// Whether the message file in force is one, by its first bytes; otherwise `fault` says why not.
bool findMessages(LibFileFaultType& fault) {
  errUtlFindFile(nullptr, messageFile);
  LibFileStart start;
  if (!libFileRead(messageFile, start, fault)) return false;
  if (start.size >= sizeof(ErrUtlHdrSType) && std::memcmp(start.bytes, ErrUtlGetMagic(), 4) == 0) {
    return true;
  }
  std::snprintf(fault, sizeof fault, "%s",
                start.isText() ? "is a text, not compiled by msgc" : "is no message file");
  return false;
}

// Whether the entry at `place` of the message file in force is whole, and a look-up finds its
// symbol.
bool isEntryWhole(const ErrUtlBytes& file, std::uint32_t place) {
  ErrUtlEntrySType entry;
  BoolType syntaxErr = 0;
  if (!errUtlEntryAt(file, place, &entry, &syntaxErr) || syntaxErr != 0) return false;
  char* const text = ErrMsgGetString(entry.sym);
  if (text != nullptr) UtlFree(text);
  return text != nullptr;
}

// Whether the whole of the open message file can be read; otherwise `fault` says what cannot.
bool areMessagesWhole(LibFileFaultType& fault) {
  const ErrUtlBytes file = errUtlContents();
  for (std::uint32_t i = 0; i < ErrUtlFileHdr.tabSize; ++i) {
    ErrUtlHashSType slot;
    if (!errUtlSlotAt(file, ErrUtlFileHdr, i, slot)) {
      std::snprintf(fault, sizeof fault, "is damaged: it ends within its table");
      return false;
    }
    if (slot.valLoc == 0 || isEntryWhole(file, slot.valLoc)) continue;
    std::snprintf(fault, sizeof fault, "is damaged: there is no whole entry at byte %u",
                  slot.valLoc);
    return false;
  }
  return true;
}

// Standard error leads nowhere while this lives: the library says at length what is wrong with a
// message file.
class Quiet {
 public:
  Quiet() : standardError_(dup(STDERR_FILENO)) {
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, STDERR_FILENO);
    if (nowhere != STDERR_FILENO) close(nowhere);
  }
  ~Quiet() {
    std::fflush(stderr);
    if (standardError_ < 0) {
      close(STDERR_FILENO);
      return;
    }
    dup2(standardError_, STDERR_FILENO);
    close(standardError_);
  }
  Quiet(const Quiet&) = delete;
  Quiet& operator=(const Quiet&) = delete;

 private:
  int standardError_;
};

// Starts the host layer without a message file: opening what is none might wait for a writer.
void startWithoutMessages() {
  constexpr char variable[] = "TARVOLIN_LANG";
  const char* value = std::getenv(variable);
  char* kept = value != nullptr ? strdup(value) : nullptr;
  setenv(variable, "/dev/null", 1);
  HostInit();
  if (kept != nullptr) {
    setenv(variable, kept, 1);
  } else {
    unsetenv(variable);
  }
  std::free(kept);
}

// Starts the host layer. Returns whether the message file in force can be used; otherwise `fault`
// says why not.
bool start(LibFileFaultType& fault) {
  const Quiet quiet;
  if (!findMessages(fault)) {
    startWithoutMessages();
    return false;
  }
  HostInit();
  if (!ErrMsgGetPanicked()) return areMessagesWhole(fault);
  std::snprintf(fault, sizeof fault, "has a damaged header");
  return false;
}

// Places

// Looks at the folder above this program's own when TARVOLIN is not set, even if that is no whole
// installation.
void chooseTree() {
  tree = valueOf("TARVOLIN");
  isTreeSet = tree != nullptr;
  if (isTreeSet) return;
  tree = utlOwnPlace();
  if (tree != nullptr && utlOwnTree() == nullptr) setenv("TARVOLIN", tree, 1);
}

// The dynamic loader replaces these words in a library's name.
bool holdsLoaderWord(const char* path) {
  while ((path = std::strchr(path, '$')) != nullptr) {
    ++path;
    const char* name = *path == '{' ? path + 1 : path;
    for (const char* word : {"ORIGIN", "LIB", "PLATFORM"}) {
      const std::size_t length = std::strlen(word);
      if (std::strncmp(name, word, length) != 0) continue;
      if (std::isalnum(static_cast<unsigned char>(name[length])) == 0 && name[length] != '_') {
        return true;
      }
    }
  }
  return false;
}

// What in the path of an installation keeps it from being used, to be read behind the path; null
// for nothing. The shell takes its own installation's path to Java and to the library.
const char* pathFault(const char* path, bool isOwn) {
  constexpr std::size_t longestPath = 1007;  // with "/lib/libzelrpc67" the library takes 1023
  if (std::strchr(path, ';') != nullptr) return "holds a ';', which ends a path for the library";
  if (holdsLoaderWord(path)) {
    return "holds $ORIGIN, $LIB or $PLATFORM, which the dynamic loader replaces";
  }
  if (!isOwn) return nullptr;
  if (std::strchr(path, ':') != nullptr) return "holds a ':', which ends a path for Java";
  if (std::strlen(path) > longestPath) return "is too long a path: move it to a shorter one";
  return nullptr;
}

void showTree() {
  item("TARVOLIN", isTreeSet ? tree : "(not set)");
  if (!isTreeSet) {
    item("Installation", tree != nullptr ? tree : "(none: set TARVOLIN to the folder of one)");
  }
  if (tree == nullptr) return;
  const unsigned mode = modeOf(tree);
  if (mode == 0) return notUsable("%s is not there", tree);
  if (!S_ISDIR(mode)) return notUsable("%s is not a directory", tree);
  const char* fault = pathFault(tree, !isTreeSet);
  if (fault != nullptr) notUsable("%s %s", tree, fault);
}

void showLocations(const char* messageFault) {
  std::puts("\nLocations");
  showTree();
  showVariable("TARVOLIN_LANG", "(not set: $TARVOLIN/sys/english67.err)");
  item("Message file", messageFile);
  if (messageFault == nullptr) {
    item("", "in use");
  } else {
    notUsable("it %s: messages show as [symbol arguments]", messageFault);
  }
  item("Global directory", UtlGetGlobalTarvolinDir());
  item("Lock directory", UtlGetFifoDir());
}

// Interface libraries

bool isOpened;  // one of those that were tried

void showAttempt(const char* name, const char* failure) {
  Text file;
  std::snprintf(file, sizeof file, "%s%s", name, dynLibLacksSuffix(name) ? ".so" : "");
  if (failure == nullptr) {
    isOpened = true;
    item("found", file);
    return;
  }
  constexpr char beforeReason[] = " failed because ";
  const char* reason = std::strstr(failure, beforeReason);
  reason = reason != nullptr ? reason + sizeof beforeReason - 1 : failure;
  LibFileFaultType fault;
  if (std::strchr(file, '/') == nullptr) {
    // The loader's own search: it has no more to say than that there is none.
    const bool isAbsent = std::strstr(reason, "No such file") != nullptr &&
                          std::strncmp(reason, file, std::strlen(file)) == 0;
    if (isAbsent) {
      item("not there", file);
    } else {
      notUsable("%s", reason);
    }
  } else if (libFileIsFit(file, "library", fault)) {
    notUsable("%s", reason);
  } else if (std::strcmp(fault, "is not there") == 0) {
    item("not there", file);
  } else {
    notUsable("%s %s", file, fault);
  }
}

// The limits are those of the bridge, which compares versions as texts.
void showProduct() {
  const unsigned product = rtlPrivZelRtlFuncs->ZelProduct();
  const char* version = rtlPrivZelRtlFuncs->ZelVersion();
  if (version == nullptr) version = "";
  item("version", version);
  if (product != 1) notUsable("it is of product %u, not 1", product);
  if (std::strcmp(version, "6.3") < 0 || std::strcmp(version, "9.9.999") > 0) {
    notUsable("its version is not between 6.3 and 9.9.999");
  }
}

void showInterfaceLibrary(BoolType useRpc) {
  zelRtlObserveAttempt = showAttempt;
  dynLibBinding = RTLD_NOW;
  isOpened = false;
  char why[1024];
  if (ZelRtlLoad(useRpc, nullptr, why, sizeof why)) {
    showProduct();
  } else if (isOpened && std::strncmp(why, "dlsym(", 6) == 0) {
    notUsable("it is not an interface library: it has no ZelGetRtlTable");
  } else if (isOpened || std::strncmp(why, "dlopen(", 7) != 0) {
    why[std::strcspn(why, "\n")] = '\0';
    notUsable("%s", why);
  } else if (useRpc && !isBroken) {
    notUsable("there is none at these places");
  }
}

// Libraries

// Finds the library of TARVOLIN or, where that has none, of this program's installation. Returns
// whether it can be opened; otherwise `fault` says why not.
bool findLibrary(Text& file, LibFileFaultType& fault) {
  for (const char* place : {static_cast<const char*>(tree), utlOwnPlace()}) {
    if (place == nullptr) continue;
    std::snprintf(file, sizeof file, "%s/lib/libpovzel30.so", place);
    if (libFileIsFit(file, "library", fault)) return true;
    if (std::strcmp(fault, "is not there") != 0) return false;
  }
  return false;
}

void showLibrary() {
  Text file = "(no installation)";
  LibFileFaultType fault = "is not there";
  const bool isFit = findLibrary(file, fault);
  item("libpovzel30", file);
  if (!isFit) return notUsable("it %s", fault);
  void* library = dlopen(file, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return notUsable("%s", dlerror());
  for (const char* name :
       {"VerLibraryVersion", "Java_com_tarvolin_povzel_PovZelInterface__1initialize"}) {
    if (dlsym(library, name) == nullptr) return notUsable("it has no %s", name);
  }
  const auto version = reinterpret_cast<const char* (*)()>(dlsym(library, "VerLibraryVersion"));
  if (std::strcmp(version(), VerLibraryVersion()) == 0) return item("", version());
  notUsable("its version is %s, this program's %s", version(), VerLibraryVersion());
}

// Programs in C do without it.
void showJar() {
  if (tree == nullptr) return;
  Text file;
  std::snprintf(file, sizeof file, "%s/java/povzel.jar", tree);
  LibFileStart start;
  LibFileFaultType fault;
  if (libFileRead(file, start, fault)) return item("povzel.jar", file);
  if (std::strcmp(fault, "is not there") == 0) return item("not there", file);
  notUsable("%s %s", file, fault);
}

void showCrypt() {
  HostCryptTextType said;
  const bool isThere = hostFindCrypt(said).hash != nullptr;
  item("libcrypt", said);
  if (!isThere) item("", "passwords cannot be checked (Debian's package libcrypt1:i386)");
}

void showCompilerRuntime() {
  constexpr char name[] = "libgcc_s.so.1";
  const bool isThere = dlopen(name, RTLD_LAZY | RTLD_LOCAL) != nullptr;
  item(name, isThere ? "found" : dlerror());
  if (!isThere) item("", "the embedded database needs it (Debian's package libgcc-s1:i386)");
}

// JVM

// The version in a JVM's release file, which lies beside bin/ or, where there is a jre/ between
// them, one up; 0 if that cannot be told.
int javaVersion(const char* program) {
  char home[PATH_MAX];
  if (realpath(program, home) == nullptr) return 0;
  FILE* release = nullptr;
  for (int up = 1; up <= 3 && release == nullptr; ++up) {
    char* slash = std::strrchr(home, '/');
    if (slash == nullptr) return 0;
    *slash = '\0';
    Text name;
    std::snprintf(name, sizeof name, "%s/release", home);
    if (up > 1) release = std::fopen(name, "re");
  }
  if (release == nullptr) return 0;
  constexpr char key[] = "JAVA_VERSION=\"";
  long version = 0;
  for (char line[256]; std::fgets(line, sizeof line, release) != nullptr;) {
    if (std::strncmp(line, key, sizeof key - 1) != 0) continue;
    const char* number = line + sizeof key - 1;
    if (std::strncmp(number, "1.", 2) == 0) number += 2;
    version = std::strtol(number, nullptr, 10);
  }
  std::fclose(release);
  return static_cast<int>(version);
}

// Whether the java program can start, which needs a library in the folder above its own.
bool isLauncher(const char* program, LibFileFaultType& fault) {
  char folder[PATH_MAX];
  if (realpath(program, folder) == nullptr) return true;
  for (int up = 0; up < 2; ++up) {
    char* slash = std::strrchr(folder, '/');
    if (slash != nullptr) *slash = '\0';
  }
  Text library;
  LibFileFaultType why;
  std::snprintf(library, sizeof library, "%s/lib/libjli.so", folder);
  if (libFileIsFit(library, "library", why)) return true;
  std::snprintf(fault, sizeof fault, "is no JVM: its lib/libjli.so %s", why);
  return false;
}

// Whether the shell can run in the JVM at `place`, the java program or its folder.
bool isJvm(const char* place, LibFileFaultType& fault) {
  constexpr int oldestVersion = 17;
  Text program;
  std::snprintf(program, sizeof program, "%s%s", place, S_ISDIR(modeOf(place)) ? "/bin/java" : "");
  if (!libFileIsFit(program, "program", fault)) return false;
  if (access(program, X_OK) != 0) {
    std::snprintf(fault, sizeof fault, "is not executable");
    return false;
  }
  const int version = javaVersion(program);
  if (version == 0 || version >= oldestVersion) return isLauncher(program, fault);
  std::snprintf(fault, sizeof fault, "is Java %d: the shell needs %d or later", version,
                oldestVersion);
  return false;
}

// The places that the shell looks at, in its order. One that is set counts alone.
void showJvm() {
  std::puts("\nJVM");
  LibFileFaultType fault;
  if (const char* set = valueOf("JAVA32")) {
    item("JAVA32", set);
    if (!isJvm(set, fault)) notUsable("it %s", fault);
    return;
  }
  Text beside = "";
  if (utlOwnPlace() != nullptr) std::snprintf(beside, sizeof beside, "%s/jre", utlOwnPlace());
  char onPath[PATH_MAX] = "";
  if (const char* path = valueOf("PATH")) {
    UtlSearchPath(path, "java", nullptr, onPath, sizeof onPath, nullptr);
  }
  const char* home = valueOf("JAVA_HOME");
  for (const char* place : {static_cast<const char*>(beside), home != nullptr ? home : "",
                            static_cast<const char*>(onPath)}) {
    // A link that leads nowhere is told of.
    if (faccessat(AT_FDCWD, place, F_OK, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if (isJvm(place, fault)) return item("found", place);
    Text refused;
    std::snprintf(refused, sizeof refused, "%s %s", place, fault);
    item("passed over", refused);
  }
  item("not there", "no 32-bit Java 17 or later (Debian's package openjdk-17-jre-headless:i386)");
}

// Modes

int showSymbol(const char* symbol) {
  char* text = ErrMsgGetString(symbol);
  if (text == nullptr) {
    std::fprintf(stderr,
                 "tvinfo: the message file has no symbol '%s'\n"
                 "List them: msgc --dump '%s'\n",
                 symbol, messageFile);
    return faultStatus;
  }
  std::puts(text);
  UtlFree(text);
  return 0;
}

int showErrno(const char* argument) {
  char* end = nullptr;
  const long long number = std::strtoll(argument, &end, 10);
  if (end == argument || *end != '\0' || number < INT_MIN || number > INT_MAX) {
    std::fprintf(stderr, "tvinfo: '%s' is no error number\nGive the value of errno, such as 13.\n",
                 argument);
    return usageStatus;
  }
  ErrMsgStrType text;
  UnixErr(static_cast<int>(number), text, sizeof text);
  std::puts(text);
  return 0;
}

int showAll(const char* messageFault) {
  if (messageFault == nullptr) {
    VerBanner(stdout, "tvinfo", "tvinfo.desc", nullptr, 0);
    VerEndEdge(stdout);
  } else {
    std::printf("tvinfo %s\n", VerLibraryVersion());
  }
  showParameters();
  showLocations(messageFault);
  std::puts("");
  showVariable("ZELRTL_BASELIBNAME", "(not set: zel)");
  showVariable("ZELRTL_VERSION", "(not set: 67)");
  std::puts("\nInterface library, remote (rpc)");
  apart([] { showInterfaceLibrary(1); });
  std::puts("\nInterface library, linked (lnk)");
  apart([] { showInterfaceLibrary(0); });
  std::puts("\nLibraries");
  apart(showLibrary);
  showJar();
  apart(showCrypt);
  apart(showCompilerRuntime);
  showJvm();
  if (!isBroken) return 0;
  std::fflush(stdout);
  std::fputs("tvinfo: not all can work: see what is \"not usable\" above\n", stderr);
  return faultStatus;
}

int run(const char* mode, const char* argument) {
  chooseTree();
  LibFileFaultType fault;
  const bool hasMessages = start(fault);
  if (mode == nullptr) return showAll(hasMessages ? nullptr : fault);
  if (hasMessages) {
    return std::strcmp(mode, "--symbol") == 0 ? showSymbol(argument) : showErrno(argument);
  }
  std::fprintf(stderr,
               "tvinfo: the message file %s %s\n"
               "Set TARVOLIN_LANG to a compiled message file, or TARVOLIN to an installation.\n",
               messageFile, fault);
  return faultStatus;
}

int show(const char* text) {
  std::puts(text);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 1) return finish(run(nullptr, nullptr));
  const char* mode = argv[1];
  if (argc == 2 && std::strcmp(mode, "--help") == 0) return finish(show(usage));
  if (argc == 2 && std::strcmp(mode, "--version") == 0) return finish(show(VerLibraryVersion()));
  if (argc == 3 && (std::strcmp(mode, "--symbol") == 0 || std::strcmp(mode, "--errno") == 0)) {
    return finish(run(mode, argv[2]));
  }
  std::fprintf(stderr, "tvinfo: cannot make sense of '%s'\nSee tvinfo --help.\n", mode);
  return usageStatus;
}
