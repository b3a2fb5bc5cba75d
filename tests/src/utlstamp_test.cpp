#include <gtest/gtest.h>
#include <sys/time.h>

#include <cstring>

#include <povzel/hostusers.h>
#include <povzel/utllogname.h>
#include <povzel/utltime.h>
#include "basics/fortests.h"
#include "process.h"

namespace {

timeval now = {};

// The clock of this program stands at `seconds` and `milliseconds`, in UTC.
void setClock(long seconds, long milliseconds) {
  setenv("TV_CFTIME", "%Y-%m-%d %H:%M:%S", 1);
  setenv("TZ", "UTC", 1);
  now = {seconds, milliseconds * 1000};
}

}  // namespace

extern "C" int gettimeofday(struct timeval* time, void* /*zone*/) noexcept {
  *time = now;
  return 0;
}

namespace {

std::string stamped(const char* text, BoolType addCr) {
  testing::internal::CaptureStdout();
  UtlTimeStampMs_s(stdout, text, addCr);
  return testing::internal::GetCapturedStdout();
}

TEST(UtlTimeStamp, IsSuppressedWithinNineMilliseconds) {
  setClock(86399, 0);
  stamped(nullptr, 0);
  const std::tuple<long, long, const char*, BoolType, const char*> steps[] = {
      {86400, 995, "a", 0, "[1970-01-02 00:00:00.995 UTC]\n    a"},
      {86400, 995, "b", 0, "    b"},
      {86400, 995, nullptr, 1, ""},
      {86401, 4, "c", 1, "    c\n"},  // 9 ms later, in the next second
      {86401, 5, "d", 1, "[1970-01-02 00:00:01.005 UTC]\n    d\n"},
      {86401, 15, nullptr, 1, "[1970-01-02 00:00:01.015 UTC]\n"},
      {86403, 15, "e", 0, "[1970-01-02 00:00:03.015 UTC]\n    e"},
      {86402, 0, "set back", 0, "[1970-01-02 00:00:02.000 UTC]\n    set back"},
      {90000, 0, nullptr, 0, "[1970-01-02 01:00:00.000 UTC]"},
  };
  for (const auto& [seconds, milliseconds, text, addCr, expected] : steps) {
    setClock(seconds, milliseconds);
    EXPECT_EQ(stamped(text, addCr), expected);
  }
  // Another zone takes effect within the second.
  setClock(90000, 500);
  setenv("TZ", "AAA-2", 1);
  tzset();
  EXPECT_EQ(stamped(nullptr, 0), "[1970-01-02 03:00:00.500 AAA]");
  setClock(0, 0);
  tzset();
}

TEST(UtlTimeStamp, HasOtherForms) {
  setClock(86400, 7);
  testing::internal::CaptureStdout();
  UtlTimeStampMs_f(stdout);
  UtlTimeStampMs_time_t_f(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "1970-01-02 00:00:00.007 \"1970-01-02 00:00:00.007\" 86400 ");
  EXPECT_STREQ(UtlTimeStampMs_str(), "1970-01-02 00:00:00.007 UTC:");
  EXPECT_EQ(UtlTimeStampMs_str(), UtlTimeStampMs_str());
  EXPECT_STREQ(UtlCtime(86400), "1970-01-02 00:00:00 UTC");
  ZelCTimeStringType own;
  EXPECT_EQ(UtlCtime(0, &own), own.msg);
  EXPECT_STREQ(own.msg, "1970-01-01 00:00:00 UTC");
}

TEST(UtlTimeStamp, FillsTheCallersBufferAndNoMore) {
  setClock(0, 0);
  const std::string whole = "1970-01-02 00:00:00.065 UTC";
  for (std::size_t size = 0; size <= whole.size() + 3; ++size) {
    std::string buffer(size + 1, '#');
    UtlTimeStampMsStr(86400, 65, buffer.data(), size, 1);
    EXPECT_EQ(buffer[size], '#');
    if (size == 0) continue;
    const char* newLine = size >= whole.size() + 2 ? "\n" : "";
    EXPECT_EQ(buffer.c_str(), whole.substr(0, size - 1) + newLine);
  }
}

struct LogNameCase {
  const char* logTemplate;
  const char* execStr;
  const char* username;
  const char* homedir;
  std::string expected;
  BoolType complete = 1;
  std::size_t size = 300;
};

TEST(UtlExpandLogName, ReplacesDirectivesAndEndsBeforeWhatDoesNotFit) {
  osCallsForTests.gethostname = [](char*, std::size_t) noexcept { return -1; };
  const std::string pid = std::to_string(getpid());
  const LogNameCase cases[] = {
      {"%N%P.log", "/usr/local/bin/logger.x", nullptr, nullptr, "logger" + pid + ".log"},
      {"%N", "bin/my prog", nullptr, nullptr, "my"},
      {"<%N>", "/a/.hidden", nullptr, nullptr, "<>"},
      {"%%U %U", "", "ada", nullptr, "%U ada"},
      {"%U", "", nullptr, nullptr, HostGetUserName()},
      {"%M", "", nullptr, nullptr, "localhost"},
      {"%Hx", "", "ada", "/home/a", "/home/a/x"},
      {"%Hx", "", "no such user", nullptr, "%Hx", 0},
      {"%Q%", "", nullptr, nullptr, "%Q%"},
      {"%%%Q", "", nullptr, nullptr, "%%Q"},
      {"", "", nullptr, nullptr, ""},
      {"abcd", "", "", "", "abcd", 1, 5},
      {"abcd", "", "", "", "abc", 0, 4},
      {"abcd", "", "", "", "", 0, 1},
      {"a%U", "", "ada", "", "aada", 1, 5},
      {"a%U", "", "ada", "", "aad", 0, 4},
      {"ab%Uc", "", "ada", "", "ab", 0, 4},
      {"%H", "", "", "/h", "/h/", 1, 4},
      {"%H", "", "", "/h", "/h", 0, 3},
      {"%H", "", "", "/h", "", 0, 2},
  };
  for (const LogNameCase& one : cases) {
    SCOPED_TRACE(std::string(one.logTemplate) + " " + std::to_string(one.size));
    std::string name(301, '#');
    EXPECT_EQ(UtlExpandLogName(one.logTemplate, name.data(), one.size, one.execStr, one.username,
                               one.homedir, nullptr, 0),
              one.complete);
    EXPECT_EQ(name.c_str(), one.expected);
    EXPECT_EQ(name[one.size], '#');
  }
  char untouched = '#';
  EXPECT_EQ(UtlExpandLogName("a", &untouched, 0, "", "", "", nullptr, 0), 0);
  EXPECT_EQ(untouched, '#');
}

}  // namespace
