// Signal-safe throughout: calls clock_gettime(2) and prints with hostSafePrint.
#include <ucontext.h>

#include <ctime>
#include <iterator>

#include "internal.h"

namespace {

struct SignalText {
  int number;
  const char* text;
};

constexpr SignalText signalNames[] = {
    {SIGQUIT, "SIGQUIT"}, {SIGILL, "SIGILL"},   {SIGABRT, "SIGABRT"}, {SIGBUS, "SIGBUS"},
    {SIGFPE, "SIGFPE"},   {SIGUSR1, "SIGUSR1"}, {SIGSEGV, "SIGSEGV"}, {SIGPIPE, "SIGPIPE"},
    {SIGTERM, "SIGTERM"}, {SIGXCPU, "SIGXCPU"}, {SIGXFSZ, "SIGXFSZ"},
};

constexpr SignalText siCodeTexts[] = {
    {0, "SI_USER, signal from kill(2), sigsend(2), raise(3C) or abort(3C)"},
    {-1, "SI_QUEUE, signal from sigqueue(3RT)"},
    {-2, "SI_TIMER, signal from timer_settime(3RT)"},
    {-3, "SI_MESGQ, signal from mq_notify(3RT)"},
    {-4, "SI_ASYNCIO, signal from async IO "},
    {-5, "SI_SIGIO, signal queued SIGIO"},
    {-6, "SI_TKILL, signal from tkill(2) or abort(3C)"},
};

template <std::size_t count>
const char* textOf(const SignalText (&table)[count], int number, const char* otherwise) {
  for (const SignalText& entry : table) {
    if (entry.number == number) return entry.text;
  }
  return otherwise;
}

void reportRegisters(const ucontext_t& context) {
  const greg_t* reg = context.uc_mcontext.gregs;
  hostSafePrint("  Registers saved from frame receiving the signal:\n");
  hostSafePrint("   gs 0x%x fs 0x%x es 0x%x ds 0x%x \n", reg[REG_GS], reg[REG_FS], reg[REG_ES],
                reg[REG_DS]);
  hostSafePrint("   edi 0x%x esi 0x%x epb 0x%x esp 0x%x \n", reg[REG_EDI], reg[REG_ESI],
                reg[REG_EBP], reg[REG_ESP]);
  hostSafePrint("   ebx 0x%x edx 0x%x ecx 0x%x eax 0x%x \n", reg[REG_EBX], reg[REG_EDX],
                reg[REG_ECX], reg[REG_EAX]);
  hostSafePrint("   trapno 0x%x err 0x%x eip 0x%x cs 0x%x \n", reg[REG_TRAPNO], reg[REG_ERR],
                reg[REG_EIP], reg[REG_CS]);
  hostSafePrint("   efl 0x%x uesp 0x%x ss 0x%x \n", reg[REG_EFL], reg[REG_UESP], reg[REG_SS]);
}

void reportInfo(const SignalEvent& event) {
  const siginfo_t& info = *event.info;
  hostSafePrint("    info->si_signo = %d = 0x%x  \n", info.si_signo, info.si_signo);
  hostSafePrint("    info->si_code =  %d = 0x%x  \n", info.si_code, info.si_code);
  hostSafePrint("    info->si_errno = %d = 0x%x  \n", info.si_errno, info.si_errno);
  if (event.isFaultSignal()) {
    hostSafePrint("    info->si_addr = 0x%p  pc = 0x%p \n", info.si_addr,
                  hostProgramCounter(event.context));
  }
  if (event.wasSent()) {
    hostSafePrint("    signal %d , received from process %d userId %d\n   si_code: %d, %s\n",
                  event.signal, info.si_pid, static_cast<int>(info.si_uid), info.si_code,
                  hostSiCodeText(&info));
  }
  if (event.isFaultSignal() && event.context != nullptr) reportRegisters(*event.context);
}

}  // namespace

const char* hostSignalName(int signal) {
  return textOf(signalNames, signal, "unknown");
}

const char* hostSiCodeText(const siginfo_t* info) {
  if (info == nullptr) return "(unknown: bad siginfo_t)";
  return textOf(siCodeTexts, info->si_code, "unknown SI_");
}

const void* hostProgramCounter(const ucontext_t* context) {
  if (context == nullptr) return nullptr;
  return reinterpret_cast<const void*>(context->uc_mcontext.gregs[REG_EIP]);
}

long hostHandlerTime() {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec;
}

void hostReportUnhandledSignal(const SignalEvent& event) {
  hostSafePrint("\n\nTV Signal Handler: Unhandled signal %d, %s Received at %ld \n", event.signal,
                hostSignalName(event.signal), hostHandlerTime());
  hostSafePrint("HostFaultHandler: signal (int) = %d \n", event.signal);
  if (event.info == nullptr) {
    hostSafePrint("    info arg to HostFaultHandler was invalid\n");
    return;
  }
  reportInfo(event);
}
