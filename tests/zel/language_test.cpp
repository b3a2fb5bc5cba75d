// The language: what texts answer, and how wrong ones end.
#include <fstream>

#include "session_fixture.h"

namespace {

class Language : public ZelSession {};

// Rows "TEXT ==> ANSWER" of language.txt. A line "-- TITLE" begins a group with a database of its
// own; within a group texts go on with what earlier ones left.
TEST_F(Language, AnswersAsTheTableSays) {
  std::ifstream file(LANGUAGE_TABLE);
  const std::string arrow = " ==> ";
  int number = 0;
  for (std::string line; std::getline(file, line);) {
    ++number;
    if (line.empty()) continue;
    if (line.starts_with("-- ")) {
      TearDown();
      SetUp();
      continue;
    }
    const std::size_t at = line.find(arrow);
    ASSERT_NE(std::string::npos, at) << "line " << number;
    EXPECT_EQ(line.substr(at + arrow.size()), show(line.substr(0, at))) << "line " << number;
  }
  EXPECT_LT(100, number);
  EXPECT_EQ("error 2501: line 2, column 4: ) is expected", show("\n (3"));
}

}  // namespace
