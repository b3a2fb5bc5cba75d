#include <povzel/syserror.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <set>
#include <string>

#include <povzel/unixerr.h>

namespace {

// The errno values from 1 to 122 that have neither a portable code nor a text of their own.
const std::set<int> unmapped = {41, 52, 53, 54, 55, 56, 57, 58, 59,  75,  76,  77,
                                79, 80, 81, 82, 83, 84, 85, 86, 118, 119, 120, 121};

std::string textOf(int number, ArraySizeType size = 256) {
  std::string buffer(size + 1, '#');
  UnixErr(number, buffer.data(), size);
  EXPECT_EQ(buffer[size], '#') << "overrun";
  return size == 0 ? "" : buffer.c_str();
}

TEST(UnixErr, EveryMappedNumberHasItsOwnCodeAndText) {
  int codes[1000] = {};
  for (int number = 1; number <= 122; ++number) {
    const int code = UnixErrOsErrToSysErr(number, SYSERRCAT_ERRNO);
    std::string text = "[unixerr.part1 " + std::to_string(number) + "]";
    if (unmapped.contains(number)) {
      EXPECT_EQ(code, -number);
    } else {
      text.append("[unixerr.").append(number == EDEADLK ? "EDEADLOCK" : strerrorname_np(number));
      text.append("]");
      EXPECT_EQ(++codes[code], 1) << number;
      EXPECT_EQ(UnixErrSysErrToOsErr(static_cast<SysErrEType>(code)), number);
    }
    EXPECT_EQ(textOf(number), text);
  }
  int known = 0;
  for (int code = -300; code <= 300; ++code) {
    known += UnixErrSysErrToOsErr(static_cast<SysErrEType>(code)) != -1 ? 1 : 0;
  }
  EXPECT_EQ(known, 98 + 8);
}

TEST(UnixErr, NumbersAndCodes) {
  constexpr int codes[][3] = {
      {0, 0, 0},          {0, EPERM, 95},
      {0, E2BIG, 99},     {0, EWOULDBLOCK, 38},
      {0, EDEADLK, 163},  {0, EREMCHG, 174},
      {0, ENOPKG, 176},   {0, ENOTSUP, 30},
      {0, EDQUOT, 160},   {0, 123, -123},
      {0, -7, 7},         {0, INT_MIN, INT_MIN},
      {1, 0, 0},          {1, 1, 2},
      {1, 4, 5},          {1, 5, -5},
      {2, EPERM, -EPERM}, {0, INT_MAX, -INT_MAX},
  };
  for (const auto& [category, number, code] : codes) {
    EXPECT_EQ(UnixErrOsErrToSysErr(number, static_cast<SysErrCategoryEType>(category)), code)
        << number << " " << category;
  }
  constexpr int numbers[][2] = {
      {SYSERR_NONE, -1},     {SYSERR_UNKNOWN, -1}, {SYSERR_HOST_NOT_FOUND, 1},
      {SYSERR_NO_DATA, 4},   {SYSERR_AGAIN, 11},   {SYSERR_NO_ADDRESS, 4},
      {SYSERR_NOTSUP, 95},   {SYSERR_NOPKG, 65},   {SYSERR_WOULDBLOCK, 11},
      {SYSERR_BADE, -1},     {SYSERR_NOSYM, -1},   {SYSERR_REMOTERELEASE, -1},
      {SYSERR_WSAEINTR, -1}, {INT_MIN, -1},        {TVSOCKETERR_NOHOSTNAME, 0},
  };
  for (const auto& [code, number] : numbers) {
    EXPECT_EQ(UnixErrSysErrToOsErr(static_cast<SysErrEType>(code)), number) << code;
  }
}

TEST(UnixErr, TextFitsTheBuffer) {
  EXPECT_EQ(textOf(0), "");
  EXPECT_EQ(textOf(-3), "[unixerr.part1 -3]");
  const std::string whole = textOf(ENOENT);
  for (ArraySizeType size = 0; size <= whole.size() + 3; ++size) {
    EXPECT_EQ(textOf(ENOENT, size), whole.substr(0, size < 2 ? 0 : size - 2)) << size;
  }
  const HostErrSType record = {ENOENT, 99};
  char buffer[64];
  HostGetErrMsg(&record, buffer, sizeof buffer);
  EXPECT_EQ(buffer, whole);
}

TEST(SysError, RecordByHostError) {
  const std::tuple<long, int, std::string> cases[] = {
      {0, SYSERR_NONE, "open(x): failed with no error code"},
      {-1, SYSERR_NONE, "open(x)"},
      {ENOENT, SYSERR_NOENT, "open(x): " + textOf(ENOENT)},
      {52, -52, "open(x): [unixerr.part1 52]"}};
  for (const auto& [hostError, code, message] : cases) {
    SysErrorSType record;
    errno = 77;
    SysErrorSet(&record, hostError, "open(%s)", "x");
    EXPECT_EQ(errno, 77);
    EXPECT_EQ(record.errCode, code);
    EXPECT_EQ(SysErrorGetMessage(&record), message);
    EXPECT_TRUE(SysErrorIsSet(&record));
    SysErrorClear(&record);
    EXPECT_FALSE(SysErrorIsSet(&record));
    record.setErr(EACCES);
    EXPECT_EQ(record.errCode, SYSERR_ACCES);
    EXPECT_EQ(record.hostError, hostError);
    EXPECT_TRUE(SysErrorIsSet(&record));
  }
  SysErrorSet(nullptr, 1, "%d", 1);
  EXPECT_EQ(SysErrorGetMessage(nullptr), nullptr);
}

TEST(SysError, LongTextsAreCutAtTheFieldsEnd) {
  for (std::size_t length = 4050; length < 4110; ++length) {
    struct {
      SysErrorSType record;
      char behind[8] = "#######";
    } guarded;
    const std::string text(length, 'a');
    SysErrorSet(&guarded.record, ENOENT, "%s", text.c_str());
    const std::string before = (text + ": ").substr(0, 4095);
    ASSERT_EQ(guarded.record.errMsg, before + textOf(ENOENT, 4096 - before.size())) << length;
    ASSERT_STREQ(guarded.behind, "#######");
  }
}

}  // namespace
