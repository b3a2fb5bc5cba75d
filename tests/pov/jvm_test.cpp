// The ground under the bridge's tests: the JVM starts, and a misuse of it does not go unnoticed.
#include "jvm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

using testing::HasSubstr;

namespace {

void misuse(JNIEnv* env) {
  env->FindClass("no/such/Class");
  env->NewStringUTF("called with an exception pending");
  env->ExceptionClear();
}

TEST(Jvm, FieldsReadBackAsTheyWereSet) {
  jvm::start();
  const jvm::Frame frame(64);
  jobject report = jvm::newReport();
  jvm::setNumber(report, "oop", 0xffffffffLL);
  jvm::setNumber(report, "objType", -1);
  jvm::setNumber(report, "isString", 1);
  jvm::setReal(report, "valueDouble", 2.5);
  jvm::setObject(report, "valueString", jvm::newString(u"gr\u00fc\u00df"));
  jvm::setObject(report, "valueLongs", jvm::newLongs({1, -2}));
  jvm::setObject(report, "valueBytes", jvm::newBytes(std::string("a\0b", 3)));
  EXPECT_EQ(0xffffffffLL, jvm::number(report, "oop"));
  EXPECT_EQ(-1, jvm::number(report, "objType"));
  EXPECT_EQ(1, jvm::number(report, "isString"));
  EXPECT_EQ(2.5, jvm::real(report, "valueDouble"));
  EXPECT_EQ("gr\xc3\xbc\xc3\x9f", jvm::text(report, "valueString"));
  EXPECT_EQ((std::vector<jlong>{1, -2}), jvm::longs(report, "valueLongs"));
  EXPECT_EQ(std::string("a\0b", 3), jvm::bytes(report, "valueBytes"));
  EXPECT_TRUE(jvm::isNull(jvm::newException(), "args"));
  EXPECT_EQ("", jvm::takeWarnings());
}

TEST(Jvm, WarningsAreCounted) {
  misuse(jvm::start());
  EXPECT_THAT(jvm::takeWarnings(), HasSubstr("WARNING"));
}

TEST(JvmDeathTest, WarningFailsTheProcess) {
  EXPECT_EXIT(
      {
        misuse(jvm::start());
        std::exit(0);
      },
      testing::ExitedWithCode(70), "the JVM printed warnings");
}

}  // namespace
