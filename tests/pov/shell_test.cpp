// The shell as users start it: as a filter, and at a pseudo-terminal.
#include <pty.h>
#include "tests.h"

namespace {

constexpr char launch[] = "exec env -u TARVOLIN '" POVZEL_LAUNCHER "' ";

// Each in a folder of its own, with ./p to start the shell.
TEST(Shell, FilterKeepsToItsStreamsAndStatus) {
  const std::string use = " -u SystemUser -e 3";
  // A launcher beside a program that tells what it was given.
  const std::string install =
      "mkdir -p t/bin; cp -L p t/bin/povzel; echo 'IFS=,; echo \"$*,$POVZEL_PASSWORD\"; exit 7' |"
      "sed '1i #!/bin/sh' >t/bin/povzelstore; chmod +x t/bin/povzelstore; ";
  const std::string copy =
      "t=$(readlink -f p); t=${t%/bin/povzel}; export JAVA32=\"$t/jre\"; mkdir q;"
      "cp -r \"$t/bin\" \"$t/lib\" \"$t/sys\" \"$t/java\" q; q/bin/povzel prepare;";
  const std::tuple<std::string, int, const char*, const char*> cases[] = {
      {"./p -e '3 + 4' -e '6 * 7'", 0, "7\n42\n", ""},
      {"echo 2 + 3 | ./p", 0, "5\n", ""},
      {"./p --debug -e 3 2>trace; grep -c Info trace", 0, "3\n4\n", ""},
      {"echo 4 >a; echo '(5' | ./p -e 3 a -e 'x foo' - <a", 1, "3\n4\n4\n",
       "<-e 2>:1:1: error 2189: "},
      {"./p --stop nothing -e 3", 1, "", "povzel: cannot read nothing: it is not there\n"},
      {"./p --format yaml -e 3", 2, "", "expected one of [TEXT, JSON] (case-insensitive)"},
      {"./p --help --foo", 2, "", "povzel: unknown: --foo\nTry: povzel --help\n"},
      {"./p --password-file ''" + use, 1, "", "povzel: no password file is named\n"},
      {"./p -e 3 >/dev/full", 1, "", "povzel: standard output cannot be written\n"},
      {"yes 3 | (./p; echo $? >&2) | head -1", 0, "3\n", "141\n"},
      {"head -c 70000000 /dev/zero | ./p", 1, "",
       "<stdin>:1:1: error 2501: the text is too large: "},
      {"./p <&- 2>&-; ./p -e \"'ü' size\" 2>&-", 0, "1\n", ""},
      {"LC_ALL=C ./p -e \"'ü😀' size\"; env -i ./p -e \"'ü' byteSize\"", 0, "2\n2\n", ""},
      {"./p -e \"$(printf '\\374')\"", 2, "", "povzel: this argument is no UTF-8: "},
      {"mkfifo f; env --default-signal=INT ./p -e 3 -e '[true] whileTrue' >f & read x <f;"
       "kill -INT $!; wait $!",
       130, "", ""},
      {"mkfifo f; ./p -e 3 -e '[true] whileTrue' >f & read x <f; kill $!; wait $!", 143, "", ""},
      {"echo guess >w; chmod 600 w; POVZEL_PASSWORD=swordfish ./p --password-file w" + use, 1, "",
       "cannot log in as SystemUser: "},
      {"echo swordfish >w; chmod 604 w; ./p --password-file w" + use, 1, "",
       "\nTake that from them: chmod 600 w\n"},
      {"echo swordfish | ./p --password-file /dev/stdin" + use, 0, "3\n", ""},
      {"POVZEL_PASSWORD=swordfish ./p" + use, 0, "3\n", ""},
      {"POVZEL_PASSWORD= ./p" + use, 2, "", "or set POVZEL_PASSWORD"},
      {"POVZEL_PASSWORD=x ./p -e 3", 1, "", "cannot log in as DataCurator: "},
      {"mkfifo f; POVZEL_PASSWORD=swordfish ./p -e 3 -e '[true] whileTrue' >f & read x <f;"
       "tr '\\0' '\\n' </proc/$!/environ | grep -c POVZEL_P; kill $!",
       0, "0\n", ""},
      {"./p --create -e 3", 2, "", "povzel: --create makes a database in a file: name it with"},
      {"./p --create -s postgresql://h/d -e 3", 2, "", "On a server: povzel create URL"},
      {"for u in a:x@h a:x/@h a:x?@h 'h/d?user=a&pass%77ord=x'; do ./p -s postgres://$u -e 3; echo "
       "$?; done;"
       "./p stat postgres://a:x@h",
       2, "2\n2\n2\n2\n", "povzelstore: a password in a URL"},
      {"./p -s shop -e 3 --password-file <(echo x)", 1, "", ": this library has no server shop\n"},
      {"export POVZEL_PASSWORD=x; ./p -s a.povzel -e 3", 1, "",
       "/a.povzel: create it with --create"},
      {"POVZEL_PASSWORD=swordfish ./p -s a.povzel --create -e 3", 1, "", "a password of its own"},
      {"export POVZEL_PASSWORD=x; mkdir d; ./p -s d/ü --create --commit -e 'Globals at: #X put: 3';"
       "cd d; ls; ../p -s './ü?create=true' -u SystemUser -e 'X + 1' -e :session",
       0, "3\nü\n4\nsession 1, SystemUser at ./ü (rpc)\n", ""},
      {install + "POVZEL_PASSWORD=x t/bin/povzel load \"a b\" $(printf '\\374') -e", 7,
       "load,a b,\374,-e,x\n", ""},
      {install + "rm t/bin/povzelstore; t/bin/povzel stat x", 1, "",
       "run a file of texts as ./stat"},
      {"echo 5 >check; ./p ./check -e 3", 0, "5\n3\n", ""},
      {copy + "q/bin/povzel -e 3; truncate -s 99999 q/java/*.jsa; q/bin/povzel -e 4; mv q r;"
              "r/bin/povzel prepare; mv r q; q/bin/povzel -e 5; ls q/java/*.jsa | wc -l",
       0, "3\n4\n5\n1\n", ""},
  };
  for (const auto& [command, status, out, err] : cases) {
    SCOPED_TRACE(command);
    const ScratchDirectory scratch;
    fs::create_symlink(POVZEL_LAUNCHER, scratch / "p");
    scratch.write("run", "unset TARVOLIN; cd " + scratch.path() + "\n" + command + "\n");
    const std::string streams =
        " >" + (scratch / "out") + " 2>" + (scratch / "err") + " </dev/null";
    const int ended = std::system(("bash " + (scratch / "run") + streams).c_str());
    EXPECT_EQ(status, WEXITSTATUS(ended));
    EXPECT_EQ(out, readFile(scratch / "out"));
    const std::string told = readFile(scratch / "err");
    EXPECT_THAT(told, *err == 0 ? testing::Matcher<std::string>("") : HasSubstr(err));
  }
}

// A conversation with the shell at a terminal: enters the keys of each turn once the screen has
// shown its text, since the turn before. What was shown to the end is the result's output.
ChildResult converse(const ScratchDirectory& scratch, const std::string& arguments,
                     std::initializer_list<std::pair<std::string, std::string>> turns) {
  setenv("TERM", "xterm", 1);
  setenv("POVZEL_HISTORY", (scratch / "history").c_str(), 1);
  const winsize size = {.ws_row = 40, .ws_col = 120, .ws_xpixel = 0, .ws_ypixel = 0};
  int terminal = -1;
  const pid_t child = forkpty(&terminal, nullptr, nullptr, &size);
  if (child == 0) {
    std::signal(SIGINT, SIG_DFL);  // jobs in the background ignore it
    execl("/bin/sh", "sh", "-c", (launch + arguments).c_str(), nullptr);
    _exit(127);
  }
  ChildResult result{};
  char c = 0;
  for (const auto& [text, keys] : turns) {
    while (read(terminal, &c, 1) == 1 && !(result.out += c).ends_with(text)) {
    }
    EXPECT_TRUE(result.out.ends_with(text)) << "no \"" << text << "\" in: " << result.out;
    EXPECT_EQ(static_cast<ssize_t>(keys.size()), write(terminal, keys.data(), keys.size()));
  }
  while (read(terminal, &c, 1) == 1) result.out += c;
  waitpid(child, &result.status, 0);
  close(terminal);
  return result;
}

TEST(Shell, ConversationsAtATerminal) {
  const ScratchDirectory scratch;
  const std::string prompt = "povzel> ";
  const ChildResult first = converse(scratch, "",
                                     {{prompt, "6 * 7\r"},
                                      {"42   (SmallInteger)", "'open\r"},
                                      {"....... ", "end!'\r"},
                                      {"end!'   (String)", ""},
                                      {prompt, "oops\003"},  // interrupted before it was entered
                                      {prompt, ":inspect #(1 $a)\r"},
                                      {"[2]: $a   (Character)", ":quit\r"}});
  EXPECT_TRUE(first.exitedWith(0));
  EXPECT_THAT(first.out, Not(HasSubstr("[Info]")));
  // Back in the history of the first conversation. A password is not shown.
  const ChildResult second = converse(scratch, "--user SystemUser",
                                      {{"Password of SystemUser: ", "swordfish\r"},
                                       {prompt, "\033OA\033OA\r"},
                                       {"$a   (Character)", "3 foo\r"},
                                       {"error 2010: ", ""},
                                       {prompt, "\004"}});
  EXPECT_TRUE(second.exitedWith(0));
  EXPECT_THAT(second.out, Not(HasSubstr("swordfish")));
}

}  // namespace
