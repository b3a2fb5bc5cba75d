// Locks, counters and bit masks in 32-bit words that threads share, or processes that map the
// same memory.
//
//   static int busy;
//   if (HostAsmTryLock(&busy, 1000)) { work(); HostAsmUnlock(&busy); }
//
// Each read-modify-write is one locked instruction (or a loop around one) and so a full memory
// barrier. Signal-safe: nothing here can fail, allocates or calls anything.
// Words must be aligned to 4 bytes.
//
// All but HostShrMemoryBarrier and HostAsmClearLockedPage are compiled into their callers, in C and
// C++; the library exports them too, for pointers to them and for other languages.
#pragma once

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// A full memory fence: no read or write moves across the call in either direction.
POVZEL_EXPORT void HostShrMemoryBarrier(void);

// Tries to take the lock word `lock` (0 free, 1 held, -1 locked for good): one exchange of 1 and,
// while that finds it held, `spinCount` rounds of waiting, of which the last gives up without
// looking. 1 gives up after the first exchange; 0 stands for 2^32 rounds. A word found at -1 is
// refused like a held one, and reads 1 afterwards. Returns 1 if the caller now holds the lock,
// else 0.
POVZEL_EXPORT int HostAsmTryLock(int* lock, int spinCount);

// Frees the lock word: exchanges 0 into it, whatever it held.
POVZEL_EXPORT void HostAsmUnlock(int* lock);

// Marks the lock word of a page as cleared or locked for good: exchanges -1 into it.
POVZEL_EXPORT void HostAsmClearLockedPage(int* lock);

// Each changes the word and returns its value from before. The sum wraps at 32 bits; adding 0
// reads the counter, an OR with 1 tests and sets a flag, an AND with 0 resets it.
POVZEL_EXPORT int HostAsmSyncCtrAdd(int* counter, int delta);
POVZEL_EXPORT int HostAsmSyncOr(int* word, int mask);
POVZEL_EXPORT int HostAsmSyncAnd(int* word, int mask);

POVZEL_COMPILED_IN int HostAsmTryLock(int* lock, int spinCount) {
  while (__atomic_exchange_n(lock, 1, __ATOMIC_SEQ_CST) != 0) {
    do {
      __builtin_ia32_pause();
      (void)__builtin_sub_overflow(spinCount, 1, &spinCount);  // 0 wraps
      if (spinCount == 0) return 0;
    } while (__atomic_load_n(lock, __ATOMIC_RELAXED) != 0);
  }
  return 1;
}

POVZEL_COMPILED_IN void HostAsmUnlock(int* lock) {
  (void)__atomic_exchange_n(lock, 0, __ATOMIC_SEQ_CST);
}

POVZEL_COMPILED_IN int HostAsmSyncCtrAdd(int* counter, int delta) {
  return __atomic_fetch_add(counter, delta, __ATOMIC_SEQ_CST);
}

POVZEL_COMPILED_IN int HostAsmSyncOr(int* word, int mask) {
  return __atomic_fetch_or(word, mask, __ATOMIC_SEQ_CST);
}

POVZEL_COMPILED_IN int HostAsmSyncAnd(int* word, int mask) {
  return __atomic_fetch_and(word, mask, __ATOMIC_SEQ_CST);
}

POVZEL_END_C
