#include "hostunix/internal.h"
#include "tests.h"

TEST(HostSafePrint, FormatsAsPrintfDoes) {
  for (const int number : {0, -1, INT_MAX, INT_MIN, 42}) {
    char ours[256], theirs[256];
    const auto format = [&](auto print, char(&buffer)[256]) {
      print(buffer, sizeof buffer, "%d|%ld|%u|%lu|%x|%p|%s|%%|", number, long{number}, number,
            long{number}, number, static_cast<void*>(ours), "text");
    };
    format(hostSafeFormat, ours);
    format(std::snprintf, theirs);
    EXPECT_STREQ(ours, theirs);
  }
  char cut[5];
  hostSafeFormat(cut, sizeof cut, "%s%d", "abc", 1234);
  EXPECT_STREQ(cut, "abc1");
}
