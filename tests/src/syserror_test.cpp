#include <povzel/syserror.h>

#include <povzel/unixerr.h>
#include "tests.h"

static std::string textOf(int number, ArraySizeType size = 256) {
  return filled(size, [number](char* text, std::size_t room) { UnixErr(number, text, room); });
}

TEST(UnixErr, EveryMappedNumberHasItsOwnCodeAndText) {
  std::set<int> codes;
  for (int number = 1; number <= 122; ++number) {
    const int code = UnixErrOsErrToSysErr(number, SYSERRCAT_ERRNO);
    std::string text = "[unixerr.part1 " + std::to_string(number) + "]";
    if (code != -number) {  // it has a portable code and a text of its own
      text.append("[unixerr.").append(number == EDEADLK ? "EDEADLOCK" : strerrorname_np(number));
      text.append("]");
      EXPECT_TRUE(codes.insert(code).second) << number;
      EXPECT_EQ(UnixErrSysErrToOsErr(static_cast<SysErrEType>(code)), number);
    }
    EXPECT_EQ(textOf(number), text);
  }
  for (int code = -300; code <= 300; ++code) {
    if (UnixErrSysErrToOsErr(static_cast<SysErrEType>(code)) != -1) codes.insert(code);
  }
  EXPECT_EQ(codes.size(), 98U + 8U);
}

TEST(UnixErr, NumbersAndCodes) {
  const std::tuple<int, int, int> cases[] = {
      // category, number, code
      {0, EWOULDBLOCK, 38}, {0, EDEADLK, 163}, {0, INT_MIN, INT_MIN}, {1, 4, 5},
      {1, 5, -5},           {2, EPERM, -EPERM}};
  for (const auto& [category, number, code] : cases)
    EXPECT_EQ(UnixErrOsErrToSysErr(number, static_cast<SysErrCategoryEType>(category)), code);
  EXPECT_EQ(UnixErrSysErrToOsErr(SYSERR_NO_ADDRESS), 4);
  EXPECT_EQ(UnixErrSysErrToOsErr(static_cast<SysErrEType>(INT_MIN)), -1);
}

TEST(UnixErr, TextFitsTheBuffer) {
  EXPECT_EQ(textOf(0) + textOf(-3), "[unixerr.part1 -3]");
  const std::string whole = textOf(ENOENT);
  for (ArraySizeType size = 0; size <= whole.size() + 3; ++size) {
    EXPECT_EQ(textOf(ENOENT, size), whole.substr(0, size < 2 ? 0 : size - 2)) << size;
  }
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
    EXPECT_EQ(std::tuple(record.hostError, record.errCode, SysErrorGetMessage(&record)),
              std::tuple(hostError, code, message));
    EXPECT_TRUE(SysErrorIsSet(&record));
    SysErrorSet(&record, -1, "reading: %s, %s", SysErrorGetMessage(&record), record.errMsg);
    EXPECT_EQ(record.errMsg, "reading: " + message + ", " + message);
    SysErrorClear(&record);
    EXPECT_FALSE(SysErrorIsSet(&record));
  }
  SysErrorSet(nullptr, 1, "%d", 1);
  EXPECT_EQ(SysErrorGetMessage(nullptr), nullptr);
}

TEST(SysError, LongTextsAreCutAtTheFieldsEnd) {
  for (std::size_t length = 4050; length < 4110; ++length) {
    SysErrorSType record;
    const std::string text(length, 'a');
    SysErrorSet(&record, ENOENT, "%s", text.c_str());
    const std::string before = (text + ": ").substr(0, 4095);
    ASSERT_EQ(record.errMsg, before + textOf(ENOENT, 4096 - before.size())) << length;
  }
}
