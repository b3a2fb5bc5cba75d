#include <povzel/errutl.h>

#include "messagefile.h"
#include "tests.h"

// Everything that reading a source to its end gives: one line per entry, then what was printed.
static std::string parsed(const std::string& source, BoolType buildingTable = 1) {
  writeFile("stream", source);
  FILE* file = std::fopen("stream", "r");
  ErrUtlEntrySType entry{};
  unsigned long line = buildingTable != 0 ? 0 : 7;
  BoolType bad = 0;
  std::string result;
  const std::string said = printed([&] {
    while (ErrUtlNextSym(file, "f", &line, &entry, buildingTable, &bad)) {
      result += std::string(entry.sym) + "|";
      for (int i = 0; i < entry.argListSize; ++i) result += std::to_string(entry.argOrder[i]) + ",";
      result += std::to_string(entry.expectedArgCount) + "|" + entry.buf + "|" +
                std::to_string(entry.loc) + "@" + std::to_string(line) + (bad != 0 ? "!\n" : "\n");
    }
  });
  std::fclose(file);
  return result + said + (bad != 0 ? "bad" : "good") + std::to_string(line);
}

TEST(MessageSource, EntriesAndLines) {
  const std::string symbol(254, 's'), most(2044, 't');  // with "fo:" a line's 2047 characters
  const std::pair<std::string, std::string> rows[] = {
      {" \t\ffoo\t( 2\f1 )\f: \\n:%s \n", "foo|2,1,2| \\n:%s |0@1\ngood1"},
      {symbol + " (0 010 3 4 5 6 7 8 9 10):x\n", symbol + "|0,10,3,4,5,6,7,8,9,10,10|x|0@1\ngood1"},
      {"# c\n\n \t\nfoo:\n  # d\n", "foo|0||8@4\ngood5"},
      {"fo\\\no: a\\\nb\nbar:c\n", "foo|0| ab|0@3\nbar|0|c|12@4\ngood4"},
      {"bad\nfoo:x\n", "foo|0|x|4@2!\nf near line 1: symbol missing\ngood2"},
      {std::string("fo:a\0b\nx:y\n", 11), "fo|0|a|0@1\nx|0|y|7@2\ngood2"},
      // What is beyond the longest line is dropped, but not a continuation.
      {"fo:" + most + "x\\\nyy\nz:1\n", "fo|0|" + most + "|0@2\nz|0|1|2053@3\ngood3"},
      // The backslash took the last place and gives it back.
      {"fo:" + most.substr(1) + "\\\nyy\n", "fo|0|" + most.substr(1) + "y|0@2\ngood2"},
      {symbol + "s:\n", "f near line 1: symbol too long\nbad1"},
      {"f(1 1 1 1 1 1 1 1 1 1 1):x\n", "f near line 1: too many arguments\nbad1"},
      {"f(9999999999)\n", "f near line 1: numeral (99) out of range\nbad1"},
      {"f ( \n", "f near line 1: \")\" missing\nbad1"}};
  for (const auto& [source, result] : rows) EXPECT_EQ(parsed(source), result);
  // A look-up complains of what is no entry, and counts no lines.
  EXPECT_EQ(parsed(" \n#\nfoo:x\nbar:y", 0),
            "foo|0|x|0@7!\nf: why is line 7 empty?\nf:  line 7, why am I reading a comment?\n"
            "f: unexpected eof\nbad7");
}

TEST(MessageFile, OpensReopensAndCloses) {
  const std::string source = fs::absolute("source.msg");
  writeFile(source, "foo:x\n");
  const std::string good = compiledFile({{"foo", "foo:x\n"}});
  writeFile("good.err", good);
  EXPECT_TRUE(ErrUtlInit(1, "good.err") && ErrUtlIsUp());
  EXPECT_EQ(fs::absolute("good.err"), ErrUtlErrFileName);
  EXPECT_EQ(fcntl(fileno(ErrUtlErrFile), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  ErrUtlShutdown();
  EXPECT_EQ(ErrUtlErrFile, nullptr);
  EXPECT_TRUE(ErrUtlIsUp() && ErrUtlReset(0) && ErrUtlErrFile != nullptr);
  // It never takes the place of a standard stream.
  EXPECT_EQ(exitCode(inChild([] {
              close(STDERR_FILENO);
              return ErrUtlReset(1) && fileno(ErrUtlErrFile) > STDERR_FILENO ? 0 : 1;
            })),
            0);

  const auto openOthers = [&] {
    // Wrong at its place: magic number, transform, version, table size
    for (const auto& [at, byte] :
         {std::pair(3, '\xEE'), {6, '\1'}, {7, '\4'}, {8, '\2'}, {12, '\0'}}) {
      writeFile("bad.err", std::string(good).replace(at, 1, 1, byte));
      EXPECT_FALSE(ErrUtlInit(1, "bad.err")) << at;
    }
    EXPECT_FALSE(ErrUtlInit(1, source.c_str()) || ErrUtlIsUp() || ErrUtlErrFile != nullptr);
    EXPECT_TRUE(ErrUtlInit(0, source.c_str()) && ErrUtlErrFile != nullptr);
    // What is left of a name that is cut is another file's.
    std::string whole = fs::absolute("good.err"), cut = whole.substr(0, whole.size() - 8);
    while (cut.size() + 8 + 2 <= 4095) cut += "./";
    cut.insert(0, 4095 - 8 - cut.size(), '/');
    setenv("TARVOLIN_LANG", (cut + "good.err.").c_str(), 1);
    for (const char* name : {getenv("TARVOLIN_LANG"), static_cast<char*>(nullptr)})
      EXPECT_FALSE(ErrUtlInit(1, name) || ErrUtlReset(1) || ErrUtlErrFile != nullptr);
    EXPECT_FALSE(ErrUtlInit(1, "/nowhere/x.err") || ErrUtlErrFile != nullptr);
  };
  const std::string listed = printed(openOthers);
  EXPECT_THAT(listed,
              AllOf(HasSubstr(source + " as a language file\n"),
                    HasSubstr("good.err\"\n     errno = 36 (sorry, no translation available)\n")));
  EXPECT_THAT(listed,
              EndsWith("ErrUtlReset: fopen() failure on \"/nowhere/x.err\"\n"
                       "     errno = 2 (sorry, no translation available)\n"
                       "ErrUtlInit: Unable to use file /nowhere/x.err as a language file\n"));
}
