#include <povzel/tvdstring.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "faults.h"

namespace {

class DString : public testing::Test {
 protected:
  DString() { TvDStringInit(&ds_); }
  ~DString() override { TvDStringFree(&ds_); }

  bool isInline() const { return ds_.string == ds_.staticSpace && ds_.spaceAvl == 200; }
  std::string text() const { return {ds_.string, static_cast<std::size_t>(ds_.length)}; }

  TvDString ds_;
};

TEST_F(DString, GrowsTwofoldForTextsAndExactlyForLengths) {
  const std::string most(199, 'x');
  EXPECT_EQ(TvDStringAppend(&ds_, most.c_str(), 199), most);
  EXPECT_TRUE(isInline());
  EXPECT_EQ(TvDStringAppend(&ds_, "yz", 1), most + "y");
  EXPECT_EQ(ds_.spaceAvl, 400);
  TvDStringSetLength(&ds_, 400);
  EXPECT_EQ(ds_.spaceAvl, 401);
  EXPECT_EQ(text().substr(0, 200), most + "y");
  TvDStringSetLength(&ds_, 2);
  EXPECT_EQ(ds_.spaceAvl, 401);
  EXPECT_STREQ(TvDStringAppend(&ds_, nullptr, 5), "xx");
  EXPECT_STREQ(TvDStringAppend(&ds_, "yz", LONG_MIN), "xxyz");
  TvDStringFree(&ds_);
  EXPECT_TRUE(isInline());
  EXPECT_EQ(text(), "");
}

// Sizes that no allocation can have, or that exceed 32 bits, fail like those that the heap refuses.
TEST_F(DString, FailuresLeaveTheRecordAsItWas) {
  TvDStringAppend(&ds_, std::string(250, 'q').c_str(), 250);
  const struct {
    long append, setLength;
    const char* size;
  } cases[] = {{1000, 0, "2500"},
               {LONG_MAX / 2, 0, "2147484146"},
               {LONG_MAX - 250, 0, "4294967294"},
               {LONG_MAX, 0, "4294967295"},
               {0, 600, "601"},
               {0, LONG_MAX, "2147483648"}};
  for (const auto& c : cases) {
    const TvDString before = ds_;
    const FailingCall failing("malloc", ENOMEM);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    if (c.setLength > 0) {
      TvDStringSetLength(&ds_, c.setLength);
    } else {
      EXPECT_EQ(TvDStringAppend(&ds_, "text", c.append), nullptr);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              std::string("malloc failure allocating ") + c.size + " bytes: tvdstring\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\n");
    EXPECT_EQ(std::memcmp(&before, &ds_, sizeof before), 0);
    EXPECT_EQ(text(), std::string(250, 'q'));
  }
}

}  // namespace
