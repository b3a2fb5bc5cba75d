#include <povzel/hostthread.h>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>

namespace {

void* giveBack(void* arg) {
  return arg;
}

// The stack size of the thread that runs it.
void* ownStackSize(void* /*arg*/) {
  pthread_attr_t attributes;
  pthread_getattr_np(pthread_self(), &attributes);
  std::size_t size = 0;
  pthread_attr_getstacksize(&attributes, &size);
  pthread_attr_destroy(&attributes);
  return reinterpret_cast<void*>(size);
}

void* exitWithId(void* /*arg*/) {
  HostThreadExit(reinterpret_cast<void*>(HostThreadSelf()));
}

void* join(HostThreadType thread) {
  void* value = nullptr;
  EXPECT_EQ(HostThreadJoin(thread, &value), 0);
  return value;
}

std::size_t defaultStackSize() {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  std::size_t size = 0;
  pthread_attr_getstacksize(&attributes, &size);
  pthread_attr_destroy(&attributes);
  return size;
}

TEST(HostThread, RunsJoinsAndExits) {
  HostThreadType thread;
  int word = 0;
  ASSERT_EQ(HostThreadCreate(&thread, giveBack, &word, 0), 0);
  EXPECT_EQ(join(thread), &word);
  ASSERT_EQ(HostThreadCreate(&thread, exitWithId, nullptr, 0), 0);
  const HostThreadType id = thread;
  EXPECT_EQ(HostThreadEqual(id, thread), 1);
  EXPECT_EQ(HostThreadEqual(id, HostThreadSelf()), 0);
  EXPECT_EQ(reinterpret_cast<HostThreadType>(join(thread)), id);
  EXPECT_EQ(HostThreadJoin(HostThreadSelf(), nullptr), EDEADLK);
}

TEST(HostThread, KillSendsTheSignalToThatThread) {
  static HostThreadType receiver;
  receiver = 0;
  struct sigaction action = {};
  struct sigaction before;
  action.sa_handler = [](int) { receiver = HostThreadSelf(); };
  sigaction(SIGUSR2, &action, &before);
  EXPECT_EQ(HostThreadKill(HostThreadSelf(), SIGUSR2), 0);
  EXPECT_EQ(receiver, HostThreadSelf());
  EXPECT_EQ(HostThreadKill(HostThreadSelf(), 0), 0);
  EXPECT_EQ(HostThreadKill(HostThreadSelf(), 12345), EINVAL);
  sigaction(SIGUSR2, &before, nullptr);
}

TEST(HostThread, StackIsAtLeastTheMinimumInWholePages) {
  const std::size_t least = defaultStackSize();
  const struct {
    std::size_t minimum;
    std::size_t size;
  } cases[] = {{0, least},
               {1, least},
               {least, least},
               {least + 1, least + 4096},
               {least + 4096, least + 4096},
               {2 * least - 5, 2 * least}};
  for (const auto& c : cases) {
    HostThreadType thread;
    testing::internal::CaptureStdout();
    ASSERT_EQ(HostThreadCreate(&thread, ownStackSize, nullptr, c.minimum), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(reinterpret_cast<std::size_t>(join(thread)), c.size);
  }
}

TEST(HostThread, StacksLargerThanMemoryFailToStart) {
  for (const std::size_t size : {0xFFFFF000U, 0xFFFFF001U, 0xFFFFFFFFU}) {
    HostThreadType thread;
    EXPECT_NE(HostThreadCreate(&thread, giveBack, nullptr, size), 0);
  }
}

// Ends the process with the result of starting a thread under `limit`.
[[noreturn]] void startUnder(__rlimit_resource resource, const rlimit& limit) {
  if (setrlimit(resource, &limit) != 0) _exit(99);
  HostThreadType thread;
  _exit(HostThreadCreate(&thread, giveBack, nullptr, 0));
}

TEST(HostThreadDeathTest, FailsWhenAddressSpaceIsUsedUp) {
#ifdef POVZEL_SANITIZE
  GTEST_SKIP() << "the sanitizer needs the address space";
#endif
  EXPECT_EXIT(startUnder(RLIMIT_AS, {1, 1}), testing::ExitedWithCode(EAGAIN), "");
}

TEST(HostThreadDeathTest, FailsWhenTheUserHasTooManyThreads) {
  EXPECT_EXIT(
      {
        // The limit does not bind the superuser.
        if (geteuid() == 0 && setuid(65534) != 0) _exit(98);
        startUnder(RLIMIT_NPROC, {0, 0});
      },
      testing::ExitedWithCode(EAGAIN), "");
}

}  // namespace
