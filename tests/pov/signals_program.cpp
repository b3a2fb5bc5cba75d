// A program that starts the VM and installs the fault handler, in the order that its first argument
// names, and then raises what its second argument names. signals_test.cpp looks at how it ends.
#include <poll.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <thread>

#include <povzel/hostfault.h>
#include <povzel/hostinit.h>
#include <povzel/hostpages.h>
#include <povzel/hostprocess.h>
#include <povzel/hostspawn.h>
#include <povzel/unixio.h>
#include <povzel/utlchecksum.h>
#include "jvm.h"

namespace {

JNIEnv* env = nullptr;
jclass signals = nullptr;

void installFaultHandler() {
  HostInit();
  HostInstallFaultHandler(nullptr, nullptr);
}

// Calls a method of Signals.java, which takes ints and gives one.
template <typename... Ints>
jint callJava(const char* name, Ints... ints) {
  const std::string signature = "(" + std::string(sizeof...(ints), 'I') + ")I";
  jmethodID method = env->GetStaticMethodID(signals, name, signature.c_str());
  const jint result = env->CallStaticIntMethod(signals, method, ints...);
  if (env->ExceptionCheck()) std::_Exit(98);
  return result;
}

jint fault() {
  static volatile std::uintptr_t nowhere = 16;
  *reinterpret_cast<volatile char*>(nowhere) = 1;
  return 0;
}

// Some threads have a signal stack, and some have none.
jint enterThread() {
  static std::atomic<int> threads = 0;
  return threads++ % 2 == 0 || HostUseSignalStack() != 0 ? 1 : 0;
}

// Touches a guarded page and starts a program, and returns whether the one went on and the other
// was reaped.
jint work() {
  auto* page = static_cast<char*>(
      mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  SysErrorSType error;
  const HostProtectHandlerFType letPass = [](char*, char*) -> BoolType { return 1; };
  if (!HostProtectPage(page, letPass, &error)) return 0;
  *const_cast<volatile char*>(page) = 7;
  munmap(page, 4096);
  char why[200];
  PidType pid = 0;
  if (!HostFork("/bin/true", nullptr, 0, why, sizeof why, "", "/dev/null", ".", &pid)) return 0;
  while (kill(pid, 0) == 0) poll(nullptr, 0, 1);
  return 1;
}

jint JNICALL native(JNIEnv*, jclass, jint number) {
  return std::array{fault, enterThread, work}[number]();
}

// Java's own faults, in many threads at once.
void javaFaults() {
  std::printf("caught %d, in handlers %ld\n", callJava("faultsInThreads", 8, 5000, 5),
              segvInProgressCount);
}

// Asks for a thread dump and reads it up to where the threads end. More follows, which is why the
// process ends without looking for the VM's warnings.
void threadDump() {
  int ends[2];
  if (pipe(ends) != 0) std::_Exit(97);
  dup2(ends[1], STDERR_FILENO);
  kill(getpid(), SIGQUIT);
  std::string dump;
  for (char c; !dump.ends_with("JNI global ref") && read(ends[0], &c, 1) == 1;) dump += c;
  if (dump.find("Full thread dump") != std::string::npos) std::puts("thread dump");
  std::fflush(stdout);
  _exit(0);
}

void terminate(int signal) {
  callJava("printAtShutdown");
  kill(getpid(), signal);
  for (;;) pause();
}

void hangUp() {
  struct sigaction action;
  sigaction(SIGHUP, nullptr, &action);
  if (action.sa_handler != SIG_IGN) terminate(SIGHUP);
  std::puts("ignored");
}

// The exit is postponed and made from Java.
void postponedTerminate() {
  static sem_t asked;
  sem_init(&asked, 0, 0);
  callJava("printAtShutdown");
  HostDelaySigExit([] { sem_post(&asked); }, [] {});
  kill(getpid(), SIGTERM);
  while (sem_wait(&asked) != 0) {
  }
  callJava("exit", 143);
}

// The fault handler goes and comes back while Java's faults go on.
void shutDown() {
  for (int round = 0; round < 2; ++round) {
    HostShutDown();
    std::printf("caught %d\n", callJava("faultsInThreads", 2, 500, 5));
    HostInstallFaultHandler(nullptr, nullptr);
  }
  std::printf("caught %d\n", callJava("faultsInThreads", 2, 500, 5));
}

int dive(int depth) {
  volatile char frame[999] = {1};
  return depth == 0 ? 0 : dive(depth - 1) + frame[0];
}

// In a thread that the VM does not know: it looks after the stacks of its own.
void overflowInNative() {
  std::thread([] { return HostUseSignalStack() != 0 ? dive(1 << 30) : 0; }).join();
}

void storm() {
  env->FindClass("java/lang/ProcessImpl");  // which puts SIGCHLD to its default
  UNIXIO_DO_SIGNAL(SIGCHLD, HostFaultHandler, nullptr);
  HostReapOwnChildrenOnly(1);
  const char* seconds = std::getenv("POVZEL_STORM_SECONDS");
  int wrong = callJava("storm", seconds != nullptr ? std::atoi(seconds) : 1);
  wrong += 1 - HostSpawn("grep -q 'SigIgn:.*[67ef]$' /proc/$PPID/status");  // SIGINT and SIGQUIT
  std::printf("wrong %d, in handlers %ld\n", wrong, segvInProgressCount);
}

const std::map<std::string, void (*)()> scenarios = {
    {"java-faults", javaFaults},
    {"shut-down", shutDown},
    {"storm", storm},
    {"thread-dump", threadDump},
    {"terminate", [] { terminate(SIGTERM); }},
    {"hang-up", hangUp},
    {"postponed-terminate", postponedTerminate},
    {"native-fault-in-thread", [] { callJava("nativeFaultInThreads", 1); }},
    {"native-fault-in-threads", [] { callJava("nativeFaultInThreads", 4); }},
    {"native-fault-after-shut-down", [] { shutDown(), callJava("call", 0); }},
    {"native-overflow", overflowInNative},
    {"library-fault", [] { UtlChecksum(reinterpret_cast<const unsigned char*>(16), 8); }},
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 96;
  const struct rlimit none = {0, 0};
  setrlimit(RLIMIT_CORE, &none);
  const bool handlerFirst = std::strcmp(argv[1], "handler-first") == 0;
  if (handlerFirst) installFaultHandler();
  // The first compiler alone goes on checking for null by faulting.
  env = jvm::start(
      {"-XX:TieredStopAtLevel=1", "-XX:ErrorFile=vm_report", argc > 3 ? argv[3] : "-Xshare:auto"});
  if (!handlerFirst) installFaultHandler();
  signals = env->FindClass("Signals");
  const JNINativeMethod natives = {const_cast<char*>("call"), const_cast<char*>("(I)I"),
                                   reinterpret_cast<void*>(native)};
  if (signals == nullptr || env->RegisterNatives(signals, &natives, 1) != 0) return 95;
  scenarios.at(argv[2])();
  std::exit(0);
}
