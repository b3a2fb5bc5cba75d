// The shell as users start it: as a filter, and at a pseudo-terminal.
#include <pty.h>
#include "tests.h"

namespace {

constexpr char launch[] = "exec env -u TARVOLIN '" POVZEL_LAUNCHER "' ";

bool shows(const std::string& output, const std::string& text) {
  return output.find(text) != std::string::npos;
}

// Runs the shell with its standard streams in files.
ChildResult filter(const ScratchDirectory& scratch, const std::string& arguments,
                   const std::string& out) {
  const std::string command = launch + arguments + " <" + scratch.write("in", "2 + 3\n") + " >" +
                              out + " 2>" + (scratch / "err");
  const int status = std::system(command.c_str());
  return {status, readFile(scratch / "out"), readFile(scratch / "err")};
}

TEST(Shell, FilterUnderstandsItsOptions) {
  const ScratchDirectory scratch;
  const std::string user = "-u SystemUser --password-file ";
  const std::string good = user + scratch.write("good", "swordfish\n");
  const std::string bad = user + scratch.write("bad", "guess\n");
  const std::tuple<std::string, int, const char*, const char*> cases[] = {
      {"-e '3 + 4' -e '6 * 7'", 0, "7\n42\n", "[Info] libpovzel30 initializing."},
      {"", 0, "5\n", ""},
      {"-e '3 +'", 1, "", "error 2501"},
      {"--linked -e '1'", 0, "1\n", ""},
      {"--linked --rpc -e '1'", 2, "", "mutually exclusive"},
      {"--debug -e '1'", 0, "1\n", "DEBUG/ZelInterface: "},
      {"--nonsense", 2, "", "Try: povzel --help"},
      {"--server other -e 1", 2, "", "a password is needed"},
      {user + "/nonexistent -e 1", 1, "", "cannot read the password file /nonexistent"},
      {good + " -e 1", 0, "1\n", ""},
      {bad + " -e 1", 1, "", "cannot log in as SystemUser: "},
      {"--version", 0, "povzel 3.0.0\n", ""},
  };
  for (const auto& [arguments, status, out, err] : cases) {
    SCOPED_TRACE(arguments);
    const ChildResult result = filter(scratch, arguments, scratch / "out");
    EXPECT_TRUE(result.exitedWith(status)) << result.err;
    EXPECT_EQ(out, result.out);
    EXPECT_TRUE(shows(result.err, err)) << result.err;
  }
  EXPECT_TRUE(filter(scratch, "-e 3", "/dev/full").exitedWith(1));
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

TEST(Shell, ConversationAtATerminal) {
  const ScratchDirectory scratch;
  const std::string prompt = "povzel> ";
  const ChildResult first =
      converse(scratch, "",
               {{"Logged in as DataCurator at the built-in database (rpc)", ""},
                {prompt, "3 + 4\r"},
                {"7   (SmallInteger)", ""},
                {prompt, "'open\r"},
                {"....... ", "end!'\r"},
                {"end!'   (String)", ""},
                {prompt, "oops\003"},  // interrupted before it was entered
                {prompt, ":inspect #(1 $a)\r"},
                {"0 named and 2 indexed", ""},
                {"[2]: $a   (Character)", ":session\r"},
                {"session ", ":help\r"},
                {":quit", "6 * 7\r"},
                {"42   (SmallInteger)", ":quit\r"}});
  EXPECT_TRUE(first.exitedWith(0));
  EXPECT_FALSE(shows(first.out, "[Info]"));
  // Two back in the history of the first conversation.
  const ChildResult second = converse(scratch, "",
                                      {{prompt, "\033OA\033OA\r"},
                                       {"42   (SmallInteger)", "3 foo\r"},
                                       {"error 2010: ", ""},
                                       {prompt, "\004"}});
  EXPECT_TRUE(second.exitedWith(1));
}

TEST(Shell, PasswordsAreNotShown) {
  const ScratchDirectory scratch;
  const ChildResult result = converse(scratch, "--user SystemUser -e '3 + 4'",
                                      {{"Password of SystemUser: ", "swordfish\r"}, {"7", ""}});
  EXPECT_TRUE(result.exitedWith(0));
  EXPECT_FALSE(shows(result.out, "swordfish"));
}

}  // namespace
