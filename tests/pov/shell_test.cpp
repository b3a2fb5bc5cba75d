// The shell as users start it: as a filter, and at a pseudo-terminal.
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "process.h"

namespace {

// Runs the shell with its standard streams in files.
ChildResult filter(const ScratchDirectory& scratch, const std::string& arguments,
                   const std::string& out = "") {
  const std::string output = out.empty() ? scratch / "out" : out;
  const std::string command = "env -u TARVOLIN '" POVZEL_LAUNCHER "' " + arguments + " <" +
                              scratch.write("in", "2 + 3\n") + " >" + output + " 2>" +
                              (scratch / "err");
  const int status = std::system(command.c_str());
  return {status, readFile(scratch / "out"), readFile(scratch / "err")};
}

TEST(Shell, FilterUnderstandsItsOptions) {
  const ScratchDirectory scratch;
  const std::string user = "-u SystemUser --password-file ";
  const std::string good = user + scratch.write("good", "swordfish\n");
  const std::string bad = user + scratch.write("bad", "guess\n");
  const struct {
    std::string arguments;
    int status;
    const char* out;
    const char* err;  // part of it
  } cases[] = {
      {"-e '3 + 4'", 0, "7\n", "[Info] libpovzel30 initializing."},
      {"-e '3 + 4' -e '6 * 7'", 0, "7\n42\n", ""},
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
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments);
    const ChildResult result = filter(scratch, c.arguments);
    EXPECT_TRUE(result.exitedWith(c.status)) << result.err;
    EXPECT_EQ(c.out, result.out);
    EXPECT_NE(std::string::npos, result.err.find(c.err)) << result.err;
  }
  EXPECT_TRUE(filter(scratch, "-e 3", "/dev/full").exitedWith(1));
}

// A conversation with the shell at a terminal.
class Conversation {
 public:
  Conversation(const ScratchDirectory& scratch, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), POVZEL_LAUNCHER);
    child_ = fork();
    if (child_ == 0) {
      const winsize size = {.ws_row = 40, .ws_col = 120, .ws_xpixel = 0, .ws_ypixel = 0};
      terminal_.control();
      ioctl(STDIN_FILENO, TIOCSWINSZ, &size);
      dup2(STDIN_FILENO, STDOUT_FILENO);
      dup2(STDIN_FILENO, STDERR_FILENO);
      setenv("TERM", "xterm", 1);
      setenv("POVZEL_HISTORY", (scratch / "history").c_str(), 1);
      unsetenv("TARVOLIN");
      std::vector<char*> argv;
      for (std::string& argument : arguments) argv.push_back(argument.data());
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(terminal_.program);  // so that reading ends with the shell
    terminal_.program = -1;
  }
  ~Conversation() {
    if (child_ <= 0) return;
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
  }
  Conversation(const Conversation&) = delete;
  Conversation& operator=(const Conversation&) = delete;

  // Enters `keys` once the screen has shown `text`.
  void at(const std::string& text, const std::string& keys) {
    ASSERT_TRUE(shows(text));
    ASSERT_EQ(static_cast<ssize_t>(keys.size()), write(terminal_.user, keys.data(), keys.size()));
  }

  // Waits until the screen has shown `text` since the last call.
  testing::AssertionResult shows(const std::string& text) {
    while (all_.find(text, seen_) == std::string::npos) {
      if (!readSome()) return testing::AssertionFailure() << "no \"" << text << "\" in: " << all_;
    }
    seen_ = all_.find(text, seen_) + text.size();
    return testing::AssertionSuccess();
  }

  // The exit status, once everything was shown.
  int ends() {
    while (readSome()) {
    }
    int status = 0;
    waitpid(child_, &status, 0);
    child_ = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  bool showed(const std::string& text) const { return all_.find(text) != std::string::npos; }

 private:
  bool readSome() {
    char buffer[4096];
    const ssize_t count = read(terminal_.user, buffer, sizeof buffer);
    if (count > 0) all_.append(buffer, static_cast<std::size_t>(count));
    return count > 0;
  }

  Terminal terminal_;
  pid_t child_ = -1;
  std::string all_;
  std::size_t seen_ = 0;
};

TEST(Shell, ConversationAtATerminal) {
  const ScratchDirectory scratch;
  const std::string prompt = "povzel> ";
  {
    Conversation shell(scratch, {});
    ASSERT_TRUE(shell.shows("Logged in as DataCurator at the built-in database (rpc)"));
    shell.at(prompt, "3 + 4\r");
    ASSERT_TRUE(shell.shows("7   (SmallInteger)"));
    shell.at(prompt, "'open\r");
    shell.at("....... ", "end!'\r");
    ASSERT_TRUE(shell.shows("end!'   (String)"));
    shell.at(prompt, "oops\003");  // interrupted before it was entered
    shell.at(prompt, ":inspect #(1 $a)\r");
    ASSERT_TRUE(shell.shows("0 named and 2 indexed"));
    shell.at("[2]: $a   (Character)", ":class\r");
    shell.at("Array < ", ":session\r");
    shell.at("session ", ":help\r");
    shell.at(":quit", "6 * 7\r");
    shell.at("42   (SmallInteger)", ":quit\r");
    EXPECT_EQ(0, shell.ends());
    EXPECT_FALSE(shell.showed("[Info]"));
  }
  Conversation shell(scratch, {});
  shell.at(prompt, "\033OA\033OA\r");  // two back in the history of the first conversation
  shell.at("42   (SmallInteger)", "3 foo\r");
  ASSERT_TRUE(shell.shows("error 2010: "));
  shell.at(prompt, "\004");
  EXPECT_EQ(1, shell.ends());
}

TEST(Shell, PasswordsAreNotShown) {
  const ScratchDirectory scratch;
  Conversation shell(scratch, {"--user", "SystemUser", "-e", "3 + 4"});
  shell.at("Password of SystemUser: ", "swordfish\r");
  ASSERT_TRUE(shell.shows("7"));
  EXPECT_EQ(0, shell.ends());
  EXPECT_FALSE(shell.showed("swordfish"));

  Conversation refused(scratch, {"--user", "SystemUser"});
  refused.at("Password of SystemUser: ", "guess\r");
  ASSERT_TRUE(refused.shows("cannot log in as SystemUser"));
  EXPECT_EQ(1, refused.ends());
}

}  // namespace
