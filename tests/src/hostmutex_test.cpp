#include <povzel/hostmutex.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <thread>
#include <vector>

#include <povzel/hostdebug.h>

namespace {

TEST(HostMutex, OnlyOneThreadIsInside) {
  HostMutexSType mutex;
  HostMutexInit(&mutex);
  long guarded = 0;
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 20000; ++round) {
        HostMutexAcquire(&mutex);
        ++guarded;
        HostMutexRelease(&mutex);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(guarded, 80000);
  HostMutexDestroy(&mutex);
}

// A mutex whose calls fail: it checks its owner, and nobody owns it or this thread does.
HostMutexSType checkedMutex() {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  HostMutexSType mutex;
  pthread_mutex_init(&mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  return mutex;
}

void destroyHeld() {
  HostMutexSType mutex = checkedMutex();
  HostMutexAcquire(&mutex);
  HostMutexDestroy(&mutex);
}

void acquireHeld() {
  HostMutexSType mutex = checkedMutex();
  HostMutexAcquire(&mutex);
  HostMutexAcquire(&mutex);
}

TEST(HostMutexDeathTest, FailuresAreBrokenGuarantees) {
  struct Case {
    void (*action)();
    const char* printed;
  };
  const Case cases[] = {
      {destroyHeld, "mutexDestroy failed\n"},
      {acquireHeld, "mutexLock failed\n"},
      {[] { HostMutexInit(nullptr); }, ""},
      {[] { HostMutexDestroy(nullptr); }, "mutexDestroy failed\n"},
      {[] { HostMutexAcquire(nullptr); }, "mutexLock failed\n"},
      {[] { HostMutexError(-7); }, "HostMutexError :  caller line -7\n"},
  };
  for (const Case& c : cases) {
    EXPECT_EXIT(
        {
          dup2(STDERR_FILENO, STDOUT_FILENO);
          c.action();
        },
        testing::ExitedWithCode(3),
        std::string("^") + c.printed +
            "UTL_GUARANTEE failure in file src/hostmutex at line [0-9]+\n");
  }
}

TEST(HostMutex, FailedReleaseIsReportedAndGoesOn) {
  HostMutexSType mutex = checkedMutex();
  testing::internal::CaptureStdout();
  HostMutexRelease(&mutex);
  HostMutexRelease(nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "mutexUnLock failed=nmutexUnLock failed=n");
  HostMutexDestroy(&mutex);
}

}  // namespace
