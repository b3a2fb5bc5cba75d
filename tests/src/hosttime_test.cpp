#include <povzel/hosttime.h>

#include <langinfo.h>

#include <chrono>

#include <povzel/hostinit.h>
#include <povzel/hostsigterm.h>
#include "tests.h"

namespace {

double secondsOf(void (*action)()) {
  const auto begin = std::chrono::steady_clock::now();
  action();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

TEST(HostTime, ClocksAdvance) {
  long seconds = 0;
  long again = 0;
  long microseconds = -1;
  unsigned short milliseconds = 1000;
  HostGetTimeOfDay(&seconds, &microseconds);
  HostFtime(&again, &milliseconds);
  EXPECT_TRUE(std::labs(seconds - std::time(nullptr)) <= 1 && again - seconds <= 1);
  EXPECT_TRUE(microseconds >= 0 && microseconds < 1000000 && milliseconds < 1000);
  const long before = HostClock();
  const double cpu = HostGetCpuTime();
  const std::clock_t start = std::clock();
  while (std::clock() - start < CLOCKS_PER_SEC / 20) {
  }
  EXPECT_TRUE(HostClock() - before >= 40 && HostClock() - before < 1000) << before;
  EXPECT_TRUE(HostGetCpuTime() - cpu >= 0.02 && HostGetCpuTime() - cpu < 1) << cpu;
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
      std::string text(size + 1, '#');
      HostStatistics(text.data(), size);
      const std::size_t used = std::min(size, std::strlen(text.c_str()));
      if (used < longest || text[size] != '#') return 1;
      if (used > longest) std::puts(text.c_str());
      longest = used;
    }
    return 0;
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

TEST(HostSleep, LastsInSpiteOfSignals) {
  EXPECT_LT(secondsOf([] { HostNanoSleep(-5); }), 0.5);
  EXPECT_GE(secondsOf([] { HostNanoSleep(30999999); }), 0.029);
  startTicking([] {}, true);
  // Whole seconds of the wall clock: up to one may be missing.
  const double slept = secondsOf([] { HostSleep(2); });
  stopTicking();
  EXPECT_TRUE(slept > 1.0 && slept < 3.0) << slept;
}

TEST(HostSleep, EndsWhenAskedToEnd) {
  startTicking(HostIncrementSigTerm);
  EXPECT_LT(secondsOf([] { HostSleep(1000); }), 100);
  stopTicking();
  EXPECT_EQ(HostClearSigTerm(), 1);
}

}  // namespace
