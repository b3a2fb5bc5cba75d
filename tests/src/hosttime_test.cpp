#include <povzel/hosttime.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <langinfo.h>

#include <chrono>
#include <cstring>

#include <povzel/hostinit.h>
#include <povzel/hostsigterm.h>
#include "surroundings.h"
#include "ticking.h"

namespace {

using testing::MatchesRegex;

double secondsOf(void (*action)()) {
  const auto begin = std::chrono::steady_clock::now();
  action();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

TEST(HostTime, ClocksAdvance) {
  long seconds = 0;
  long microseconds = 0;
  HostGetTimeOfDay(&seconds, &microseconds);
  long again = 0;
  unsigned short milliseconds = 1000;
  HostFtime(&again, &milliseconds);
  EXPECT_LE(std::labs(seconds - std::time(nullptr)), 1);
  EXPECT_LE(again - seconds, 1);
  EXPECT_LT(milliseconds, 1000);
  EXPECT_LT(microseconds, 1000000);

  const long before = HostClock();
  const double cpu = HostGetCpuTime();
  const std::clock_t start = std::clock();
  while (std::clock() - start < CLOCKS_PER_SEC / 20) {
  }
  EXPECT_GE(HostClock() - before, 40);
  EXPECT_LT(HostClock() - before, 1000);
  EXPECT_GE(HostGetCpuTime() - cpu, 0.02);
  EXPECT_LT(HostGetCpuTime() - cpu, 1);
}

TEST(HostTime, ClockCountsFromInit) {
  const ChildResult child = inChild([] {
    const std::clock_t start = std::clock();
    while (std::clock() - start < CLOCKS_PER_SEC / 20) {
    }
    const long before = HostClock();
    HostInit();
    return before >= 40 && HostClock() < 40 ? 0 : 1;
  });
  EXPECT_EQ(exitCode(child), 0);
}

TEST(HostTime, ZoneBySeason) {
  const ChildResult child = inChild([] {
    setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1);
    const std::time_t winter = 1705320000;  // 15 January 2024
    const std::time_t summer = 1721044800;  // 15 July 2024
    if (HostTIMEZONE(&winter) != 5 * 3600 || HostTIMEZONE(&summer) != 4 * 3600) return 1;
    setenv("TZ", "UTC-9", 1);
    return HostTIMEZONE(&summer) == -9 * 3600 ? 0 : 2;
  });
  EXPECT_EQ(exitCode(child), 0);
}

TEST(HostTime, StatisticsTakeWholePieces) {
  const ChildResult child = inChild([] {
    HostInit();
    char whole[200];
    HostStatistics(whole, sizeof whole);
    std::puts(whole);
    const std::size_t length = std::strlen(whole);
    std::size_t longest = 0;
    for (std::size_t size = 0; size <= length + 1; ++size) {
      char text[201];
      std::memset(text, '#', sizeof text);
      HostStatistics(text, size);
      if (text[size] != '#') return 1;
      if (size == 0) continue;
      const std::size_t used = std::strlen(text);
      if (used >= size || used < longest) return 2;
      if (used > 0 && text[used - 1] != ' ') return 3;
      if (size == 10 && used != 0) return 4;
      longest = used;
    }
    return 0;
  });
  EXPECT_EQ(exitCode(child), 0);
  EXPECT_THAT(child.out,
              MatchesRegex(" ELAPSED: 0 00:00:00\\.[0-9][0-9]  CPU: 0:00:00\\.[0-9][0-9]  "
                           "FAULTS: [0-9]+  FIOIN: [0-9]+  FIOOUT: [0-9]+ \n"));
}

TEST(HostTime, FormatByVariable) {
  const std::string standard = std::string(nl_langinfo(D_FMT)) + " " + nl_langinfo(T_FMT);
  const std::string longest = std::string(99, ' ') + "S";
  struct Case {
    std::string variable;
    std::string expected;
    bool warned;
  };
  const Case cases[] = {
      {"%Y %H:%M:%S", "%Y %H:%M:%S", false},
      {"%H:%M", standard, true},
      {"", standard, false},
      {longest, longest, false},
      {" " + longest, standard, false},
  };
  for (const Case& c : cases) {
    const ChildResult child = inChild([&] {
      setenv("TV_CFTIME", c.variable.c_str(), 1);
      const char* format = HostDateTimeFormat();
      setenv("TV_CFTIME", "S", 1);
      return format == c.expected && HostDateTimeFormat() == format ? 0 : 1;
    });
    EXPECT_EQ(exitCode(child), 0) << c.variable;
    const std::string warning =
        "\n[WARNING]: Invalid $TV_CFTIME: '" + c.variable + "', using default.\n";
    EXPECT_EQ(child.out, c.warned ? warning : "");
  }
}

TEST(HostTime, LocaleRecord) {
  EXPECT_EQ(HostLocale(), HostLocale());
  EXPECT_EQ(HostDecimalPoint(), '.');
  EXPECT_TRUE(HostSetLocale(LC_NUMERIC, "C"));
  EXPECT_FALSE(HostSetLocale(LC_ALL, "no_SUCH.locale"));
  EXPECT_STREQ(HostLocale()->decimal_point, ".");
}

TEST(HostSleep, LastsInSpiteOfSignals) {
  EXPECT_LT(secondsOf([] {
              HostSleep(0);
              HostNanoSleep(-5);
              HostNanoSleep(999999);
            }),
            0.5);
  EXPECT_GE(secondsOf([] { HostMilliSleep(30); }), 0.029);
  EXPECT_GE(secondsOf([] { HostNanoSleep(30999999); }), 0.029);
  startTicking([] {}, true);
  // Whole seconds of the wall clock: up to one may be missing.
  const double slept = secondsOf([] { HostSleep(2); });
  stopTicking();
  EXPECT_GT(slept, 1.0);
  EXPECT_LT(slept, 3.0);
  EXPECT_GT(ticks, 100);
}

TEST(HostSleep, EndsWhenAskedToEnd) {
  startTicking(HostIncrementSigTerm);
  EXPECT_LT(secondsOf([] { HostSleep(1000); }), 100);
  // The fraction is not resumed after a signal.
  EXPECT_LT(secondsOf([] { HostMilliSleep(999); }), 0.9);
  stopTicking();
  EXPECT_EQ(HostClearSigTerm(), 1);
  EXPECT_EQ(HostGetSigTerm_(), 0);
}

}  // namespace
