#include <sys/time.h>

#include <ctime>

#include <povzel/hostusers.h>
#include <povzel/utllogname.h>
#include <povzel/utltime.h>
#include "basics/fortests.h"
#include "services/internal.h"
#include "tests.h"

static long long second = 0;
static long microsecond = 0;

extern "C" int gettimeofday(struct timeval* time, void* /*zone*/) noexcept {
  *time = {static_cast<time_t>(second), microsecond};
  return time->tv_sec == second ? 0 : -1;
}

// The C library's clock for what that one cannot say.
extern "C" int clockOf64Bits(clockid_t /*clock*/, long long* time) noexcept
    __asm__("__clock_gettime64");
int clockOf64Bits(clockid_t /*clock*/, long long* time) noexcept {
  time[0] = second;
  time[1] = microsecond * 1000;
  return 0;
}

// The clock of this program stands at `seconds` and `milliseconds`.
static void setClock(long long seconds, long milliseconds, const char* zone = "UTC") {
  setenv("TV_CFTIME", "%Y-%m-%d %H:%M:%S", 1);
  setenv("TZ", zone, 1);
  tzset();
  second = seconds;
  microsecond = milliseconds * 1000;
}

// In a handler a date looks the same, but for rare directives. A format beyond 40 characters ends
// before the directive that it is cut in.
TEST(UtlCtime, IsTheSameInAHandler) {
  const std::pair<const char*, const char*> formats[] = {
      {"%a %A %b %B %d%H%M%e%h%I %j%m%p %r%R%S", ""},
      {"%D %F %T %y %Y %Z %%%S", ""},
      {"%k:%S", "1970-01-01 00:00:00 UTC\n~"},
      {"%d.%m.%Y um exakt die folgende Uhrzeit %-H:%M:%S",
       "\n[WARNING]: The date format is too long, using '%d.%m.%Y um exakt die folgende Uhrzeit "
       "'.\n"},
  };
  for (const auto& [format, said] : formats) {
    const ChildResult child = runInChild([format = format] {
      setClock(0, 0);
      setenv("TV_CFTIME", format, 1);
      for (const int hours : {0, 12, 1000, 500000}) {
        second = hours * 3600LL;
        ZelCTimeStringType date, safe;
        utlCtimeOfNow(&date);
        if (utlSafeCtimeOfNow(&safe) != std::string(date.msg)) std::puts(safe.msg);
      }
    });
    EXPECT_THAT(child.out, Reads(said));
  }
}

TEST(UtlTimeStamp, IsSuppressedWithinNineMillisecondsAndHasOtherForms) {
  const std::tuple<long long, long, const char*, const char*, BoolType, const char*> steps[] = {
      {86400, 995, "UTC", "a", 0, "[1970-01-02 00:00:00.995 UTC]\n    a"},
      {86401, 4, "UTC", "b", 1, "    b\n"},  // 9 ms later, in the next second
      {86401, 4, "UTC", nullptr, 1, ""},
      {86401, 5, "UTC", "c", 1, "[1970-01-02 00:00:01.005 UTC]\n    c\n"},
      {86400, 0, "UTC", "set back", 0, "[1970-01-02 00:00:00.000 UTC]\n    set back"},
      {86400, 500, "AAA-2", nullptr, 1, "[1970-01-02 02:00:00.500 AAA]\n"},
      {4118083200, 7, "EST5EDT,M3.2.0,M11.1.0", nullptr, 1, "[2100-06-30 20:00:00.007 EDT]\n"}};
  for (const auto& [seconds, milliseconds, zone, text, addCr, expected] : steps) {
    setClock(seconds, milliseconds, zone);
    const auto stamp = [text = text, addCr = addCr] { UtlTimeStampMs_s(stdout, text, addCr); };
    EXPECT_EQ(printed(stamp), expected);
    ZelCTimeStringType date, safe;
    EXPECT_STREQ(utlCtimeOfNow(&date), utlSafeCtimeOfNow(&safe));
  }
  setClock(86400, 7);
  const auto others = [] {
    UtlTimeStampMs_f(stdout);
    UtlTimeStampMs_time_t_f(stdout);
    ZelCTimeStringType own;
    std::printf("%s %s %s", UtlTimeStampMs_str(), UtlCtime(86400), UtlCtime(0, &own));
  };
  EXPECT_EQ(printed(others),
            "1970-01-02 00:00:00.007 \"1970-01-02 00:00:00.007\" 86400 "
            "1970-01-02 00:00:00.007 UTC: 1970-01-02 00:00:00 UTC 1970-01-01 00:00:00 UTC");
}

TEST(UtlTimeStamp, FillsTheCallersBufferAndNoMore) {
  setClock(0, 0);
  const std::string whole = "1970-01-02 00:00:00.065 UTC";
  const auto stamp = [](char* text, std::size_t size) {
    UtlTimeStampMsStr(86400, 65, text, size, 1);
  };
  EXPECT_EQ(filled(0, stamp), "");
  for (std::size_t size = 1; size <= whole.size() + 3; ++size) {
    const char* newLine = size >= whole.size() + 2 ? "\n" : "";
    EXPECT_EQ(filled(size, stamp), whole.substr(0, size - 1) + newLine);
  }
}

TEST(UtlExpandLogName, ReplacesDirectivesAndEndsBeforeWhatDoesNotFit) {
  osCallsForTests.gethostname = [](char*, std::size_t) noexcept { return -1; };
  const std::string pid = std::to_string(getpid());
  using Row = std::tuple<const char*, const char*, const char*, std::string, BoolType, std::size_t>;
  const Row cases[] = {
      // template, user, home directory, name, whether that is complete, size
      {"%N%P.log", nullptr, nullptr, "logger" + pid + ".log", 1, 300},
      {"%%U%Q%U%", "ada", nullptr, "%U%Qada%", 1, 300},
      {"%U@%M", nullptr, nullptr, HostGetUserName() + std::string("@localhost"), 1, 300},
      {"%Hx", "no such user", nullptr, "%Hx", 0, 300},
      {"ab%U", "ada", "", "abad", 0, 5},
      {"ab%Uc", "ada", "", "ab", 0, 4},
      {"abcd", "", "", std::string(301, '#'), 0, 0},
      {"%H", "", "/h", "/h/", 1, 4},
      {"%H", "", "/h", "/h", 0, 3},
  };
  for (const auto& [logTemplate, username, homedir, expected, complete, size] : cases) {
    std::string name(301, '#');
    EXPECT_EQ(UtlExpandLogName(logTemplate, name.data(), size, "/usr/local/bin/logger.x y",
                               username, homedir, nullptr, 0),
              complete);
    EXPECT_EQ(name.c_str(), expected) << logTemplate << " in " << size;
    EXPECT_EQ(name[size], '#');
  }
  char name[9];
  const auto expand = [&] { UtlExpandLogName("%%M", name, 9, "", "", "", nullptr, 0); };
  EXPECT_EQ(runInChild(expand).out, "") << "the host is not asked for";
}
