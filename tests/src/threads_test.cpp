#include <povzel/atomics.h>
#include <povzel/hostmutex.h>
#include <povzel/hostthread.h>
#include "tests.h"

// The exported functions: a call by name is compiled in.
static int (*volatile exportedTryLock)(int*, int) = HostAsmTryLock;
static void (*volatile exportedUnlock)(int*) = HostAsmUnlock;
static int (*volatile exportedAdd)(int*, int) = HostAsmSyncCtrAdd;
static int (*volatile exportedOr)(int*, int) = HostAsmSyncOr;
static int (*volatile exportedAnd)(int*, int) = HostAsmSyncAnd;

TEST(Atomics, LockWord) {
  int word = 0;
  EXPECT_EQ(HostAsmTryLock(&word, 1), 1);
  for (const int spins : {1, 1000}) {
    EXPECT_EQ(HostAsmTryLock(&word, spins), 0);
    EXPECT_EQ(exportedTryLock(&word, spins), 0);
  }
  HostAsmUnlock(&word);
  EXPECT_EQ(exportedTryLock(&word, 1), 1);
  exportedUnlock(&word);
  EXPECT_EQ(word, 0);
  HostAsmClearLockedPage(&word);
  EXPECT_EQ(HostAsmSyncCtrAdd(&word, 3), -1);
}

// One kind of call after the other, so that the threads meet often. Each owns a bit of `flags`; the
// last two numbers are behind locks. Every other round is made by exported functions.
TEST(Threads, LoseNothing) {
  constexpr int workers = 4, rounds = 20000;
  HostMutexSType mutex;
  HostMutexInit(&mutex);
  int lock = 0, counter = 0, flags = 0, lost = 0, guarded = 0, alsoGuarded = 0;
  inThreads(workers, [&](int thread) {
    const int bit = 1 << thread;
    for (int i = 0; i < 5 * rounds; ++i) {
      HostAsmSyncCtrAdd(&counter, 1);
      if ((HostAsmSyncOr(&flags, bit) & bit) != 0) HostAsmSyncOr(&lost, bit);
      if ((HostAsmSyncAnd(&flags, ~bit) & bit) == 0) HostAsmSyncOr(&lost, bit);
      exportedAdd(&counter, 1);
      if ((exportedOr(&flags, bit) & bit) != 0) exportedOr(&lost, bit);
      if ((exportedAnd(&flags, ~bit) & bit) == 0) exportedOr(&lost, bit);
    }
    for (int i = 0; i < rounds; ++i) {
      HostAsmTryLock(&lock, 0);  // without a limit of spins it waits
      ++guarded;
      HostAsmUnlock(&lock);
      exportedTryLock(&lock, 0);
      ++guarded;
      exportedUnlock(&lock);
      HostMutexAcquire(&mutex);
      ++alsoGuarded;
      HostMutexRelease(&mutex);
    }
  });
  HostMutexDestroy(&mutex);
  EXPECT_EQ((std::vector{counter, guarded, alsoGuarded, lock | flags | lost}),
            (std::vector{10 * workers * rounds, 2 * workers * rounds, workers * rounds, 0}));
}

TEST(HostMutexDeathTest, FailuresAreBrokenGuaranteesButForReleases) {
  const std::pair<void (*)(HostMutexSType*), std::string> cases[] = {
      {HostMutexDestroy, "mutexDestroy failed\n"},
      {HostMutexAcquire, "mutexLock failed\n"},  // exported, and compiled in
      {[](HostMutexSType* held) { HostMutexAcquire(held); }, "mutexLock failed\n"},
      {[](HostMutexSType*) { HostMutexAcquire(nullptr); }, "mutexLock failed\n"},
      {[](HostMutexSType*) { HostMutexError(-7); }, "HostMutexError :  caller line -7\n"}};
  // A mutex that checks its owner
  HostMutexSType mutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
  for (const auto& [action, printed] : cases) {
    const ChildResult child = runInChild([&mutex, action = action] {
      HostMutexRelease(&mutex);
      HostMutexAcquire(&mutex);
      action(&mutex);
    });
    EXPECT_EQ(exitCode(child), 3);
    EXPECT_THAT(child.out + child.err,
                Reads("mutexUnLock failed=n" + printed +
                      "UTL_GUARANTEE failure in file src/hostmutex at line "));
  }
}

// What the function gives back, run by a thread of its own.
static void* run(HostThreadFuncType* start, void* arg = nullptr, std::size_t minStackSize = 0) {
  HostThreadType thread;
  void* value = nullptr;
  EXPECT_EQ(HostThreadCreate(&thread, start, arg, minStackSize), 0);
  EXPECT_EQ(HostThreadJoin(thread, &value), 0);
  return value;
}

TEST(HostThread, RunsJoinsExitsAndIsSignalled) {
  const auto exitWithId = [](void*) -> void* {
    HostThreadExit(reinterpret_cast<void*>(HostThreadSelf()));
  };
  const HostThreadType thread = reinterpret_cast<HostThreadType>(run(exitWithId));
  EXPECT_EQ(HostThreadEqual(thread, thread), 1);
  EXPECT_EQ(HostThreadEqual(thread, HostThreadSelf()), 0);
  EXPECT_EQ(HostThreadJoin(HostThreadSelf(), nullptr), EDEADLK);

  static HostThreadType receiver;
  const auto before = std::signal(SIGUSR2, [](int) { receiver = HostThreadSelf(); });
  EXPECT_EQ(HostThreadKill(HostThreadSelf(), SIGUSR2), 0);
  EXPECT_EQ(receiver, HostThreadSelf());
  EXPECT_EQ(HostThreadKill(HostThreadSelf(), 12345), EINVAL);
  std::signal(SIGUSR2, before);
}

TEST(HostThread, StackIsAtLeastTheMinimumInWholePages) {
  // Gives back its argument, and there its own stack's size.
  const auto measure = [](void* arg) {
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstacksize(&attributes, static_cast<std::size_t*>(arg));
    pthread_attr_destroy(&attributes);
    return arg;
  };
  std::size_t least = 0, own = 0;
  run(measure, &least);
  for (const auto& [minimum, size] :
       {std::pair(least, least), {least + 1, least + 4096}, {2 * least - 5, 2 * least}}) {
    EXPECT_EQ(run(measure, &own, minimum), &own);
    EXPECT_EQ(own, size);
  }
  HostThreadType thread;
  EXPECT_NE(HostThreadCreate(&thread, measure, nullptr, 0xFFFFF001), 0) << "more than memory";
}

TEST(Threads, BarrierOrdersStoresBeforeLoads) {
  struct alignas(64) Word {
    std::atomic<int> value;
  };
  Word words[2] = {}, seen[2] = {}, arrived = {}, wanted = {};
  int missed = 0;
  const auto meet = [&](int times) {
    ++arrived.value;
    for (int spins = 0; arrived.value < 2 * times; ++spins) {
      if (spins > 1000) std::this_thread::yield();
    }
  };
  inThreads(2, [&](int me) {
    for (int round = 1; round <= 20000; ++round) {
      meet(2 * round - 1);
      // Behind a store to what both want, the word's waits for long.
      wanted.value.store(me, std::memory_order_relaxed);
      words[me].value.store(round, std::memory_order_relaxed);
      HostShrMemoryBarrier();
      seen[me].value = words[1 - me].value.load(std::memory_order_relaxed);
      meet(2 * round);
      if (me == 0 && seen[0].value != round && seen[1].value != round) ++missed;
    }
  });
  EXPECT_EQ(missed, 0);
}
