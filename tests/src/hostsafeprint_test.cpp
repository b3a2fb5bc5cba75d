#include "hostunix/internal.h"
#include "tests.h"

TEST(HostSafePrint, FormatsAsPrintfDoes) {
  int object = 0;
  for (const int number : {0, -1, 2147483647, -2147483647 - 1, 42}) {
    char ours[256];
    char theirs[256];
    const auto format = [&](auto print, char(&buffer)[256]) {
      const auto natural = static_cast<unsigned>(number);
      print(buffer, sizeof buffer, "%d|%ld|%u|%lu|%x|%p|%s|%%|", number, static_cast<long>(number),
            natural, static_cast<unsigned long>(natural), natural, static_cast<void*>(&object),
            "text");
    };
    format(hostSafeFormat, ours);
    format(std::snprintf, theirs);
    EXPECT_STREQ(ours, theirs);
  }
  char cut[5];
  hostSafeFormat(cut, sizeof cut, "%s%d", "abc", 1234);
  EXPECT_STREQ(cut, "abc1");
}
