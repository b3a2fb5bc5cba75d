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
  const auto restarted = [] {
    HostInit();
    return HostClock() < 40 ? 0 : 1;
  };
  EXPECT_EQ(exitCode(inChild(restarted)), 0) << "the clock counts from the start";
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
      // Whatever is new fits exactly.
      if (used > longest) std::printf("%d%s\n", static_cast<int>(size - used), text.c_str());
      longest = used;
    }
    return 0;
  });
  EXPECT_EQ(exitCode(child), 0);
  const std::string elapsed = "1 ELAPSED: 0 00:00:00\\.[0-9][0-9]  ";
  const std::string cpu = elapsed + "CPU: 0:00:00\\.[0-9][0-9]  ";
  const std::string faults = cpu + "FAULTS: [0-9]+  ";
  const std::string in = faults + "FIOIN: [0-9]+  ";
  EXPECT_THAT(child.out, testing::MatchesRegex(elapsed + "\n" + cpu + "\n" + faults + "\n" + in +
                                               "\n" + in + "FIOOUT: [0-9]+ \n"));
}

TEST(HostTime, FormatWithoutSecondsIsRefused) {
  const std::string standard = std::string(nl_langinfo(D_FMT)) + " " + nl_langinfo(T_FMT);
  const ChildResult child = runInChild([] {
    setenv("TV_CFTIME", "%H:%M", 1);
    std::fputs(HostDateTimeFormat(), stdout);
  });
  EXPECT_EQ(child.out, "\n[WARNING]: Invalid $TV_CFTIME: '%H:%M', using default.\n" + standard);
}

TEST(HostTime, LocaleRecord) {
  EXPECT_EQ(HostLocale(), HostLocale());
  EXPECT_TRUE(HostSetLocale(LC_NUMERIC, "C"));
  EXPECT_FALSE(HostSetLocale(LC_ALL, "no_SUCH.locale"));
  EXPECT_EQ(std::string(HostLocale()->decimal_point) + HostDecimalPoint(), "..");
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
  EXPECT_LT(secondsOf([] { HostMilliSleep(999); }), 0.9);  // its fraction is not resumed
  stopTicking();
  EXPECT_EQ(HostClearSigTerm(), 1);
}

}  // namespace
