// The atomic primitives beside std::atomic and the mutexes beside POSIX ones. Ours are compiled
// into their callers as std::atomic is, but for the barrier; each is also measured beside the same
// std::atomic operation in a function of its own, reached as a library's is.
#include <benchmark/benchmark.h>

#include <atomic>

#include <povzel/atomics.h>
#include <povzel/hostmutex.h>
#include "paired.h"

namespace {

constexpr double bound = 1.05;
constexpr int repeats = 64;

int word;
std::atomic<int> atomicWord;

template <typename Operation>
void repeat(Operation operation) {
  for (int i = 0; i < repeats; ++i) operation();
}

template <typename Ours, typename Other>
void compare(benchmark::State& state, Ours ours, Other other) {
  comparePaired(
      state, [&] { repeat(ours); }, [&] { repeat(other); }, {.units = repeats, .bound = bound});
}

int inlineAdd(std::atomic<int>* value, int delta) {
  return value->fetch_add(delta);
}
int inlineOr(std::atomic<int>* value, int mask) {
  return value->fetch_or(mask);
}
int inlineAnd(std::atomic<int>* value, int mask) {
  return value->fetch_and(mask);
}
void inlineFence() {
  std::atomic_thread_fence(std::memory_order_seq_cst);
}
int inlineTryLock(std::atomic<int>* lock) {
  return lock->exchange(1) == 0 ? 1 : 0;
}
void inlineUnlock(std::atomic<int>* lock) {
  lock->exchange(0);
}

// Reached through pointers that the compiler cannot see through, as library functions are.
int (*volatile calledAdd)(std::atomic<int>*, int) = inlineAdd;
int (*volatile calledOr)(std::atomic<int>*, int) = inlineOr;
int (*volatile calledAnd)(std::atomic<int>*, int) = inlineAnd;
void (*volatile calledFence)() = inlineFence;
int (*volatile calledTryLock)(std::atomic<int>*) = inlineTryLock;
void (*volatile calledUnlock)(std::atomic<int>*) = inlineUnlock;

void ourAdd() {
  benchmark::DoNotOptimize(HostAsmSyncCtrAdd(&word, 1));
}
void ourOr() {
  benchmark::DoNotOptimize(HostAsmSyncOr(&word, 4));
}
void ourAnd() {
  benchmark::DoNotOptimize(HostAsmSyncAnd(&word, -5));
}
void ourLock() {
  benchmark::DoNotOptimize(HostAsmTryLock(&word, 1));
  HostAsmUnlock(&word);
}

void BM_CtrAdd_called(benchmark::State& state) {
  compare(
      state, [] { ourAdd(); }, [] { benchmark::DoNotOptimize(calledAdd(&atomicWord, 1)); });
}
void BM_CtrAdd_inline(benchmark::State& state) {
  compare(
      state, [] { ourAdd(); }, [] { benchmark::DoNotOptimize(inlineAdd(&atomicWord, 1)); });
}
void BM_Or_called(benchmark::State& state) {
  compare(
      state, [] { ourOr(); }, [] { benchmark::DoNotOptimize(calledOr(&atomicWord, 4)); });
}
void BM_Or_inline(benchmark::State& state) {
  compare(
      state, [] { ourOr(); }, [] { benchmark::DoNotOptimize(inlineOr(&atomicWord, 4)); });
}
void BM_And_called(benchmark::State& state) {
  compare(
      state, [] { ourAnd(); }, [] { benchmark::DoNotOptimize(calledAnd(&atomicWord, -5)); });
}
void BM_And_inline(benchmark::State& state) {
  compare(
      state, [] { ourAnd(); }, [] { benchmark::DoNotOptimize(inlineAnd(&atomicWord, -5)); });
}
void BM_Barrier_called(benchmark::State& state) {
  compare(
      state, [] { HostShrMemoryBarrier(); }, [] { calledFence(); });
}
void BM_Barrier_inline(benchmark::State& state) {
  compare(
      state, [] { HostShrMemoryBarrier(); }, [] { inlineFence(); });
}
void BM_LockWord_called(benchmark::State& state) {
  compare(
      state, [] { ourLock(); },
      [] {
        benchmark::DoNotOptimize(calledTryLock(&atomicWord));
        calledUnlock(&atomicWord);
      });
}
void BM_LockWord_inline(benchmark::State& state) {
  compare(
      state, [] { ourLock(); },
      [] {
        benchmark::DoNotOptimize(inlineTryLock(&atomicWord));
        inlineUnlock(&atomicWord);
      });
}

HostMutexSType mutex = PTHREAD_MUTEX_INITIALIZER;

void ourMutex() {
  HostMutexAcquire(&mutex);
  HostMutexRelease(&mutex);
}

void BM_Mutex(benchmark::State& state) {
  compare(
      state, [] { ourMutex(); },
      [] {
        pthread_mutex_lock(&mutex);
        pthread_mutex_unlock(&mutex);
      });
}

// What two checked calls cost where they are not compiled into their caller, as ours are.
int checkedLock(HostMutexSType* which) {
  if (pthread_mutex_lock(which) != 0) __builtin_trap();
  return 0;
}
int checkedUnlock(HostMutexSType* which) {
  if (pthread_mutex_unlock(which) != 0) __builtin_trap();
  return 0;
}
int (*volatile calledLock)(HostMutexSType*) = checkedLock;
int (*volatile calledUnlockMutex)(HostMutexSType*) = checkedUnlock;

void BM_Mutex_checked(benchmark::State& state) {
  compare(
      state, [] { ourMutex(); },
      [] {
        calledLock(&mutex);
        calledUnlockMutex(&mutex);
      });
}

BENCHMARK(BM_CtrAdd_called)->Iterations(pairedTurns)->UseManualTime();
BENCHMARK(BM_CtrAdd_inline)->Iterations(pairedTurns)->UseManualTime();
BENCHMARK(BM_Or_called)->Iterations(pairedTurns)->UseManualTime();
BENCHMARK(BM_Or_inline)->Iterations(pairedTurns)->UseManualTime();
BENCHMARK(BM_And_called)->Iterations(pairedTurns)->UseManualTime();
BENCHMARK(BM_And_inline)->Iterations(pairedTurns)->UseManualTime();
BENCHMARK(BM_Barrier_called)->Iterations(pairedTurns)->UseManualTime();
BENCHMARK(BM_Barrier_inline)->Iterations(pairedTurns)->UseManualTime();
BENCHMARK(BM_LockWord_called)->Iterations(pairedTurns)->UseManualTime();
BENCHMARK(BM_LockWord_inline)->Iterations(pairedTurns)->UseManualTime();
BENCHMARK(BM_Mutex)->Iterations(pairedTurns)->UseManualTime();
BENCHMARK(BM_Mutex_checked)->Iterations(pairedTurns)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
