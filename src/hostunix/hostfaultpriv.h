// The parts of the fault handler: what it knows of a signal, and the report of one that nobody
// handles.
#pragma once

#include <csignal>

#include "hostunix/hostfault.h"
#include "povzeltypes.h"

// A signal as the handler received it.
struct SignalEvent {
  int signal;
  siginfo_t* info;      // null when the handler's argument was not usable
  siginfo_t* received;  // that argument, for the handlers that are called with it
  ucontext_t* context;

  // A memory access that faulted.
  bool isFaultSignal() const { return signal == SIGSEGV || signal == SIGBUS; }
  // Sent by a process or by the program itself, not raised by the hardware or the kernel.
  bool wasSent() const { return info != nullptr && info->si_code < 1; }
};

const char* signalName(int signal);
const char* siCodeText(const siginfo_t* info);

// The instruction at which the signal arrived, or null when the context is not known.
const void* programCounter(const ucontext_t* context);

// Prints the whole report, a line at a time. Signal-safe.
void reportUnhandledSignal(const SignalEvent& event);

// The time for the handler's texts: seconds since the epoch.
long handlerTime();

// The handler that was there before, where it is a function of the program's; null for the default
// action, for ignoring, and for our own handler.
struct sigaction* rememberedHandler(int signal);

// Forgets every remembered handler without putting it back.
void forgetOldHandlers();

// Whether `address` lies in this library's code. Signal-safe.
bool isInThisLibrary(const void* address);

// Shared with the other fatal paths (hostfault.cpp).
extern HostFaultFuncType* fileFlusherFct;  // the application's callbacks; null for none
extern HostFaultFuncType* shutdownFct;
extern BoolType HostFatalErr;

// Calls `callback` unless it is null or at work already (`running`, 0 at start): one that fails
// itself comes back here, and would be called for ever. Signal-safe, as far as the callback is.
void callUnlessRunning(HostFaultFuncType* callback, BoolType& running);

// Calls the application's file flusher in that way.
void flushApplicationFiles();

// Puts the switches of the handler back to what they are at start.
void resetFaultSwitches();

// Ends the process by SIGABRT itself, which would otherwise come back into the handler.
[[noreturn]] void abortProcess();
