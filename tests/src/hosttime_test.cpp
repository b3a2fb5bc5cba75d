#include <povzel/hosttime.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <langinfo.h>

#include <chrono>
#include <cstring>

#include <povzel/hostinit.h>
#include <povzel/hostsigterm.h>
#include "process.h"

namespace {

double secondsOf(void (*action)()) {
  const auto begin = std::chrono::steady_clock::now();
  action();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

void useCpu() {
  const std::clock_t start = std::clock();
  while (std::clock() - start < CLOCKS_PER_SEC / 20) {
  }
}

TEST(HostTime, ClocksAdvance) {
  long seconds = 0;
  long microseconds = -1;
  HostGetTimeOfDay(&seconds, &microseconds);
  long again = 0;
  unsigned short milliseconds = 1000;
  HostFtime(&again, &milliseconds);
  EXPECT_LE(std::labs(seconds - std::time(nullptr)), 1);
  EXPECT_LE(again - seconds, 1);
  EXPECT_LT(milliseconds, 1000);
  EXPECT_TRUE(microseconds >= 0 && microseconds < 1000000);

  useCpu();
  const long before = HostClock();
  const double cpu = HostGetCpuTime();
  useCpu();
  EXPECT_TRUE(before >= 40 && HostClock() - before >= 40 && HostClock() - before < 1000) << before;
  EXPECT_TRUE(HostGetCpuTime() - cpu >= 0.02 && HostGetCpuTime() - cpu < 1) << cpu;
  const ChildResult child = inChild([] {
    useCpu();
    HostInit();
    return HostClock() < 40 ? 0 : 1;
  });
  EXPECT_EQ(exitCode(child), 0) << "the clock counts from the start";
}

TEST(HostTime, ZoneBySeason) {
  const std::time_t winter = 1705320000;  // 15 January 2024
  const std::time_t summer = 1721044800;  // 15 July 2024
  setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1);
  EXPECT_EQ(HostTIMEZONE(&winter), 5 * 3600);
  EXPECT_EQ(HostTIMEZONE(&summer), 4 * 3600);
  setenv("TZ", "UTC-9", 1);
  EXPECT_EQ(HostTIMEZONE(&summer), -9 * 3600);
  unsetenv("TZ");
}

TEST(HostTime, StatisticsTakeWholePieces) {
  const ChildResult child = inChild([] {
    HostInit();
    char whole[200];
    HostStatistics(whole, sizeof whole);
    std::fputs(whole, stdout);
    std::size_t longest = 0;
    for (std::size_t size = 1; size <= std::strlen(whole) + 1; ++size) {
      std::string text(size + 1, '#');
      HostStatistics(text.data(), size);
      const std::size_t used = std::strlen(text.c_str());
      if (text[size] != '#' || used >= size || used < longest) return 1;
      if ((used > 0 && text[used - 1] != ' ') || (size == 10 && used != 0)) return 2;
      longest = used;
    }
    char untouched = '#';
    HostStatistics(&untouched, 0);
    return untouched == '#' ? 0 : 3;
  });
  EXPECT_EQ(exitCode(child), 0);
  EXPECT_THAT(child.out,
              testing::MatchesRegex(" ELAPSED: 0 00:00:00\\.[0-9][0-9]  CPU: 0:00:00\\.[0-9][0-9]  "
                                    "FAULTS: [0-9]+  FIOIN: [0-9]+  FIOOUT: [0-9]+ "));
}

TEST(HostTime, FormatByVariable) {
  const std::string standard = std::string(nl_langinfo(D_FMT)) + " " + nl_langinfo(T_FMT);
  const std::string longest = std::string(99, ' ') + "S";
  const std::string refused = "\n[WARNING]: Invalid $TV_CFTIME: '%H:%M', using default.\n";
  const std::pair<std::string, std::string> cases[] = {
      {"%Y %H:%M:%S", "%Y %H:%M:%S"},
      {"%H:%M", refused + standard},
      {"", standard},
      {longest, longest},
      {" " + longest, standard},
  };
  for (const auto& [variable, output] : cases) {
    const ChildResult child = inChild([&, &value = variable] {
      setenv("TV_CFTIME", value.c_str(), 1);
      const char* format = HostDateTimeFormat();
      std::fputs(format, stdout);
      setenv("TV_CFTIME", "S", 1);
      return HostDateTimeFormat() == format ? 0 : 1;
    });
    EXPECT_EQ(exitCode(child), 0);
    EXPECT_EQ(child.out, output);
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
  const auto briefly = [] {
    HostSleep(0);
    HostNanoSleep(-5);
    HostNanoSleep(999999);
  };
  EXPECT_LT(secondsOf(briefly), 0.5);
  EXPECT_GE(secondsOf([] { HostMilliSleep(30); }), 0.029);
  EXPECT_GE(secondsOf([] { HostNanoSleep(30999999); }), 0.029);
  startTicking([] {}, true);
  // Whole seconds of the wall clock: up to one may be missing.
  const double slept = secondsOf([] { HostSleep(2); });
  stopTicking();
  EXPECT_TRUE(slept > 1.0 && slept < 3.0) << slept;
  EXPECT_GT(ticks, 100);
}

TEST(HostSleep, EndsWhenAskedToEnd) {
  startTicking(HostIncrementSigTerm);
  EXPECT_LT(secondsOf([] { HostSleep(1000); }), 100);
  EXPECT_LT(secondsOf([] { HostMilliSleep(999); }), 0.9);  // its fraction is not resumed
  stopTicking();
  EXPECT_EQ(HostClearSigTerm(), 1);
  EXPECT_EQ(HostGetSigTerm_(), 0);
}

}  // namespace
