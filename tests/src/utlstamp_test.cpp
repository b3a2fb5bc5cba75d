#include <sys/time.h>

#include <ctime>

#include <povzel/hostusers.h>
#include <povzel/utllogname.h>
#include <povzel/utltime.h>
#include "basics/fortests.h"
#include "tests.h"

namespace {

timeval now = {};

// The clock of this program stands at `seconds` and `milliseconds`.
void setClock(long seconds, long milliseconds, const char* zone = "UTC") {
  setenv("TV_CFTIME", "%Y-%m-%d %H:%M:%S", 1);
  setenv("TZ", zone, 1);
  tzset();
  now = {seconds, milliseconds * 1000};
}

}  // namespace

extern "C" int gettimeofday(struct timeval* time, void* /*zone*/) noexcept {
  *time = now;
  return 0;
}

namespace {

TEST(UtlTimeStamp, IsSuppressedWithinNineMilliseconds) {
  const struct {
    long seconds, milliseconds;
    const char* text;
    BoolType addCr;
    const char* expected;
    const char* zone = "UTC";
  } steps[] = {
      {86400, 995, "a", 0, "[1970-01-02 00:00:00.995 UTC]\n    a"},
      {86400, 995, "b", 0, "    b"},
      {86400, 995, nullptr, 1, ""},
      {86401, 4, "c", 1, "    c\n"},  // 9 ms later, in the next second
      {86401, 5, "d", 1, "[1970-01-02 00:00:01.005 UTC]\n    d\n"},
      {86401, 15, nullptr, 1, "[1970-01-02 00:00:01.015 UTC]\n"},
      {86403, 15, "e", 0, "[1970-01-02 00:00:03.015 UTC]\n    e"},
      {86402, 0, "set back", 0, "[1970-01-02 00:00:02.000 UTC]\n    set back"},
      {90000, 0, nullptr, 0, "[1970-01-02 01:00:00.000 UTC]"},
      {90000, 500, nullptr, 0, "[1970-01-02 03:00:00.500 AAA]", "AAA-2"},
  };
  for (const auto& [seconds, milliseconds, text, addCr, expected, zone] : steps) {
    setClock(seconds, milliseconds, zone);
    testing::internal::CaptureStdout();
    UtlTimeStampMs_s(stdout, text, addCr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), expected);
  }
}

TEST(UtlTimeStamp, HasOtherForms) {
  setClock(86400, 7);
  testing::internal::CaptureStdout();
  UtlTimeStampMs_f(stdout);
  UtlTimeStampMs_time_t_f(stdout);
  ZelCTimeStringType own;
  std::printf("%s %s %s", UtlTimeStampMs_str(), UtlCtime(86400), UtlCtime(0, &own));
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "1970-01-02 00:00:00.007 \"1970-01-02 00:00:00.007\" 86400 "
            "1970-01-02 00:00:00.007 UTC: 1970-01-02 00:00:00 UTC 1970-01-01 00:00:00 UTC");
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

TEST(UtlExpandLogName, ReplacesDirectivesAndEndsBeforeWhatDoesNotFit) {
  osCallsForTests.gethostname = [](char*, std::size_t) noexcept { return -1; };
  const std::string pid = std::to_string(getpid());
  const struct {
    const char *logTemplate, *execStr, *username, *homedir;
    std::string expected;
    BoolType complete = 1;
    std::size_t size = 300;
  } cases[] = {
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
      {"abcd", "", "", "", std::string(301, '#'), 0, 0},
      {"a%U", "", "ada", "", "aada", 1, 5},
      {"a%U", "", "ada", "", "aad", 0, 4},
      {"ab%Uc", "", "ada", "", "ab", 0, 4},
      {"%H", "", "", "/h", "/h/", 1, 4},
      {"%H", "", "", "/h", "/h", 0, 3},
      {"%H", "", "", "/h", "", 0, 2},
  };
  for (const auto& [logTemplate, execStr, username, homedir, expected, complete, size] : cases) {
    std::string name(301, '#');
    EXPECT_EQ(
        UtlExpandLogName(logTemplate, name.data(), size, execStr, username, homedir, nullptr, 0),
        complete);
    EXPECT_EQ(name.c_str(), expected) << logTemplate << " in " << size;
    EXPECT_EQ(name[size], '#');
  }
}

}  // namespace
