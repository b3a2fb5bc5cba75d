// The language: what texts answer, and how wrong ones end.
#include <fstream>

#include "objmem/values.h"
#include "session_fixture.h"

namespace {

class Language : public ZelSession {
 protected:
  void startAnew() {
    TearDown();
    SetUp();
  }
};

// Rows "TEXT ==> ANSWER" of language.txt. A line "-- TITLE" begins a group with a database of its
// own; within a group texts go on with what earlier ones left. Where an error happened is compared
// where the row says it.
TEST_F(Language, AnswersAsTheTableSays) {
  std::ifstream file(LANGUAGE_TABLE);
  const std::string arrow = " ==> ";
  int number = 0;
  for (std::string line; std::getline(file, line);) {
    ++number;
    if (line.empty()) continue;
    if (line.starts_with("-- ")) {
      startAnew();
      continue;
    }
    const std::size_t at = line.find(arrow);
    ASSERT_NE(std::string::npos, at) << "line " << number;
    const std::string expected = line.substr(at + arrow.size());
    const OopType result = run(line.substr(0, at));
    const bool placed = expected.find("column ") != std::string::npos;
    EXPECT_EQ(expected, placed ? told(result) : shown(result)) << "line " << number;
  }
  EXPECT_LT(100, number);
}

TEST_F(Language, FailedProcessesTellTheirStack) {
  const auto stack = [&](OopType process) {
    const OopType text = zel->ZelPerform(process, "stack", nullptr, 0);
    return std::string(zel::bytesOf(session().memory, text));
  };
  run("Object compile: 'deep: n\n  ^n = 0 ifTrue: [nil zork] ifFalse: [[:k |\n"
      "    self deep: n - k] value: 1]'. Object compile: 'endless ^self endless'");
  EXPECT_EQ("error 2010: nil does not understand #zork (Object>>deep:, line 2, column 23)",
            told(run("\n [3 deep: 1] value")));
  const OopType failed = error.context;
  const std::string frames =
      "Object>>deep:, line 2, column 23\n[] in Object>>deep:, line 3, column 10\n"
      "Object>>deep:, line 3, column 23\n"
      "[] in text, line 2, column 5\ntext, line 2, column 14";
  EXPECT_EQ(frames, stack(failed));
  // The middle of a deep one is left out; that of a process that is given up stays.
  EXPECT_EQ(
      "error 2138: the recursion is too deep (20000 activations) "
      "(Object>>endless, line 1, column 15)",
      told(run("3 endless")));
  const std::string deep = stack(error.context);
  EXPECT_EQ(200, std::count(deep.begin(), deep.end(), '\n'));
  EXPECT_THAT(deep, testing::HasSubstr("column 15\n... 19800 more\nObject>>endless, line 1"));
  EXPECT_EQ(frames, stack(failed));
  told(run("#(1) collect: [:x | x zork]"));
  EXPECT_THAT(stack(error.context), testing::HasSubstr(">>collect:, line "));
  // A message from the client has no place, nor has what fails in it at once.
  EXPECT_EQ("error 2010: a Process does not understand #zork",
            told(zel->ZelPerform(failed, "zork", nullptr, 0)));
}

TEST_F(Language, LongMessagesKeepTheirPlace) {
  const std::string name(1000, 'x');
  run("Object compile: '" + name + " ^nil y" + name + "'");
  const std::string message = told(run("3 " + name)).substr(12);
  EXPECT_EQ(400U, message.size());
  EXPECT_THAT(message, testing::MatchesRegex("nil does not understand #yx+\\.\\.\\. "
                                             "\\(Object>>x+\\.\\.\\., line 1, column 1007\\)"));
  std::string euros;
  for (int i = 0; i < 200; ++i) euros += "€";
  const std::string cut = told(run("\n\nError signal: 'x" + euros + "'"));
  EXPECT_THAT(cut, testing::EndsWith("€... (line 3, column 7)"));
  EXPECT_LE(cut.size(), 400U + 12);
}

// The guide's page, whose examples hold as they stand: in blocks a text that ends with the comment
// "=> ANSWER", or with the block when it only has to run; in tables with a column `Example` the
// text, and its answer in the next one. An answer that is an error may leave out the message. Each
// section has a database of its own.
class Guide : public Language {
 protected:
  void read() {
    std::ifstream page(LANGUAGE_PAGE);
    for (std::string line; std::getline(page, line);) {
      ++number_;
      if (line.starts_with("## ")) startAnew();
      if (line.starts_with("```")) {
        if (inBlock_) finishBlock();
        inBlock_ = !inBlock_;
      } else if (inBlock_) {
        readBlockLine(line);
      } else if (line.starts_with("|")) {
        readRow(line);
      } else {
        inExamples_ = false;
      }
    }
  }

  int examples_ = 0;

 private:
  std::string where() { return "docs/language.md, line " + std::to_string(number_); }

  void readBlockLine(const std::string& line) {
    const std::string arrow = "\"=> ";
    text_ += line + "\n";
    const std::size_t at = line.find(arrow);
    if (at == std::string::npos) return;
    const std::size_t start = at + arrow.size();
    check(text_, line.substr(start, line.rfind('"') - start));
    text_.clear();
  }

  void finishBlock() {
    run(text_);
    EXPECT_EQ("", takeError()) << where();
    text_.clear();
  }

  void readRow(const std::string& line) {
    const std::string wall = " | ";
    const std::size_t last = line.rfind(wall);
    const std::size_t former = line.rfind(wall, last - 1);
    if (former == std::string::npos) return;
    const std::string example = line.substr(former + 3, last - former - 3);
    if (example == "Example") {
      inExamples_ = true;
    } else if (inExamples_) {
      check(code(example), code(line.substr(last + 3, line.size() - last - 5)));
    }
  }

  // A cell without its marks.
  std::string code(std::string cell) {
    EXPECT_TRUE(cell.size() > 2 && cell.front() == '`' && cell.back() == '`') << where();
    for (std::size_t at = 0; (at = cell.find("\\|", at)) != std::string::npos;) cell.erase(at, 1);
    return cell.substr(1, cell.size() - 2);
  }

  void check(const std::string& text, const std::string& expected) {
    ++examples_;
    std::string got = show(text);
    const bool numberOnly =
        expected.starts_with("error ") && expected.find(':') == std::string::npos;
    if (numberOnly) got = got.substr(0, got.find(':'));
    EXPECT_EQ(expected, got) << where() << ": " << text;
  }

  int number_ = 0;
  bool inBlock_ = false;
  bool inExamples_ = false;  // in a table of them
  std::string text_;         // of the block's example so far
};

TEST_F(Guide, ExamplesHold) {
  read();
  EXPECT_LT(150, examples_);
}

}  // namespace
