// Hashes of passwords.
#include "session/passwords.h"

#include "errors/failure.h"

namespace zel {

static std::string failureOf(Passwords&& passwords, const std::string& password) {
  try {
    return passwords.hashOf(password);
  } catch (const Failure& failure) {
    return std::to_string(failure.number) + ' ' + failure.message;
  }
}

TEST(Passwords, MatchTheirHashesAndNoOthers) {
  Passwords passwords;
  const std::string zero(1, '\0');
  for (const std::string& password : {std::string(), std::string("fish"), std::string(511, 'x')}) {
    const std::string hash = passwords.hashOf(password);
    EXPECT_EQ("$6$", hash.substr(0, 3));
    EXPECT_NE(hash, passwords.hashOf(password));
    EXPECT_TRUE(passwords.matches(password, hash));
    for (const std::string& other : {password + 'x', password + zero, password + zero + 'x'}) {
      EXPECT_FALSE(passwords.matches(other, hash));
    }
    for (const std::string& no : {hash + 'x', hash + zero, hash.substr(0, 105), hash.substr(0, 20),
                                  zero, std::string("$y$j9T$"), std::string("*0")}) {
      EXPECT_FALSE(passwords.matches(password, no)) << no;
    }
  }
}

TEST(Passwords, SayWhyTheyCannotBeHashed) {
  EXPECT_THAT(failureOf(Passwords(), std::string(512, 'x')), testing::StartsWith("5065 "));
  EXPECT_THAT(failureOf(Passwords({"libmissing.so.1", "libc.so.6"}), "x"),
              testing::ContainsRegex("4051 .*libmissing.so.1: .*libcrypt1:i386"));
}

}  // namespace zel
