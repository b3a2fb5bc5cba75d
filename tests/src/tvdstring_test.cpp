#include <povzel/tvdstring.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <random>
#include <string>

#include "failing_heap.h"

namespace {

class DString : public testing::Test {
 protected:
  DString() { TvDStringInit(&ds_); }
  ~DString() override { TvDStringFree(&ds_); }

  bool isInline() const { return ds_.string == ds_.staticSpace; }
  std::string text() const { return {ds_.string, static_cast<std::size_t>(ds_.length)}; }

  void append(const std::string& text) {
    ASSERT_EQ(TvDStringAppend(&ds_, text.data(), static_cast<long>(text.size())), ds_.string);
  }

  TvDString ds_;
};

TEST_F(DString, StaysInlineUpTo199Characters) {
  EXPECT_TRUE(isInline());
  EXPECT_EQ(ds_.spaceAvl, 200);
  EXPECT_STREQ(ds_.string, "");
  append(std::string(199, 'x'));
  EXPECT_TRUE(isInline());
  append("y");
  EXPECT_FALSE(isInline());
  EXPECT_EQ(ds_.spaceAvl, 400);
  EXPECT_EQ(text(), std::string(199, 'x') + "y");
  TvDStringFree(&ds_);
  EXPECT_TRUE(isInline());
  EXPECT_EQ(ds_.length, 0);
  EXPECT_EQ(ds_.spaceAvl, 200);
  EXPECT_STREQ(ds_.string, "");
}

TEST_F(DString, AppendTakesTheGivenLength) {
  EXPECT_STREQ(TvDStringAppend(&ds_, "abc", 2), "ab");
  EXPECT_STREQ(TvDStringAppend(&ds_, "abc", 0), "ab");
  EXPECT_STREQ(TvDStringAppend(&ds_, "abc", -1), "ababc");
  EXPECT_STREQ(TvDStringAppend(&ds_, "", LONG_MIN), "ababc");
  EXPECT_STREQ(TvDStringAppend(&ds_, nullptr, 5), "ababc");
  append(std::string("\0z", 2));
  EXPECT_EQ(text(), std::string("ababc\0z", 7));
}

TEST_F(DString, AppendsItsOwnText) {
  append("0123456789");
  std::string model = text();
  for (int i = 0; i < 8; ++i) {
    TvDStringAppend(&ds_, ds_.string + 3, i % 2 == 0 ? -1 : ds_.length - 3);
    model += std::string(model, 3);
    ASSERT_EQ(text(), model);
  }
}

TEST_F(DString, SetLengthGrowsToExactlyWhatIsNeeded) {
  append("hello");
  TvDStringSetLength(&ds_, 300);
  EXPECT_EQ(ds_.spaceAvl, 301);
  EXPECT_EQ(ds_.string[300], '\0');
  EXPECT_EQ(std::memcmp(ds_.string, "hello", 5), 0);
  TvDStringSetLength(&ds_, 2);
  EXPECT_STREQ(ds_.string, "he");
  EXPECT_EQ(ds_.spaceAvl, 301);
  TvDStringSetLength(&ds_, -5);
  EXPECT_EQ(ds_.length, 0);
  EXPECT_STREQ(ds_.string, "");
}

TEST_F(DString, AgreesWithStdStringUnderRandomOperations) {
  std::mt19937 random(5);
  std::string model;
  std::string piece;
  for (int round = 0; round < 1000000; ++round) {
    switch (random() % 16) {
      case 0:
        if (random() % 64 == 0) {
          TvDStringFree(&ds_);
          model.clear();
        }
        break;
      case 1: {
        const long length = static_cast<long>(random() % (2 * model.size() + 20)) - 10;
        const std::size_t kept = model.size();
        TvDStringSetLength(&ds_, length);
        model.resize(length < 0 ? 0 : static_cast<std::size_t>(length), '#');
        if (model.size() > kept) std::memset(ds_.string + kept, '#', model.size() - kept);
        if (model.size() > 3000) {
          TvDStringSetLength(&ds_, 7);
          model.resize(7);
        }
        break;
      }
      default:
        piece.assign(random() % 24, static_cast<char>('a' + random() % 26));
        append(piece);
        model += piece;
    }
    ASSERT_LT(ds_.length, ds_.spaceAvl);
    ASSERT_EQ(static_cast<std::size_t>(ds_.length), model.size());
    ASSERT_EQ(std::memcmp(ds_.string, model.c_str(), model.size() + 1), 0);
  }
}

TEST_F(DString, FailuresLeaveTheRecordAsItWas) {
  append(std::string(250, 'q'));
  // Sizes that no allocation can have, or that exceed 32 bits, fail like those that the heap
  // refuses. None of them reads the text.
  struct Case {
    long append;
    long setLength;
    const char* size;
  };
  const Case cases[] = {{1000, 0, "2500"},
                        {LONG_MAX / 2, 0, "2147484146"},
                        {LONG_MAX - 250, 0, "4294967294"},
                        {LONG_MAX, 0, "4294967295"},
                        {0, 600, "601"},
                        {0, LONG_MAX, "2147483648"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.size);
    TvDString before;
    std::memcpy(&before, &ds_, sizeof before);
    FailingHeap failing(0);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    if (c.append > 0) {
      EXPECT_EQ(TvDStringAppend(&ds_, "text", c.append), nullptr);
    } else {
      TvDStringSetLength(&ds_, c.setLength);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              std::string("malloc failure allocating ") + c.size + " bytes: tvdstring\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\n");
    EXPECT_EQ(std::memcmp(&before, &ds_, sizeof before), 0);
    EXPECT_EQ(text(), std::string(250, 'q'));
  }
}

}  // namespace
