#include <povzel/tvdstring.h>

#include "faults.h"
#include "tests.h"

namespace {

class DString : public testing::Test {
 protected:
  DString() { TvDStringInit(&ds_); }
  ~DString() override { TvDStringFree(&ds_); }

  TvDString ds_;
};

TEST_F(DString, GrowsTwofoldForTextsAndExactlyForLengths) {
  const std::string most(199, 'x');
  TvDStringAppend(&ds_, most.c_str(), 199);
  EXPECT_EQ(ds_.spaceAvl, 200);
  EXPECT_EQ(TvDStringAppend(&ds_, "yz", 1), most + "y");
  EXPECT_EQ(ds_.spaceAvl, 400);
  TvDStringSetLength(&ds_, 400);
  EXPECT_EQ(ds_.spaceAvl, 401);
}

// Sizes that no allocation can have, or that exceed 32 bits, fail like those that the heap refuses.
TEST_F(DString, FailuresLeaveTheRecordAsItWas) {
  TvDStringAppend(&ds_, std::string(250, 'q').c_str(), 250);
  const std::tuple<bool, long, const char*> cases[] = {{true, 1000, "2500"},
                                                       {true, LONG_MAX, "4294967295"},
                                                       {false, 600, "601"},
                                                       {false, LONG_MAX, "2147483648"}};
  for (const auto& [appends, length, size] : cases) {
    const TvDString before = ds_;
    const FailingCall failing("malloc", ENOMEM);
    testing::internal::CaptureStderr();
    if (!appends) TvDStringSetLength(&ds_, length);
    EXPECT_EQ(appends ? TvDStringAppend(&ds_, "text", length) : nullptr, nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              std::string("malloc failure allocating ") + size + " bytes: tvdstring\n");
    EXPECT_EQ(std::memcmp(&before, &ds_, sizeof before), 0);
  }
}

}  // namespace
