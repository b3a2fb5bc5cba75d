// The ground under the bridge's tests: a misuse of the JVM does not go unnoticed.
#include "jvm.h"
#include "tests.h"

namespace {

TEST(JvmDeathTest, WarningFailsTheProcess) {
  EXPECT_EXIT(
      {
        JNIEnv* const env = jvm::start();
        env->FindClass("no/such/Class");
        env->NewStringUTF("called with an exception pending");
        env->ExceptionClear();
        std::exit(0);
      },
      testing::ExitedWithCode(70), "the JVM printed warnings");
}

}  // namespace
