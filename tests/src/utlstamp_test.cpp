#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include <povzel/hostusers.h>
#include <povzel/utllogname.h>
#include <povzel/utltime.h>
#include "child.h"

namespace {

timeval fakeNow = {};

}  // namespace

// The clock of this program stands where a test has put it.
extern "C" int gettimeofday(struct timeval* now, void* /*zone*/) noexcept {
  if (fakeNow.tv_sec != 0) {
    *now = fakeNow;
    return 0;
  }
  struct timespec real;
  clock_gettime(CLOCK_REALTIME, &real);
  *now = {real.tv_sec, real.tv_nsec / 1000};
  return 0;
}

namespace {

void setClock(long seconds, long milliseconds) {
  fakeNow = {seconds, milliseconds * 1000};
}

std::string stamped(const char* text, BoolType addCr) {
  char* buffer = nullptr;
  std::size_t size = 0;
  FILE* stream = open_memstream(&buffer, &size);
  UtlTimeStampMs_s(stream, text, addCr);
  std::fclose(stream);
  std::string result(buffer, size);
  std::free(buffer);
  return result;
}

class UtlTimeStamp : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    setenv("TV_CFTIME", "%Y-%m-%d %H:%M:%S", 1);
    setenv("TZ", "UTC", 1);
    tzset();
  }
  void TearDown() override { fakeNow = {}; }
};

TEST_F(UtlTimeStamp, IsSuppressedWithinNineMilliseconds) {
  setClock(86400, 995);
  EXPECT_EQ(stamped("a", 0), "[1970-01-02 00:00:00.995 UTC]\n    a");
  struct Step {
    long seconds;
    long milliseconds;
    const char* text;
    BoolType addCr;
    const char* expected;
  };
  const Step steps[] = {
      {86400, 995, "b", 0, "    b"},
      {86400, 995, nullptr, 1, ""},
      {86401, 4, "c", 1, "    c\n"},  // 9 ms later, in the next second
      {86401, 5, "d", 1, "[1970-01-02 00:00:01.005 UTC]\n    d\n"},
      {86401, 15, nullptr, 1, "[1970-01-02 00:00:01.015 UTC]\n"},
      {86403, 15, "e", 0, "[1970-01-02 00:00:03.015 UTC]\n    e"},
      {86402, 0, "set back", 0, "[1970-01-02 00:00:02.000 UTC]\n    set back"},
  };
  for (const Step& step : steps) {
    setClock(step.seconds, step.milliseconds);
    EXPECT_EQ(stamped(step.text, step.addCr), step.expected);
  }
}

TEST_F(UtlTimeStamp, FollowsTheZoneWithinASecond) {
  setClock(90000, 0);
  EXPECT_EQ(stamped(nullptr, 0), "[1970-01-02 01:00:00.000 UTC]");
  setenv("TZ", "AAA-2", 1);
  tzset();
  setClock(90000, 500);
  EXPECT_EQ(stamped(nullptr, 0), "[1970-01-02 03:00:00.500 AAA]");
  setenv("TZ", "UTC", 1);
  tzset();
}

TEST_F(UtlTimeStamp, HasOtherForms) {
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

TEST_F(UtlTimeStamp, FillsTheCallersBufferAndNoMore) {
  const std::string whole = "1970-01-02 00:00:00.065 UTC";
  for (std::size_t size = 0; size <= whole.size() + 3; ++size) {
    std::string buffer(size + 1, '#');
    UtlTimeStampMsStr(86400, 65, buffer.data(), size, 1);
    std::string expected = "#";
    if (size > 0) {
      expected = whole.substr(0, size - 1);
      if (size >= whole.size() + 2) expected += '\n';
      expected += '\0';
    }
    EXPECT_EQ(buffer.substr(0, expected.size()), expected) << size;
    EXPECT_EQ(buffer[size], '#');
  }
}

struct LogNameCase {
  const char* logTemplate;
  const char* execStr;
  const char* username;
  const char* homedir;
  std::string expected;
  BoolType complete;
};

TEST(UtlExpandLogName, ReplacesDirectives) {
  char host[256];
  ASSERT_EQ(gethostname(host, sizeof host), 0);
  const std::string pid = std::to_string(getpid());
  const std::string me = HostGetUserName();
  const LogNameCase cases[] = {
      {"%N%P.log", "/usr/local/bin/logger.x", nullptr, nullptr, "logger" + pid + ".log", 1},
      {"%N", "bin/my prog", nullptr, nullptr, "my", 1},
      {"<%N>", "/a/.hidden", nullptr, nullptr, "<>", 1},
      {"%%U %U", "", "ada", nullptr, "%U ada", 1},
      {"%U", "", nullptr, nullptr, me, 1},
      {"%Hx", "", "ada", "/home/a", "/home/a/x", 1},
      {"%Hx", "", "no such user", nullptr, "%Hx", 0},
      {"%Q%", "", nullptr, nullptr, "%Q%", 1},
      {"%%%Q", "", nullptr, nullptr, "%%Q", 1},
      {"", "", nullptr, nullptr, "", 1},
  };
  for (const LogNameCase& one : cases) {
    char name[300];
    EXPECT_EQ(UtlExpandLogName(one.logTemplate, name, sizeof name, one.execStr, one.username,
                               one.homedir, nullptr, 0),
              one.complete)
        << one.logTemplate;
    EXPECT_EQ(name, one.expected) << one.logTemplate;
  }
}

TEST(UtlExpandLogName, EndsBeforeWhatDoesNotFit) {
  struct Case {
    const char* logTemplate;
    std::size_t size;
    const char* expected;
    BoolType complete;
  };
  const Case cases[] = {
      {"abcd", 5, "abcd", 1}, {"abcd", 4, "abc", 0}, {"abcd", 1, "", 0},
      {"a%U", 5, "aada", 1},  {"a%U", 4, "aad", 0},  {"ab%Uc", 4, "ab", 0},
      {"%H", 4, "/h/", 1},    {"%H", 3, "/h", 0},    {"%H", 2, "", 0},
  };
  for (const Case& one : cases) {
    char name[8];
    std::memset(name, '#', sizeof name);
    EXPECT_EQ(UtlExpandLogName(one.logTemplate, name, one.size, "", "ada", "/h", nullptr, 0),
              one.complete)
        << one.logTemplate << one.size;
    EXPECT_STREQ(name, one.expected) << one.logTemplate << one.size;
    EXPECT_EQ(name[one.size], '#');
  }
  char untouched = '#';
  EXPECT_EQ(UtlExpandLogName("a", &untouched, 0, "", "", "", nullptr, 0), 0);
  EXPECT_EQ(untouched, '#');
}

}  // namespace
