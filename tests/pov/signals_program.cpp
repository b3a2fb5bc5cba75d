// A program that starts the VM and installs the fault handler, in the order that its first argument
// names, and then raises what its second argument names. signals_test.cpp looks at how it ends.
#include <semaphore.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include <povzel/hostfault.h>
#include <povzel/hostinit.h>
#include <povzel/hostsafeprint.h>
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

jint JNICALL faultInNative(JNIEnv*, jclass) {
  static volatile std::uintptr_t nowhere = 16;
  *reinterpret_cast<volatile char*>(nowhere) = 1;
  return 0;
}

// Java's own faults, in one thread and then in two at once.
void javaFaults() {
  const int checks = callJava("faults", 5000, 0);
  const int overflows = callJava("faults", 0, 10);
  const int together = callJava("faultsInThreads", 2, 5000, 10);
  std::printf("caught %d %d %d, in handlers %ld\n", checks, overflows, together,
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

const std::map<std::string, void (*)()> scenarios = {
    {"java-faults", javaFaults},
    {"many-threads", [] { std::printf("caught %d\n", callJava("faultsInThreads", 8, 5000, 5)); }},
    // Ends at the first fault that reaches the fault handler.
    {"first-to-see",
     [] {
       HostExitOnFault();
       javaFaults();
     }},
    {"thread-dump", threadDump},
    {"terminate", [] { terminate(SIGTERM); }},
    {"hang-up", hangUp},
    {"postponed-terminate", postponedTerminate},
    {"native-fault", [] { callJava("fault"); }},
    {"native-fault-in-thread", [] { callJava("nativeFaultInThreads", 1); }},
    {"native-fault-in-threads", [] { callJava("nativeFaultInThreads", 4); }},
    {"library-fault", [] { HostSignalSafePrint(reinterpret_cast<const char*>(16)); }},
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
  const JNINativeMethod native = {const_cast<char*>("fault"), const_cast<char*>("()I"),
                                  reinterpret_cast<void*>(faultInNative)};
  if (signals == nullptr || env->RegisterNatives(signals, &native, 1) != 0) return 95;
  scenarios.at(argv[2])();
  std::exit(0);
}
