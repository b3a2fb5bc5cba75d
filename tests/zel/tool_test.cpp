// Whole databases as texts, and the program that makes, reads and looks at them.
#include <poll.h>

#include "session/passwords.h"
#include "session/users.h"
#include "session_fixture.h"
#include "store/filestore.h"
#include "store/unfinished.h"
#include "tool/dumpline.h"

namespace zel {

// Lines

static std::string faultOf(const std::string& line) {
  try {
    rowOf(line);
    return "";
  } catch (const LineFault& fault) {
    return std::to_string(fault.column) + " " + fault.expected;
  }
}

// What a line says comes back as it was, so nothing of it is lost either.
TEST(DumpLine, IsTheSameRow) {
  for (const std::string line : {
           "@65536 Array indexable hash=7: 1 -1 536870911 536870912 -9223372036854775809",
           "@65536 Array indexable: 1606938044258990275541962092341162602522202993782792835301376",
           "@65536 @70000 named=2: 0.1 -0.0 1e+22 5e-324 inf -inf nan -nan nan=7ff0000000000001",
           "@65536 Array fixed invariant: $a $é $😀 $\" $\\u0 $\\u20 $\\ud800 $\\u5c $\\u202e",
           "@65536 Array: #a #at:put: #+ #>= #\"\" #\"any text\" #\"#\" #\"\\n\\xED\\xA0\\x80\"",
           "@65536 Array: nil true false @65537 @1 Object Set>>#do: Set.class>>#new @70000>>#+",
           "@65536 String bytes indexable: \"q\\\" b\\\\ \\n\\r\\t é😀\\s😀 "
           "\\x00\\x7F\\xC2\\x80\\xFF\"",
           "@65536 ByteArray bytes indexable: #[0041FF]",
           "@65536 ByteArray bytes: #[]",
           "@65536 Set set indexable hashed:",
           "@65536 CompiledMethod classSide named=1: nil",
           "@65537/0: #a 1",
           "@65537/268435455 asked: @65538",
           "@2/5 user: \"A\" \"$6$x\" \"\\xFF\" \"\"",
           "@7 @0 raw: #[]",
           "@65536/3 raw: #[0109]",
           "@65536 Array raw: #[00000005]",
           "@65537/0 raw: #[000600]",
       }) {
    ASSERT_EQ(faultOf(line), "") << line;
    EXPECT_EQ(lineOf(rowOf(line)), line);
  }
}

// Bytes that nobody writes are given as they are.
TEST(DumpLine, KeepsAnyBytes) {
  std::mt19937 random(1);
  for (int i = 0; i < 20000; ++i) {
    Row row{{65536, i % 2 == 0 ? Place::itself : Place::ofHash(3)}, 0, 0, ""};
    if (i % 2 == 0) row.classId = i % 3 == 0 ? 272 : 65537;
    for (auto size = random() % 24; size > 0; --size) {
      row.bytes += static_cast<char>(random() % (random() % 2 == 0 ? 12 : 256));
    }
    const Row back = rowOf(lineOf(row));
    ASSERT_EQ(std::tie(back.bytes, back.classId), std::tie(row.bytes, row.classId)) << lineOf(row);
  }
}

TEST(DumpLine, SaysWhatIsExpected) {
  const std::pair<const char*, const char*> lines[] = {
      {"", "1 '@'"},
      {"@0 Array:", "2 the number"},
      {"@9999999999999999999 Array:", "2 the number"},
      {"@65536", "7 ' ' and a class"},
      {"@65536 Arrai: 1", "8 a class"},
      {"@65536 Array odd: 1", "14 a word"},
      {"@65536 Array set bytes: 1", "18 a word"},
      {"@65536 Array named=2: 1", "24 a value for each"},
      {"@65536 Array:  1", "15 a value"},
      {"@65536 Array: 1x", "16 the end"},
      {"@65536 Array: 01", "15 a number"},
      {"@65536 Array: 1.5.5", "15 a number"},
      {"@65536 Array: 1e999", "15 a number"},
      {"@65536 Array: #", "16 a symbol"},
      {"@65536 Array: nul", "15 a value"},
      {"@65536 Array: $\\u110000", "18 the code"},
      {"@65536 Array: Set>>do:", "20 a symbol"},
      {"@65536 String bytes: \"a", "24 '\"' at the end"},
      {"@65536 String bytes: \"\\q\"", "24 one of"},
      {"@65536 String bytes: #[4]", "25 two digits"},
      {"@65537/-1: 1", "8 a hash"},
  };
  for (const auto& [line, expected] : lines) {
    EXPECT_THAT(faultOf(line), StartsWith(expected)) << line;
  }
  const std::string digits(20000, '9');
  EXPECT_THAT(faultOf("@65536 Array: " + digits), StartsWith("15 a number"));
}

// The program

class PovzelStore : public ZelSession {
 protected:
  PovzelStore() { fs::current_path(scratch.path()); }
  ~PovzelStore() override { fs::current_path("/"); }
  void TearDown() override {
    zel->ZelSetNet("", "", "", "");
    ZelSession::TearDown();
  }

  // What the program prints, errors last, and its exit status; -1 for a signal.
  static std::string run(const std::string& arguments, const std::string& settings = "") {
    const ChildResult child = runInChild([&] {
      const std::string line = settings + " exec \"$0\" " + arguments;
      execl("/bin/sh", "sh", "-c", line.c_str(), POVZELSTORE, nullptr);
    });
    return child.out + child.err + std::to_string(exitCode(child));
  }
  static std::string dumped(const std::string& lines) {
    return "povzel dump 1\n" + lines + "end\n";
  }
  static std::vector<std::string> files() {
    std::vector<std::string> names;
    for (const auto& file : fs::directory_iterator(".")) names.push_back(file.path().filename());
    std::ranges::sort(names);
    return names;
  }
  // A load of a.povzel that has read some of a fifo, and waits for more.
  static std::pair<pid_t, int> beginLoad() {
    const pid_t child = fork();
    if (child == 0) {
      execl(POVZELSTORE, "povzelstore", "load", "a.povzel", "fifo", nullptr);
      _exit(127);
    }
    const int fifo = open("fifo", O_WRONLY | O_CLOEXEC);
    const std::string text = manyLines();  // more than a pipe takes
    EXPECT_EQ(::write(fifo, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    return {child, fifo};
  }
  static std::string manyLines() {
    std::string text = "povzel dump 1\n";
    for (int id = 65536; id < 75536; ++id) text += "@" + std::to_string(id) + " Array: 1 2 3\n";
    return text;
  }
  // A database of a session's making.
  void fill(const std::string& name, const std::string& source) {
    zel->ZelSetNet((name + "?create=true").c_str(), "", "", "");
    ASSERT_NE(zel->ZelLogin("SystemUser", "secret"), 0) << takeError();
    ASSERT_EQ(show(source + ". System commit"), "true");
    zel->ZelLogout();
  }

  const ScratchDirectory scratch;
};

TEST_F(PovzelStore, DumpsAndLoadsAllOfADatabase) {
  fill("./a.povzel",
       "Object subclass: 'Point' instVarNames: #(x y). Point compile: 'sum ^x + y'."
       "Globals at: #All put: {1. 1 bitShift: 99. 1.5. $a. #b. 'ü'. #[1 2]. [:a | a + 1]. Point "
       "new}."
       "Globals at: #Map put: Dictionary new. 1 to: 3000 do: [:i | Map at: i put: i printString]");
  EXPECT_THAT(run("check a.povzel"), Reads("a.povzel is whole: 30~ objects\n0"));
  EXPECT_EQ(run("dump a.povzel a.txt", "umask 0;"), "0");
  EXPECT_EQ(fs::status("a.txt").permissions(), fs::perms::owner_read | fs::perms::owner_write);
  const std::string text = readFile("a.txt");
  EXPECT_THAT(text, AllOf(HasSubstr("user: \"SystemUser\" \"$"), HasSubstr("\"ü\""),
                          Not(HasSubstr("raw"))));
  EXPECT_THAT(run("dump a.povzel a.txt"), Reads("povzelstore: there is a file a.txt already\n~1"));
  EXPECT_EQ(readFile("a.txt"), text);
  writeFile("b.povzel", "");
  EXPECT_EQ(run("load b.povzel <a.txt"), "0");
  EXPECT_THAT(run("load b.povzel a.txt"),
              Reads("povzelstore: there is a file b.povzel already\n~1"));
  EXPECT_EQ(run("dump b.povzel -"), text + "0");
  EXPECT_THAT(run("check b.povzel"), Reads("b.povzel is whole: 30~ objects\n0"));
  EXPECT_THAT(run("compact b.povzel"), AllOf(HasSubstr(" 0 were dropped"), EndsWith("\n0")));
  EXPECT_EQ(run("dump b.povzel"), text + "0");

  zel->ZelSetNet("./b.povzel", "", "", "");
  ASSERT_NE(zel->ZelLogin("DataCurator", "secret"), 0) << takeError();
  EXPECT_EQ(show("{Map at: 2999. (All at: 8) value: 2}"), "an Array( '2999' 3 )");
  EXPECT_THAT(run("stat b.povzel"),
              AllOf(HasSubstr("DataCurator, SystemUser\n"), HasSubstr("by others")));
  EXPECT_THAT(run("compact b.povzel"), Reads("povzelstore: ~in use~1"));
  zel->ZelLogout();
  EXPECT_THAT(run("stat b.povzel"), HasSubstr("by nobody"));
}

TEST_F(PovzelStore, GivesOutNoIdTwice) {
  writeFile("a.txt", dumped("@512/1: #A @90000\n@90000 Array indexable: 1\n"));
  EXPECT_EQ(run("load a.povzel a.txt"), "0");
  EXPECT_GT(openFileStore({.path = "a.povzel"})->newIds(1), 90000U);
}

// Nothing is made of what is no dump.
TEST_F(PovzelStore, RefusesDumpsThatAreNotWhole) {
  const std::pair<std::string, const char*> texts[] = {
      {"", "line 1, column 1: expected 'povzel dump 1'"},
      {"povzel dump 2\nend\n", "line 1, column 13: expected 1"},
      {"povzel dump 1\n@65536 Array: 1\n", "line 3, column 1: expected more"},
      {dumped("@65536 Array: 1\n@65537 Array: !\n"), "line 3, column 15: expected a value"},
      {dumped("@65537 Array:\n@65536 Array:\n"), "line 3, column 1: expected lines in the order"},
      {dumped("@65537 Array:\n@65537 Array:\n"), "line 3, column 1: expected lines in the order"},
      {dumped("@65536/1: 1\n"), "line 2, column 1: expected the line of object @65536"},
      {dumped("@65536 Array: @65538\n@65537 Array: @65536\n"), "has no object @65538"},
      {dumped("@65536 Array raw: #[000000017F]\n"), "line 2, column 1: expected bytes"},
      {dumped("") + "@65536 Array:\n", "line 3, column 1: expected nothing"},
  };
  for (const auto& [text, expected] : texts) {
    writeFile("a.txt", text);
    EXPECT_THAT(run("load a.povzel <a.txt"),
                AllOf(StartsWith("povzelstore: "), HasSubstr(expected), EndsWith("1")));
    EXPECT_THAT(files(), ElementsAre("a.txt"));
  }
}

TEST_F(PovzelStore, LeavesNothingHalfDone) {
  ASSERT_EQ(mkfifo("fifo", 0600), 0);
  const auto [child, fifo] = beginLoad();
  kill(child, SIGTERM);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  close(fifo);
  EXPECT_THAT(files(), ElementsAre("fifo"));

  writeFile("a.txt", manyLines() + "end\n");
  ASSERT_EQ(run("load a.povzel a.txt"), "0");
  EXPECT_EQ(run("dump a.povzel >/dev/full"),
            "povzelstore: cannot write to standard output: No space left on device\n1");
  EXPECT_THAT(run("dump a.povzel >&-"), Reads("povzelstore: cannot write to standard output~1"));
  EXPECT_THAT(run("dump a.povzel b.txt", "ulimit -f 128;"),
              Reads("povzelstore: cannot write b.txt: ~1"));
  EXPECT_THAT(files(), ElementsAre("a.povzel", "a.txt", "fifo"));
  const ChildResult unread = runInChild([] {
    int ends[2];
    if (pipe(ends) != 0) _exit(9);
    close(ends[0]);
    dup2(ends[1], STDOUT_FILENO);
    execl(POVZELSTORE, "povzelstore", "dump", "a.povzel", nullptr);
  });
  EXPECT_TRUE(unread.killedBy(SIGPIPE));
  EXPECT_EQ(unread.err, "");
}

// The next one for the same place removes what is left of those who are gone, and of nobody else.
TEST_F(PovzelStore, RemovesWhatKilledOnesLeft) {
  ASSERT_EQ(mkfifo("fifo", 0600), 0);
  writeFile("a.txt", dumped("@65536 Array: 1\n"));
  const auto [killed, unread] = beginLoad();
  kill(killed, SIGKILL);
  ASSERT_EQ(waitpid(killed, nullptr, 0), killed);
  close(unread);
  runInChild([] {
    const FileCalls calls;
    const Unfinished dump(calls, "b.txt");
    kill(getpid(), SIGKILL);
  });
  EXPECT_THAT(files(), ElementsAre(StartsWith("a.povzel."), "a.txt", StartsWith("b.txt."), "fifo"));
  const auto [working, fifo] = beginLoad();
  EXPECT_EQ(run("load a.povzel a.txt"), "0");
  EXPECT_EQ(run("dump a.povzel b.txt"), "0");
  EXPECT_THAT(files(), ElementsAre("a.povzel", StartsWith("a.povzel."), "a.txt", "b.txt", "fifo"));
  close(fifo);
  ASSERT_EQ(waitpid(working, nullptr, 0), working);
  EXPECT_THAT(files(), ElementsAre("a.povzel", "a.txt", "b.txt", "fifo"));
}

TEST_F(PovzelStore, SaysHowItIsUsed) {
  EXPECT_EQ(run("--version"), POVZEL_VERSION "\n0");
  EXPECT_THAT(run("--help"), AllOf(StartsWith("usage: "), EndsWith("\n0")));
  for (const std::string words :
       {"", "mend a", "check", "check a b", "--odd", "stat --skip-damaged a"}) {
    EXPECT_THAT(run(words),
                AllOf(StartsWith("povzelstore: "), EndsWith("See povzelstore --help\n2")));
  }
  for (const std::string command : {"check", "dump", "compact", "stat"}) {
    EXPECT_THAT(run(command + " none"), Reads("povzelstore: there is no database none\n~1"));
  }
}

TEST_F(PovzelStore, SavesWhatCanBeRead) {
  std::string lines;
  for (int id = 65536; id < 68000; ++id)
    lines += "@" + std::to_string(id) + " Array: 12345678 #name nil\n";
  writeFile("a.txt", dumped(lines));
  ASSERT_EQ(run("load a.povzel a.txt"), "0");
  std::string bytes = readFile("a.povzel");
  bytes[bytes.size() / 2] ^= 1;
  writeFile("a.povzel", bytes);
  EXPECT_THAT(run("check a.povzel"), AllOf(HasSubstr("page"), EndsWith("1")));
  EXPECT_THAT(run("dump a.povzel"), AllOf(HasSubstr("is damaged"), EndsWith("\n1")));
  EXPECT_THAT(run("dump --skip-damaged a.povzel b.txt"), Reads("povzelstore: objects @~ to @~1"));
  EXPECT_GT(readFile("b.txt").size(), readFile("a.txt").size() * 9 / 10);
  EXPECT_EQ(run("load b.povzel b.txt"), "0");
}

TEST_F(PovzelStore, CreatesWithAPasswordOfItsOwn) {
  writeFile("secret", "geheim\r\nmore");
  fs::permissions("secret", fs::perms::owner_read | fs::perms::group_read);
  EXPECT_THAT(run("create --password-file secret a.povzel"), Reads("~chmod 600 secret\n1"));
  fs::permissions("secret", fs::perms::owner_read);
  EXPECT_THAT(run("create a.povzel", "POVZEL_PASSWORD=swordfish"),
              Reads("povzelstore: ~password of its own~1"));
  EXPECT_THAT(files(), ElementsAre("secret"));
  EXPECT_EQ(run("create --password-file secret a.povzel", "POVZEL_PASSWORD=other"), "0");
  EXPECT_THAT(run("create --password-file secret a.povzel"), Reads("~already~1"));
  Passwords passwords;
  EXPECT_TRUE(
      mayLogIn(*openFileStore({.path = "a.povzel"}), false, "DataCurator", "geheim", passwords));

  const Terminal terminal;
  std::string shown;
  std::thread user([&] {
    for (const std::string prompt : {"SystemUser and DataCurator: ", "again: "}) {
      pollfd ready{terminal.user, POLLIN, 0};
      for (char byte = 0; !shown.ends_with(prompt) && poll(&ready, 1, 30000) > 0; shown += byte) {
        if (read(terminal.user, &byte, 1) <= 0) return;
      }
      if (::write(terminal.user, "typed\n", 6) != 6) return;
    }
  });
  const ChildResult child = runInChild([&] {
    terminal.control();
    execl(POVZELSTORE, "povzelstore", "create", "b.povzel", nullptr);
  });
  user.join();
  EXPECT_EQ(exitCode(child), 0) << child.err;
  EXPECT_THAT(shown, Not(HasSubstr("typed")));
  EXPECT_TRUE(
      mayLogIn(*openFileStore({.path = "b.povzel"}), false, "SystemUser", "typed", passwords));
}

}  // namespace zel
