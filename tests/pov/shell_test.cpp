// The shell as users start it: as a filter, and at a pseudo-terminal.
#include <pty.h>
#include "tests.h"

namespace {

constexpr char launch[] = "exec env -u TARVOLIN '" POVZEL_LAUNCHER "' ";

TEST(Shell, FilterUnderstandsItsOptions) {
  const ScratchDirectory scratch;
  const std::string in = " <" + scratch.write("in", "2 + 3\n") + " >";
  const std::string bad = "-u SystemUser --password-file " + scratch.write("bad", "guess\n");
  const std::tuple<std::string, int, const char*, const char*> cases[] = {
      {"-e '3 + 4' -e '6 * 7'", 0, "7\n42\n", "[Info] libpovzel30 initializing."},
      {"", 0, "5\n", ""},
      {bad, 1, "", "cannot log in as SystemUser: "},
  };
  for (const auto& [arguments, status, out, err] : cases) {
    SCOPED_TRACE(arguments);
    const std::string streams = in + (scratch / "out") + " 2>" + (scratch / "err");
    const int ended = std::system((launch + arguments + streams).c_str());
    EXPECT_EQ(status, WEXITSTATUS(ended));
    EXPECT_EQ(out, readFile(scratch / "out"));
    EXPECT_THAT(readFile(scratch / "err"), HasSubstr(err));
  }
  EXPECT_EQ(1, WEXITSTATUS(std::system((launch + ("-e 3" + in) + "/dev/full").c_str())));
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
  EXPECT_TRUE(second.exitedWith(1));
  EXPECT_THAT(second.out, Not(HasSubstr("swordfish")));
}

}  // namespace
