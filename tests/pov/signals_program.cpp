// A program that starts the VM and installs the fault handler, in the order that its first argument
// names, and then raises what its second argument names. signals_test.cpp looks at how it ends.
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

// Java's own faults, in one thread and then in many at once.
void javaFaults() {
  const int checks = callJava("faults", 5000, 0);
  const int overflows = callJava("faults", 0, 10);
  const int together = callJava("faultsInThreads", 8, 5000, 5);
  std::printf("caught %d %d %d, in handlers %ld\n", checks, overflows, together,
              segvInProgressCount);
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

const std::map<std::string, void (*)()> scenarios = {
    {"java-faults", javaFaults},
    {"terminate", [] { terminate(SIGTERM); }},
    {"hang-up", hangUp},
    {"native-fault", [] { callJava("faultInNative"); }},
    {"library-fault", [] { HostSignalSafePrint(reinterpret_cast<const char*>(16)); }},
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 96;
  const struct rlimit none = {0, 0};
  setrlimit(RLIMIT_CORE, &none);
  const bool handlerFirst = std::strcmp(argv[1], "handler-first") == 0;
  if (handlerFirst) installFaultHandler();
  // The first compiler alone goes on checking for null by faulting.
  env = jvm::start({"-XX:TieredStopAtLevel=1", "-XX:ErrorFile=vm_report"});
  if (!handlerFirst) installFaultHandler();
  signals = env->FindClass("Signals");
  const JNINativeMethod native = {const_cast<char*>("fault"), const_cast<char*>("()I"),
                                  reinterpret_cast<void*>(faultInNative)};
  if (signals == nullptr || env->RegisterNatives(signals, &native, 1) != 0) return 95;
  scenarios.at(argv[2])();
  std::exit(0);
}
