#include <povzel/atomics.h>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <thread>
#include <vector>

namespace {

TEST(Atomics, EachOperationReturnsWhatWasThere) {
  struct Case {
    const char* name;
    int (*operation)(int*, int);
    int word;
    int operand;
    int after;
  };
  const Case cases[] = {
      {"add", HostAsmSyncCtrAdd, 1, -1, 0},
      {"add wraps", HostAsmSyncCtrAdd, INT_MAX, 1, INT_MIN},
      {"add 0 reads", HostAsmSyncCtrAdd, 77, 0, 77},
      {"or sets", HostAsmSyncOr, 0, 1, 1},
      {"or keeps", HostAsmSyncOr, 1, 1, 1},
      {"or of bits", HostAsmSyncOr, 0x0F0F, INT_MIN | 0xF0, INT_MIN | 0x0FFF},
      {"and resets", HostAsmSyncAnd, -1, 0, 0},
      {"and of bits", HostAsmSyncAnd, 0x1234, 0x0FF0, 0x0230},
  };
  for (const Case& c : cases) {
    int word = c.word;
    EXPECT_EQ(c.operation(&word, c.operand), c.word) << c.name;
    EXPECT_EQ(word, c.after) << c.name;
  }
}

TEST(Atomics, LockWord) {
  int word = 0;
  EXPECT_EQ(HostAsmTryLock(&word, 1), 1);
  EXPECT_EQ(word, 1);
  for (const int spins : {1, 2, 1000}) EXPECT_EQ(HostAsmTryLock(&word, spins), 0);
  EXPECT_EQ(word, 1);
  HostAsmUnlock(&word);
  EXPECT_EQ(word, 0);
  HostAsmClearLockedPage(&word);
  EXPECT_EQ(word, -1);
  EXPECT_EQ(HostAsmTryLock(&word, 5), 0);
}

TEST(Atomics, NoSpinLimitWaitsUntilTheLockIsFree) {
  int word = 1;
  int waiting = 0;
  std::thread waiter([&] {
    HostAsmSyncOr(&waiting, 1);
    EXPECT_EQ(HostAsmTryLock(&word, 0), 1);
  });
  while (HostAsmSyncCtrAdd(&waiting, 0) == 0) std::this_thread::yield();
  HostAsmUnlock(&word);
  waiter.join();
  EXPECT_EQ(word, 1);
}

// What threads or processes fight over; `guarded` only changes under `lock`.
struct Shared {
  int lock;
  long guarded;
  int counter;
  int flags;
  int flagsLost;
};

constexpr int workers = 4;
constexpr int rounds = 20000;

void fight(Shared* shared, int worker) {
  const int bit = 1 << worker;
  for (int i = 0; i < rounds; ++i) {
    HostAsmSyncCtrAdd(&shared->counter, i % 2 == 0 ? 3 : -1);
    // Nobody else touches this bit, so it must be as this worker left it.
    if ((HostAsmSyncOr(&shared->flags, bit) & bit) != 0) HostAsmSyncOr(&shared->flagsLost, bit);
    if ((HostAsmSyncAnd(&shared->flags, ~bit) & bit) == 0) HostAsmSyncOr(&shared->flagsLost, bit);
    while (HostAsmTryLock(&shared->lock, 100) == 0) std::this_thread::yield();
    ++shared->guarded;
    HostAsmUnlock(&shared->lock);
  }
}

void expectNothingLost(const Shared& shared) {
  EXPECT_EQ(shared.lock, 0);
  EXPECT_EQ(shared.guarded, long{workers} * rounds);
  EXPECT_EQ(shared.counter, workers * rounds);
  EXPECT_EQ(shared.flags, 0);
  EXPECT_EQ(shared.flagsLost, 0);
}

TEST(Atomics, ThreadsLoseNothing) {
  Shared shared{};
  std::vector<std::thread> threads;
  threads.reserve(workers);
  for (int i = 0; i < workers; ++i) threads.emplace_back(fight, &shared, i);
  for (std::thread& thread : threads) thread.join();
  expectNothingLost(shared);
}

TEST(Atomics, ProcessesLoseNothing) {
  void* memory =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  auto* shared = static_cast<Shared*>(memory);
  std::vector<pid_t> children;
  for (int i = 0; i < workers; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      fight(shared, i);
      _exit(0);
    }
    ASSERT_GT(child, 0);
    children.push_back(child);
  }
  for (const pid_t child : children) {
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  expectNothingLost(*shared);
  munmap(memory, sizeof(Shared));
}

// Each thread stores its own word and then reads the other's. With a fence between, at least one
// of them sees the other's store.
TEST(Atomics, BarrierOrdersStoresBeforeLoads) {
  struct alignas(64) Word {
    volatile int value;
  };
  Word words[2] = {};
  Word seen[2] = {};
  int arrived = 0;
  int missed = 0;
  const auto meet = [&](int times) {
    HostAsmSyncCtrAdd(&arrived, 1);
    while (HostAsmSyncCtrAdd(&arrived, 0) < 2 * times) std::this_thread::yield();
  };
  const auto run = [&](int me) {
    for (int round = 1, meetings = 0; round <= 3000; ++round) {
      meet(++meetings);
      words[me].value = round;
      HostShrMemoryBarrier();
      seen[me].value = words[1 - me].value;
      meet(++meetings);
      if (me == 0 && seen[0].value != round && seen[1].value != round) ++missed;
    }
  };
  std::thread other(run, 1);
  run(0);
  other.join();
  EXPECT_EQ(missed, 0);
}

}  // namespace
