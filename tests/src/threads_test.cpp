#include <povzel/atomics.h>
#include <povzel/hostmutex.h>
#include <povzel/hostthread.h>
#include "tests.h"

namespace {

TEST(Atomics, EachOperationReturnsWhatWasThere) {
  const std::tuple<int (*)(int*, int), int, int, int> cases[] = {
      {HostAsmSyncCtrAdd, 1, -1, 0},
      {HostAsmSyncCtrAdd, INT_MAX, 1, INT_MIN},
      {HostAsmSyncOr, 0x0F0F, INT_MIN | 0xF0, INT_MIN | 0x0FFF},
      {HostAsmSyncAnd, 0x1234, 0x0FF0, 0x0230}};
  for (const auto& [operation, before, operand, after] : cases) {
    int word = before;
    EXPECT_EQ(operation(&word, operand), before);
    EXPECT_EQ(word, after);
  }
}

TEST(Atomics, LockWord) {
  int word = 0;
  EXPECT_EQ(HostAsmTryLock(&word, 1), 1);
  for (const int spins : {1, 2, 1000}) EXPECT_EQ(HostAsmTryLock(&word, spins), 0);
  EXPECT_EQ(word, 1);
  HostAsmUnlock(&word);
  EXPECT_EQ(word, 0);
  HostAsmClearLockedPage(&word);
  EXPECT_EQ(word, -1);

  // Without a limit of spins it waits until the lock is free.
  int waiting = 0;
  std::thread waiter([&] {
    HostAsmSyncOr(&waiting, 1);
    EXPECT_EQ(HostAsmTryLock(&word, 0), 1);
  });
  while (HostAsmSyncCtrAdd(&waiting, 0) == 0) std::this_thread::yield();
  EXPECT_EQ(HostAsmTryLock(&word, 5), 0);
  HostAsmUnlock(&word);
  waiter.join();
  EXPECT_EQ(word, 1);
}

// One kind of call after the other, so that the threads meet often. Each owns a bit of `flags`; the
// last two numbers are behind locks.
TEST(Threads, LoseNothing) {
  constexpr int workers = 4, rounds = 20000;
  HostMutexSType mutex;
  HostMutexInit(&mutex);
  int lock = 0, counter = 0, flags = 0, lost = 0, guarded = 0, alsoGuarded = 0;
  const auto work = [&](int bit) {
    for (int i = 0; i < 5 * rounds; ++i) {
      HostAsmSyncCtrAdd(&counter, 1);
      if ((HostAsmSyncOr(&flags, bit) & bit) != 0) HostAsmSyncOr(&lost, bit);
      if ((HostAsmSyncAnd(&flags, ~bit) & bit) == 0) HostAsmSyncOr(&lost, bit);
    }
    for (int i = 0; i < rounds; ++i) {
      while (HostAsmTryLock(&lock, 100) == 0) std::this_thread::yield();
      ++guarded;
      HostAsmUnlock(&lock);
    }
    for (int i = 0; i < rounds; ++i) {
      HostMutexAcquire(&mutex);
      ++alsoGuarded;
      HostMutexRelease(&mutex);
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < workers; ++i) threads.emplace_back(work, 1 << i);
  for (std::thread& thread : threads) thread.join();
  HostMutexDestroy(&mutex);
  EXPECT_EQ((std::vector{counter, guarded, alsoGuarded, lock | flags | lost}),
            (std::vector{5 * workers * rounds, workers * rounds, workers * rounds, 0}));
}

// Each thread stores its own word and then reads the other's. With a fence between, at least one
// of them sees the other's store.
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
  const auto run = [&](int me) {
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
  };
  std::thread other(run, 1);
  run(0);
  other.join();
  EXPECT_EQ(missed, 0);
}

TEST(HostMutexDeathTest, FailuresAreBrokenGuaranteesButForReleases) {
  const std::pair<void (*)(HostMutexSType*), std::string> cases[] = {
      {HostMutexDestroy, "mutexDestroy failed\n"},
      {HostMutexAcquire, "mutexLock failed\n"},
      {[](HostMutexSType*) { HostMutexInit(nullptr); }, ""},
      {[](HostMutexSType*) { HostMutexDestroy(nullptr); }, "mutexDestroy failed\n"},
      {[](HostMutexSType*) { HostMutexAcquire(nullptr); }, "mutexLock failed\n"},
      {[](HostMutexSType*) { HostMutexError(-7); }, "HostMutexError :  caller line -7\n"},
  };
  // A mutex that checks its owner
  HostMutexSType mutex;
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_init(&mutex, &attributes);
  for (const auto& [action, printed] : cases) {
    const auto die = [&mutex, action = action] {
      dup2(STDERR_FILENO, STDOUT_FILENO);
      HostMutexRelease(nullptr);
      HostMutexRelease(&mutex);
      HostMutexAcquire(&mutex);
      action(&mutex);
    };
    EXPECT_EXIT(die(), testing::ExitedWithCode(3),
                "^mutexUnLock failed=nmutexUnLock failed=n" + printed +
                    "UTL_GUARANTEE failure in file src/hostmutex at line [0-9]+\n");
  }
}

// What the function gives back, run by a thread of its own.
void* run(HostThreadFuncType* start, void* arg = nullptr, std::size_t minStackSize = 0) {
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
  receiver = 0;
  const auto before = std::signal(SIGUSR2, [](int) { receiver = HostThreadSelf(); });
  EXPECT_EQ(HostThreadKill(HostThreadSelf(), SIGUSR2), 0);
  EXPECT_EQ(receiver, HostThreadSelf());
  EXPECT_EQ(HostThreadKill(HostThreadSelf(), 12345), EINVAL);
  std::signal(SIGUSR2, before);
}

std::size_t stackSizeOf(pthread_attr_t attributes) {
  std::size_t size = 0;
  pthread_attr_getstacksize(&attributes, &size);
  pthread_attr_destroy(&attributes);
  return size;
}

TEST(HostThread, StackIsAtLeastTheMinimumInWholePages) {
  // Gives back its argument and its own stack's size.
  const auto measure = [](void* arg) {
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    *static_cast<std::size_t*>(arg) = stackSizeOf(attributes);
    return arg;
  };
  pthread_attr_t defaults;
  pthread_attr_init(&defaults);
  const std::size_t least = stackSizeOf(defaults);
  std::vector<std::size_t> sizes;
  testing::internal::CaptureStdout();
  for (const auto minimum : {0 * least, 1U, least, least + 1, least + 4096, 2 * least - 5}) {
    std::size_t own = 0;
    EXPECT_EQ(run(measure, &own, minimum), &own);
    sizes.push_back(own);
  }
  EXPECT_EQ(sizes, (std::vector{least, least, least, least + 4096, least + 4096, 2 * least}));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  for (const std::size_t size : {0xFFFFF000U, 0xFFFFF001U, 0xFFFFFFFFU}) {
    HostThreadType thread;
    EXPECT_NE(HostThreadCreate(&thread, measure, nullptr, size), 0) << "more than memory";
  }
}

}  // namespace
