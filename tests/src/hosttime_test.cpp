#include <povzel/hosttime.h>

#include <langinfo.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/times.h>

#include <chrono>

#include <povzel/hostinit.h>
#include <povzel/hostsigterm.h>
#include "tests.h"

static rusage* systemUsage = nullptr;  // what the system says, if it is set
static long setBackBy = 0;             // seconds

extern "C" int getrusage(__rusage_who_t who, rusage* usage) noexcept {
  if (systemUsage == nullptr) return static_cast<int>(syscall(SYS_getrusage, who, usage));
  *usage = *systemUsage;
  return 0;
}

extern "C" clock_t times(tms* usage) noexcept {
  if (systemUsage == nullptr) return syscall(SYS_times, usage);
  *usage = {1200000000, 1000000000, 0, 0};
  return 0;
}

extern "C" int gettimeofday(timeval* time, void* /*zone*/) noexcept {
  *time = {std::time(nullptr) - setBackBy, 123456};
  return 0;
}

// After days of many processors, in a forked child and with the clock set back.
TEST(HostTime, ClocksAreNeverNegative) {
  const ChildResult child = runInChild([] {
    rusage usage = {};
    systemUsage = &usage;
    usage.ru_utime = {50, 0};
    HostInit();
    for (const long seconds : {49L, 51L, 3000000L}) {
      usage.ru_stime = {seconds - 50, 7000};
      std::printf("%ld ", HostClock());
    }
    std::printf("%.0f\n", HostGetCpuTime());
    setBackBy = 100000;
    char text[100];
    HostStatistics(text, sizeof text);
    std::puts(text);
  });
  EXPECT_THAT(child.out,
              Reads("0 1007 2147483647 22000000\n ELAPSED: 0 00:00:00.~CPU: 833:20:00."));
}

TEST(HostTime, TellsTheTimeOfDay) {
  long seconds = 0, again = 0, microseconds = -1;
  unsigned short milliseconds = 1000;
  HostGetTimeOfDay(&seconds, &microseconds);
  HostFtime(&again, &milliseconds);
  EXPECT_TRUE(std::labs(seconds - std::time(nullptr)) <= 1 && again - seconds <= 1);
  EXPECT_EQ(std::pair(microseconds, +milliseconds), std::pair(123456L, 123));
}

TEST(HostTime, ZoneBySeason) {
  constexpr char newYork[] = "EST5EDT,M3.2.0,M11.1.0";
  const std::time_t january = 1705320000;
  const std::time_t july = 1721044800;
  for (const auto& [zone, time, hours] :
       {std::tuple(newYork, &january, 5), {newYork, &july, 4}, {"UTC-9", &january, -9}}) {
    setenv("TZ", zone, 1);
    EXPECT_EQ(HostTIMEZONE(time), hours * 3600) << zone;
  }
  unsetenv("TZ");
}

TEST(HostTime, StatisticsTakeWholePieces) {
  const ChildResult child = inChild([] {
    HostInit();
    std::size_t longest = 0;
    for (std::size_t size = 0; size < 200; ++size) {
      const std::string text = filled(size, HostStatistics);
      if (text.size() < longest) return 1;
      if (text.size() > longest) std::puts(text.c_str());
      longest = text.size();
    }
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(exitCode(child), 0);
  EXPECT_THAT(child.out, Reads(" ELAPSED: 0 00:00:00.~  \n ELAPSED:~CPU: 0:00:00.~  \n ELAPSED:"
                               "~FAULTS: ~  \n ELAPSED:~FIOIN: ~  \n ELAPSED:~FIOOUT: ~ \n"));
}

TEST(HostTime, FormatWithoutSecondsIsRefused) {
  const std::string standard = std::string(nl_langinfo(D_FMT)) + " " + nl_langinfo(T_FMT);
  const ChildResult child = runInChild([] {
    setenv("TV_CFTIME", "%H:%M", 1);
    std::fputs(HostDateTimeFormat(), stdout);
  });
  EXPECT_EQ(child.out, "\n[WARNING]: Invalid $TV_CFTIME: '%H:%M', using default.\n" + standard);
}

static double secondsOf(void (*action)()) {
  const auto begin = std::chrono::steady_clock::now();
  action();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

TEST(HostSleep, LastsInSpiteOfSignalsUntilAskedToEnd) {
  EXPECT_LT(secondsOf([] { HostNanoSleep(-5); }), 0.5);
  EXPECT_GE(secondsOf([] { HostNanoSleep(30999999); }), 0.029);
  startTicking([] { setBackBy = 3600; }, true);
  // Whole seconds of the wall clock, up to one of which may be missing; set back, it does not
  // count.
  const double slept = secondsOf([] { HostSleep(2); });
  EXPECT_TRUE(slept > 1.0 && slept < 3.0) << slept;
  startTicking(HostIncrementSigTerm);
  EXPECT_LT(secondsOf([] { HostSleep(1000); }), 100);
  stopTicking();
  EXPECT_EQ(HostClearSigTerm(), 1);
  setBackBy = 0;
}
