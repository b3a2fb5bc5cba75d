#include <povzel/errutl.h>

#include <fcntl.h>
#include <gtest/gtest.h>

#include <memory>

#include "child.h"
#include "messagefile.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

struct CloseFile {
  void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

File streamOf(const std::string& bytes) {
  File file(std::tmpfile());
  std::fwrite(bytes.data(), 1, bytes.size(), file.get());
  std::rewind(file.get());
  return file;
}

// Everything that reading a source to its end gives: one line per entry, then what was printed.
std::string parsed(const std::string& source) {
  const File file = streamOf(source);
  ErrUtlEntrySType entry;
  unsigned long line = 0;
  BoolType bad = 0;
  std::string result;
  CaptureStderr();
  while (ErrUtlNextSym(file.get(), "f", &line, &entry, 1, &bad)) {
    result += std::string(entry.sym) + "|";
    for (int i = 0; i < entry.argListSize; ++i) result += std::to_string(entry.argOrder[i]) + ",";
    result += std::to_string(entry.expectedArgCount) + "|" + entry.buf + "|" +
              std::to_string(entry.loc) + "@" + std::to_string(line) + (bad != 0 ? "!" : "") + "\n";
  }
  return result + GetCapturedStderr() + (bad != 0 ? "bad" : "good") + std::to_string(line);
}

TEST(MessageSource, EntriesAndFaults) {
  const std::string symbol254(254, 's');
  const struct {
    const char* source;
    const char* result;
  } rows[] = {
      {"foo (1 2) : text %s\n", "foo|1,2,2| text %s|0@1\ngood1"},
      {"foo(1):x\n", "foo|1,1|x|0@1\ngood1"},
      {"foo:\n", "foo|0||0@1\ngood1"},
      {" \t\ffoo\t( 2\f1 )\f:\\n:x \n", "foo|2,1,2|\\n:x |0@1\ngood1"},
      {"foo () :x\n", "foo|0|x|0@1\ngood1"},
      {"foo (0 010 3) :x\n", "foo|0,10,3,10|x|0@1\ngood1"},
      {"foo (1 2 3 4 5 6 7 8 9 10):x\n", "foo|1,2,3,4,5,6,7,8,9,10,10|x|0@1\ngood1"},
      {"foo (1 1 1 1 1 1 1 1 1 1 1):x\n", "f near line 1: too many arguments\nbad1"},
      {"foo (11) : x\n", "f near line 1: numeral (11) out of range\nbad1"},
      {"foo (123) : x\n", "f near line 1: numeral (12) out of range\nbad1"},
      {"foo (99999999999999999999) : x\n", "f near line 1: numeral (99) out of range\nbad1"},
      {"foo (1 : x\n", "f near line 1: \")\" expected\nbad1"},
      {"foo (1\n", "f near line 1: \")\" expected\nbad1"},
      {"foo (-1):x\n", "f near line 1: \")\" expected\nbad1"},
      {"foo (1,2):x\n", "f near line 1: \")\" expected\nbad1"},
      {"foo ( \n", "f near line 1: \")\" missing\nbad1"},
      {"foo\n", "f near line 1: symbol missing\nbad1"},
      {": x\n", "f near line 1: symbol missing\nbad1"},
      {"(1): x\n", "f near line 1: symbol missing\nbad1"},
      {"foo x\n", "f near line 1: \":\" expected\nbad1"},
      {"foo (1) x\n", "f near line 1: \":\" expected\nbad1"},
      // Lines: comments, continuations, ends
      {"# c\n\n \t\nfoo:x\n  # d\n", "foo|0|x|8@4\ngood5"},
      {"foo : a\\\nb\nbar:c\n", "foo|0| ab|0@2\nbar|0|c|11@3\ngood3"},
      {"fo\\\n\\\n\\\no:x\n", "foo|0|x|0@4\ngood4"},
      {"foo:a\\\\\n\n", "foo|0|a\\|0@2\ngood2"},
      {"bad\nfoo:x\n", "foo|0|x|4@2!\nf near line 1: symbol missing\ngood2"},
      {"foo:x", "bad1"},
      {"foo:x\\\n", "bad1"},
      {"foo:x\\\ny", "bad2"},
      {"", "good0"},
  };
  for (const auto& row : rows) EXPECT_EQ(parsed(row.source), row.result) << row.source;
  EXPECT_EQ(parsed(symbol254 + ":x\n"), symbol254 + "|0|x|0@1\ngood1");
  EXPECT_EQ(parsed(symbol254 + "s:x\n"), "f near line 1: symbol too long\nbad1");
  EXPECT_EQ(parsed(std::string("fo:a\0b\nx:y\n", 11)), "fo|0|a|0@1\nx|0|y|7@2\ngood2");
}

// A logical line holds 2047 characters; what is beyond is dropped, but not a continuation.
TEST(MessageSource, LongLinesAreCut) {
  const std::string text(2044, 't');
  EXPECT_EQ(parsed("fo:" + text + "\n"), "fo|0|" + text + "|0@1\ngood1");
  EXPECT_EQ(parsed("fo:" + text + "x\n"), "fo|0|" + text + "|0@1\ngood1");
  EXPECT_EQ(parsed("fo:" + text + "x\\\nyy\nz:1\n"),
            "fo|0|" + text + "|0@2\nz|0|1|" + std::to_string(2053) + "@3\ngood3");
  // The backslash took the last place and gives it back.
  EXPECT_EQ(parsed("fo:" + text.substr(1) + "\\\nyy\n"), "fo|0|" + text.substr(1) + "y|0@2\ngood2");
  EXPECT_EQ(parsed("fo:" + text.substr(1) + "\\\n"), "bad1");
}

TEST(MessageSource, LookupComplainsOfWhatIsNoEntry) {
  const File file = streamOf(" \n#\nfoo:x\nbar:y");
  ErrUtlEntrySType entry;
  unsigned long line = 7;
  BoolType bad = 0;
  CaptureStderr();
  EXPECT_TRUE(ErrUtlNextSym(file.get(), "f", &line, &entry, 0, &bad));
  EXPECT_TRUE(bad);
  EXPECT_STREQ(entry.sym, "foo");
  EXPECT_FALSE(ErrUtlNextSym(file.get(), "f", &line, &entry, 0, &bad));
  EXPECT_TRUE(bad);
  EXPECT_FALSE(ErrUtlNextSym(file.get(), "f", &line, &entry, 0, &bad));
  EXPECT_FALSE(bad);
  EXPECT_EQ(line, 7u);
  EXPECT_EQ(GetCapturedStderr(),
            "f: why is line 7 empty?\nf:  line 7, why am I reading a comment?\n"
            "f: unexpected eof\nf: unexpected eof\n");
}

TEST(MessageFileHeader, IsCheckedFieldByField) {
  const std::string good = storedHeader(littleEndian, 1, 64, 788);
  ASSERT_EQ(good, std::string("\xDE\xAD\xBE\xEF\0\1\2\3\1\0\0\0\x40\0\0\0\x14\3\0\0", 20));
  const auto with = [&](std::size_t at, const std::string& bytes) {
    return std::string(good).replace(at, bytes.size(), bytes);
  };
  const struct {
    std::string bytes;
    const char* message;
  } rows[] = {
      {good, ""},
      {storedHeader(bigEndian, 1, 64, 788), ""},
      {storedHeader({2, 0, 3, 1}, 1, 64, 788), ""},
      {good.substr(0, 19), "ErrUtlReadHdr: fread() header failure, errno = 0\n"},
      {with(3, "\xEE"), "ErrUtlReadHdr:  bad magic number\n"},
      {with(6, "\1"), "ErrUtlReadHdr: illegal swizzle transforms\n"},
      {with(7, "\4"), "ErrUtlReadHdr: illegal swizzle transforms\n"},
      {with(7, "\xFF"), "ErrUtlReadHdr: illegal swizzle transforms\n"},
      {with(8, "\2"), "ErrUtlReadHdr:  bad version = 2\n"},
      {with(11, "\xFF"), "ErrUtlReadHdr:  bad version = -16777215\n"},
      {with(12, std::string(1, '\0')), "ErrUtlReadHdr:  zero length hash table\n"},
  };
  for (const auto& row : rows) {
    const File file = streamOf(row.bytes + "x");
    std::fgetc(file.get());
    ErrUtlHdrSType header{};
    CaptureStderr();
    const BoolType ok =
        ErrUtlReadHdr(row.bytes.size() < 20 ? streamOf(row.bytes).get() : file.get(), &header);
    EXPECT_EQ(GetCapturedStderr(), row.message);
    EXPECT_EQ(ok != 0, row.message[0] == '\0');
    if (ok == 0) continue;
    EXPECT_EQ(header.tabSize, 64u);
    EXPECT_EQ(header.textBegin, 788u);
  }
  EXPECT_EQ(ErrUtlGetMagic()[0], 0xDE);
  EXPECT_EQ(ErrUtlGetMagic()[3], 0xEF);
}

TEST(MessageFileHeader, TransformsArePermutations) {
  const unsigned char rows[][4] = {{0, 1, 2, 3}, {3, 1, 0, 2}, {0, 1, 1, 3}, {0, 1, 2, 4}};
  const unsigned char two[][2] = {{0, 1}, {1, 0}, {1, 1}, {0, 2}};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(UtlValidateSwizzleTransforms(rows[i], two[0]), i < 2);
    EXPECT_EQ(UtlValidateSwizzleTransforms(rows[0], two[i]), i < 2);
  }
}

TEST(MessageFile, OpensReopensAndCloses) {
  const std::string here = testing::internal::FilePath::GetCurrentDir().string();
  const std::string good = here + "/good.err";
  const std::string source = here + "/source.msg";
  writeFile(good, compiledFile({{"foo", "foo:x\n"}}));
  writeFile(source, "foo:x\n");

  ASSERT_TRUE(ErrUtlInit(1, good.c_str()));
  EXPECT_TRUE(ErrUtlIsUp());
  EXPECT_EQ(good, ErrUtlErrFileName);
  EXPECT_EQ(ErrUtlFileHdr.tabSize, 8u);
  EXPECT_EQ(fcntl(fileno(ErrUtlErrFile), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  ErrUtlShutdown();
  EXPECT_EQ(ErrUtlErrFile, nullptr);
  EXPECT_TRUE(ErrUtlIsUp());
  EXPECT_TRUE(ErrUtlReset(0));
  EXPECT_NE(ErrUtlErrFile, nullptr);

  CaptureStderr();
  EXPECT_FALSE(ErrUtlInit(1, source.c_str()));
  EXPECT_EQ(GetCapturedStderr(),
            "ErrUtlReadHdr: fread() header failure, errno = 0\n"
            "ErrUtlInit: Unable to use file " +
                source + " as a language file\n");
  EXPECT_FALSE(ErrUtlIsUp());
  EXPECT_EQ(ErrUtlErrFile, nullptr);
  EXPECT_TRUE(ErrUtlInit(0, source.c_str()));

  CaptureStderr();
  EXPECT_FALSE(ErrUtlInit(1, "/nowhere/x.err"));
  EXPECT_EQ(GetCapturedStderr(),
            "ErrUtlReset: fopen() failure on \"/nowhere/x.err\"\n"
            "     errno = 2 (sorry, no translation available)\n"
            "ErrUtlInit: Unable to use file /nowhere/x.err as a language file\n");
  EXPECT_EQ(ErrUtlErrFile, nullptr);
}

}  // namespace
