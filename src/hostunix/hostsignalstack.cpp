// A stack for the handlers of a thread's faults: where its own has overflown, there is none left.
// Where it has not, handlers go back to it.
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>

#include <povzel/hostfault.h>
#include "basics/internal.h"
#include "internal.h"

namespace {

constexpr std::size_t stackSize = 256 << 10;    // the report and the core need some 20 KiB of it
constexpr std::size_t smallestSize = 64 << 10;  // of one that the thread has already
constexpr std::size_t guardSize = 4096;

pthread_key_t stackKey;
int keyError = 0;

// At the thread's end. A thread that ends in a handler still runs on its stack, and leaves it.
void release(void* memory) {
  stack_t stack{};
  stack.ss_flags = SS_DISABLE;
  stack_t former;
  if (sigaltstack(nullptr, &former) != 0) return;
  const bool isOurs = former.ss_sp == static_cast<char*>(memory) + guardSize;
  if (isOurs && sigaltstack(&stack, nullptr) != 0) return;
  munmap(memory, guardSize + stackSize);
}

// An access this near to where the stack had got to is one beyond its end.
constexpr std::uintptr_t overflowReach = 64 << 10;
constexpr std::size_t neededRoom = 32 << 10;
constexpr std::size_t largestCopy = 16 << 10;
constexpr std::size_t callFrame = 1024;  // of hostCallOnStack and its caller, at most

// The system reads what it is given before it looks at the first argument.
bool isReadable(const char* address) {
  constexpr int nonsense = -1;
  constexpr std::size_t kernelSetSize = 8;
  syscall(SYS_rt_sigprocmask, nonsense, address, nullptr, kernelSetSize);
  return errno != EFAULT;
}

// Between two stacks there may be no more than one page that is not.
bool isReadable(const char* from, const char* end) {
  constexpr std::size_t page = 4096;
  for (; from < end; from += page) {
    if (!isReadable(from)) return false;
  }
  return isReadable(end);
}

bool isOverflow(const SignalEvent& event, std::uintptr_t stackPointer) {
  if (!event.isFaultSignal() || event.info == nullptr || event.wasSent()) return false;
  const auto address = reinterpret_cast<std::uintptr_t>(event.info->si_addr);
  return address >= overflowReach && address - stackPointer + overflowReach < 2 * overflowReach;
}

char* signalStackEnd(const ucontext_t* context) {
  return static_cast<char*>(context->uc_stack.ss_sp) + context->uc_stack.ss_size;
}

// As many bytes as there are; a sanitizer would object to the gaps between variables.
void copyStack(char* to, const char* from, std::size_t size) {
  asm volatile("rep movsb" : "+D"(to), "+S"(from), "+c"(size) : : "memory");
}

template <typename Record>
void moveInto(Record*& record, const char* first, std::size_t size, std::ptrdiff_t distance) {
  auto* place = reinterpret_cast<char*>(record);
  if (place < first || place >= first + size) return;
  record = reinterpret_cast<Record*>(place + distance);
}

struct Move {
  const SignalEvent* event;
  void (*handle)(const SignalEvent& event);
  char* copy;  // where what is in use of the signal stack goes, on the interrupted one
};

void handleOnOtherStack(void* argument, char* used) {
  const Move move = *static_cast<Move*>(argument);
  SignalEvent event = *move.event;
  const auto size = static_cast<std::size_t>(signalStackEnd(event.context) - used);
  const std::ptrdiff_t distance = move.copy - used;
  copyStack(move.copy, used, size);
  moveInto(event.info, used, size, distance);
  moveInto(event.received, used, size, distance);
  moveInto(event.context, used, size, distance);
  auto*& registers = event.context->uc_mcontext.fpregs;
  auto* const ownRegisters = registers;
  moveInto(registers, used, size, distance);
  move.handle(event);
  registers = ownRegisters;
  copyStack(used, move.copy, size);
}

bool use(char* memory) {
  stack_t stack{};
  stack.ss_sp = memory + guardSize;
  stack.ss_size = stackSize;
  if (os.mprotect(memory, guardSize, PROT_NONE) != 0) return false;
  const int error = pthread_setspecific(stackKey, memory);
  if (error != 0) {
    errno = error;
    return false;
  }
  if (sigaltstack(&stack, nullptr) == 0) return true;
  pthread_setspecific(stackKey, nullptr);
  return false;
}

}  // namespace

bool hostIsOnSignalStack(const ucontext_t* context, std::uintptr_t address) {
  if (context == nullptr || (context->uc_stack.ss_flags & SS_DISABLE) != 0) return false;
  const auto first = reinterpret_cast<std::uintptr_t>(context->uc_stack.ss_sp);
  return address >= first && address - first <= context->uc_stack.ss_size;
}

// With a frame that debuggers find their way back by.
[[gnu::naked]] void hostCallOnStack(void* /*top*/, void (* /*function*/)(void*, char*),
                                    void* /*argument*/) {
  asm("push %ebp\n"
      ".cfi_def_cfa_offset 8\n"
      ".cfi_offset %ebp, -8\n"
      "mov %esp, %ebp\n"
      ".cfi_def_cfa_register %ebp\n"
      ".cfi_signal_frame\n"  // the stacks may lie in either order
      "mov 8(%ebp), %esp\n"
      "and $-16, %esp\n"
      "sub $8, %esp\n"
      "push %ebp\n"
      "push 16(%ebp)\n"
      "call *12(%ebp)\n"
      "leave\n"
      ".cfi_def_cfa %esp, 4\n"
      "ret\n");
}

void hostOnInterruptedStack(const SignalEvent& event, void (*handle)(const SignalEvent& event)) {
  const auto frame = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
  if (!hostIsOnSignalStack(event.context, frame)) return handle(event);
  const auto pointer = static_cast<std::uintptr_t>(event.context->uc_mcontext.gregs[REG_ESP]);
  const auto size =
      reinterpret_cast<std::uintptr_t>(signalStackEnd(event.context)) - frame + callFrame;
  if (hostIsOnSignalStack(event.context, pointer) || isOverflow(event, pointer) ||
      size > largestCopy) {
    return handle(event);
  }
  constexpr std::uintptr_t redZone = 128;
  constexpr std::uintptr_t alignment = 64;
  auto* const copy = reinterpret_cast<char*>((pointer - redZone - size) / alignment * alignment);
  if (!isReadable(copy - neededRoom, copy + size)) return handle(event);
  Move move{&event, handle, copy};
  hostCallOnStack(copy, handleOnOtherStack, &move);
}

BoolType HostUseSignalStack() {
  static pthread_once_t keyMade = PTHREAD_ONCE_INIT;
  pthread_once(&keyMade, [] { keyError = pthread_key_create(&stackKey, release); });
  if (keyError != 0) {
    errno = keyError;
    return 0;
  }
  stack_t present;
  if (sigaltstack(nullptr, &present) != 0) return 0;
  const bool isThere = (present.ss_flags & SS_DISABLE) == 0;
  if (isThere && present.ss_size >= smallestSize) return 1;

  void* memory = mmap(nullptr, guardSize + stackSize, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
  if (memory == MAP_FAILED) return 0;
  if (use(static_cast<char*>(memory))) return 1;
  const ErrnoKeeper keeper;
  munmap(memory, guardSize + stackSize);
  return 0;
}
