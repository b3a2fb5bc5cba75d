#include <povzel/syserror.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include <povzel/unixerr.h>

namespace {

// The errno values from 1 to 122 that have neither a portable code nor a text of their own.
const std::set<int> unmapped = {41, 52, 53, 54, 55, 56, 57, 58, 59,  75,  76,  77,
                                79, 80, 81, 82, 83, 84, 85, 86, 118, 119, 120, 121};

std::string symbolOf(int number) {
  return number == EDEADLK ? "EDEADLOCK" : strerrorname_np(number);
}

std::string textOf(int number, ArraySizeType size = 256) {
  std::vector<char> buffer(size + 1, '#');
  UnixErr(number, buffer.data(), size);
  EXPECT_EQ(buffer[size], '#') << "overrun";
  return size == 0 ? "" : buffer.data();
}

TEST(UnixErr, EveryMappedNumberHasItsOwnCodeAndText) {
  std::set<SysErrEType> codes;
  for (int number = 1; number <= 122; ++number) {
    SCOPED_TRACE(number);
    const SysErrEType code = UnixErrOsErrToSysErr(number, SYSERRCAT_ERRNO);
    const std::string part1 = "[unixerr.part1 " + std::to_string(number) + "]";
    if (unmapped.contains(number)) {
      EXPECT_EQ(code, -number);
      EXPECT_EQ(textOf(number), part1);
    } else {
      EXPECT_TRUE(codes.insert(code).second);
      EXPECT_EQ(UnixErrSysErrToOsErr(code), number);
      EXPECT_EQ(textOf(number), part1 + "[unixerr." + symbolOf(number) + "]");
    }
  }
  EXPECT_EQ(codes.size(), 98U);
}

TEST(UnixErr, CodesByNumber) {
  struct Case {
    int number;
    SysErrCategoryEType category;
    int code;
  };
  const Case cases[] = {
      {0, SYSERRCAT_ERRNO, SYSERR_NONE},
      {EPERM, SYSERRCAT_ERRNO, 95},
      {E2BIG, SYSERRCAT_ERRNO, 99},
      {EWOULDBLOCK, SYSERRCAT_ERRNO, 38},
      {EDEADLK, SYSERRCAT_ERRNO, 163},
      {EREMCHG, SYSERRCAT_ERRNO, 174},
      {ENOPKG, SYSERRCAT_ERRNO, 176},
      {ENOTSUP, SYSERRCAT_ERRNO, 30},
      {EDQUOT, SYSERRCAT_ERRNO, 160},
      {123, SYSERRCAT_ERRNO, -123},
      {INT_MAX, SYSERRCAT_ERRNO, -INT_MAX},
      {-7, SYSERRCAT_ERRNO, 7},
      {INT_MIN, SYSERRCAT_ERRNO, INT_MIN},
      {0, SYSERRCAT_HERRNO, 0},
      {1, SYSERRCAT_HERRNO, 2},
      {2, SYSERRCAT_HERRNO, 3},
      {3, SYSERRCAT_HERRNO, 4},
      {4, SYSERRCAT_HERRNO, 5},
      {5, SYSERRCAT_HERRNO, -5},
      {-1, SYSERRCAT_HERRNO, 1},
      {EPERM, static_cast<SysErrCategoryEType>(2), -EPERM},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(UnixErrOsErrToSysErr(c.number, c.category), c.code) << c.number << " " << c.category;
  }
}

TEST(UnixErr, NumbersByCode) {
  int known = 0;
  for (int code = -300; code <= 300; ++code) {
    known += UnixErrSysErrToOsErr(static_cast<SysErrEType>(code)) != -1 ? 1 : 0;
  }
  EXPECT_EQ(known, 98 + 8);

  const std::pair<SysErrEType, int> cases[] = {
      {SYSERR_NONE, -1},       {SYSERR_UNKNOWN, -1},       {SYSERR_HOST_NOT_FOUND, 1},
      {SYSERR_TRY_AGAIN, 2},   {SYSERR_NO_RECOVERY, 3},    {SYSERR_NO_DATA, 4},
      {SYSERR_NO_ADDRESS, 4},  {SYSERR_NOTSUP, 95},        {SYSERR_OPNOTSUPP, 95},
      {SYSERR_WOULDBLOCK, 11}, {SYSERR_AGAIN, 11},         {TVSOCKETERR_NOHOSTNAME, 0},
      {SYSERR_WSAEINTR, -1},   {SYSERR_BADE, -1},          {SYSERR_NOPKG, 65},
      {SYSERR_NOSYM, -1},      {SYSERR_REMOTERELEASE, -1}, {static_cast<SysErrEType>(INT_MIN), -1},
  };
  for (const auto& [code, number] : cases) EXPECT_EQ(UnixErrSysErrToOsErr(code), number) << code;
}

TEST(UnixErr, TextFitsTheBuffer) {
  EXPECT_EQ(textOf(0), "");
  EXPECT_EQ(textOf(-3), "[unixerr.part1 -3]");
  const std::string whole = textOf(ENOENT);
  for (ArraySizeType size = 0; size <= whole.size() + 3; ++size) {
    const std::size_t room = size < 2 ? 0 : size - 2;
    EXPECT_EQ(textOf(ENOENT, size), whole.substr(0, room)) << size;
  }
  const HostErrSType record = {ENOENT, 99};
  char buffer[64];
  HostGetErrMsg(&record, buffer, sizeof buffer);
  EXPECT_EQ(buffer, whole);
}

TEST(SysError, RecordByHostError) {
  struct Case {
    long hostError;
    SysErrEType code;
    std::string message;
  };
  const Case cases[] = {
      {0, SYSERR_NONE, "open(x): failed with no error code"},
      {-1, SYSERR_NONE, "open(x)"},
      {ENOENT, SYSERR_NOENT, "open(x): " + textOf(ENOENT)},
      {52, static_cast<SysErrEType>(-52), "open(x): [unixerr.part1 52]"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.hostError);
    SysErrorSType record;
    std::memset(&record, 0xEE, sizeof record);
    errno = 77;
    SysErrorSet(&record, c.hostError, "open(%s)", "x");
    EXPECT_EQ(errno, 77);
    EXPECT_EQ(record.hostError, c.hostError);
    EXPECT_EQ(record.errCode, c.code);
    EXPECT_EQ(SysErrorGetMessage(&record), c.message);
    EXPECT_TRUE(SysErrorIsSet(&record));

    SysErrorClear(&record);
    EXPECT_EQ(record.hostError, c.hostError);
    EXPECT_FALSE(SysErrorIsSet(&record));
    EXPECT_STREQ(record.errMsg, "");

    record.setErr(EACCES);
    EXPECT_EQ(record.errCode, SYSERR_ACCES);
    EXPECT_EQ(record.hostError, c.hostError);
    EXPECT_TRUE(SysErrorIsSet(&record));
  }
  SysErrorSet(nullptr, 1, "%d", 1);
  EXPECT_EQ(SysErrorGetMessage(nullptr), nullptr);
}

TEST(SysError, LongTextsAreCutAtTheFieldsEnd) {
  for (std::size_t length = 4050; length < 4200; ++length) {
    struct {
      SysErrorSType record;
      char behind[8];
    } guarded;
    std::memset(&guarded, '#', sizeof guarded);
    const std::string text(length, 'a');
    SysErrorSet(&guarded.record, ENOENT, "%s", text.c_str());
    const std::string before = (text + ": ").substr(0, 4095);
    const std::string expected = before + textOf(ENOENT, 4096 - before.size());
    ASSERT_TRUE(guarded.record.errMsg == expected) << length;
    ASSERT_EQ(std::string(guarded.behind, 8), "########");
  }
}

}  // namespace
