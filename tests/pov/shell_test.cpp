// The shell as users start it: as a filter, and at a pseudo-terminal.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

const std::string launcher = POVZEL_LAUNCHER;

// A directory that goes with its test.
struct Scratch {
  std::string path;
  Scratch() {
    char name[] = "/tmp/povzel-shell-XXXXXX";
    path = mkdtemp(name);
  }
  ~Scratch() { fs::remove_all(path); }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  std::string file(const std::string& name) const { return path + "/" + name; }
  std::string write(const std::string& name, const std::string& text) const {
    std::ofstream(file(name)) << text;
    return file(name);
  }
  std::string read(const std::string& name) const {
    std::ostringstream text;
    text << std::ifstream(file(name)).rdbuf();
    return text.str();
  }
};

struct Result {
  int status;
  std::string out;
  std::string err;
};

// Runs the shell with its standard streams in files.
Result filter(const Scratch& scratch, const std::string& arguments, const std::string& input = "") {
  const std::string command = "env -u TARVOLIN '" + launcher + "' " + arguments + " <" +
                              scratch.write("in", input) + " >" + scratch.file("out") + " 2>" +
                              scratch.file("err");
  const int status = std::system(command.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, scratch.read("out"), scratch.read("err")};
}

TEST(Shell, FilterPrintsResultsAloneAndTellsWhetherAllRan) {
  const struct {
    const char* arguments;
    const char* input;
    int status;
    const char* out;
    const char* err;  // part of it
  } cases[] = {
      {"-e '3 + 4'", "", 0, "7\n", "[Info] libpovzel30 initializing."},
      {"-e '3 + 4' -e '6 * 7'", "ignored", 0, "7\n42\n", ""},
      {"", "3 + 4\n\n'two words'\nnil\n", 0, "7\ntwo words\nnil\n", ""},
      {"", "#(1\n  $a\n)\n'it''s\n\"no\" end'", 0, "an Array( 1 $a )\nit's\n\"no\" end\n", ""},
      {"", "$( printString\n3", 0, "$(\n3\n", ""},
      {"", "3 foo\n5\n", 1, "5\n", "error 2010"},
      {"-e '3 +'", "", 1, "", "error 2501"},
      {"-e '(3'", "", 1, "", "error 2501"},
      {"", ":quit\n3\n", 0, "", ""},
      {"", ":class 3\n:nonsense\n", 1, "SmallInteger < Integer < Number < Magnitude < Object\n",
       "no command :nonsense"},
      {"--linked -e '1'", "", 0, "1\n", ""},
      {"--linked --rpc -e '1'", "", 2, "", "mutually exclusive"},
      {"--debug -e '1'", "", 0, "1\n", "DEBUG/ZelInterface: "},
      {"--nonsense", "", 2, "", "Try: povzel --help"},
      {"--server other -e 1", "", 2, "", "a password is needed"},
      {"--user SystemUser --password-file /nonexistent -e 1", "", 1, "",
       "cannot read the password file /nonexistent"},
      {"--version", "", 0, "povzel 3.0.0\n", ""},
  };
  const Scratch scratch;
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.arguments) + " <<< " + c.input);
    const Result result = filter(scratch, c.arguments, c.input);
    EXPECT_EQ(c.status, result.status) << result.err;
    EXPECT_EQ(c.out, result.out);
    EXPECT_NE(std::string::npos, result.err.find(c.err)) << result.err;
  }
}

TEST(Shell, PasswordFilesAndErrorDetails) {
  const Scratch scratch;
  const std::string good = scratch.write("good", "swordfish\n");
  const std::string bad = scratch.write("bad", "guess\n");
  EXPECT_EQ("1\n", filter(scratch, "-u SystemUser --password-file " + good + " -e 1").out);
  const Result refused = filter(scratch, "-u SystemUser --password-file " + bad + " -e 1");
  EXPECT_EQ(1, refused.status);
  EXPECT_NE(std::string::npos, refused.err.find("cannot log in as SystemUser: ")) << refused.err;

  const Result failed = filter(scratch, "-e \"3 foo: 'x'\"");
  for (const char* part : {"error 2010: ", "\n  category ", ", context ", "\n  arguments: "}) {
    EXPECT_NE(std::string::npos, failed.err.find(part)) << part << " in " << failed.err;
  }
}

TEST(Shell, FullDisksAreReported) {
  const std::string command = "'" + launcher + "' -e 3 </dev/null >/dev/full 2>/dev/null";
  EXPECT_EQ(1, WEXITSTATUS(std::system(command.c_str())));
}

// A conversation with the shell at a terminal.
class Terminal {
 public:
  Terminal(const Scratch& scratch, std::vector<std::string> arguments) {
    const winsize size = {.ws_row = 40, .ws_col = 120, .ws_xpixel = 0, .ws_ypixel = 0};
    child_ = forkpty(&fd_, nullptr, nullptr, &size);
    if (child_ != 0) return;
    setenv("TERM", "xterm", 1);
    setenv("POVZEL_HISTORY", scratch.file("history").c_str(), 1);
    unsetenv("TARVOLIN");
    std::vector<char*> argv = {const_cast<char*>(launcher.c_str())};
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  ~Terminal() {
    close(fd_);
    if (child_ > 0) {
      kill(child_, SIGKILL);
      waitpid(child_, nullptr, 0);
    }
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  void send(const std::string& keys) const {
    ASSERT_EQ(static_cast<ssize_t>(keys.size()), write(fd_, keys.data(), keys.size()));
  }

  // Waits until the screen has shown `text` since the last call.
  testing::AssertionResult shows(const std::string& text) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    std::size_t found = std::string::npos;
    while ((found = seen_.find(text)) == std::string::npos) {
      if (std::chrono::steady_clock::now() > end || !readSome()) {
        return testing::AssertionFailure() << "no \"" << text << "\" in: " << seen_;
      }
    }
    seen_.erase(0, found + text.size());
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

  const std::string& everything() const { return all_; }

 private:
  bool readSome() {
    pollfd waiting = {.fd = fd_, .events = POLLIN, .revents = 0};
    if (poll(&waiting, 1, 60000) <= 0) return false;
    char buffer[4096];
    const ssize_t count = read(fd_, buffer, sizeof buffer);
    if (count <= 0) return false;
    seen_.append(buffer, static_cast<std::size_t>(count));
    all_.append(buffer, static_cast<std::size_t>(count));
    return true;
  }

  int fd_ = -1;
  pid_t child_ = -1;
  std::string seen_;
  std::string all_;
};

TEST(Shell, ConversationAtATerminal) {
  const Scratch scratch;
  {
    Terminal terminal(scratch, {});
    ASSERT_TRUE(terminal.shows("Logged in as DataCurator at the built-in database (rpc)"));
    ASSERT_TRUE(terminal.shows("povzel> "));
    terminal.send("3 + 4\r");
    ASSERT_TRUE(terminal.shows("7   (SmallInteger)"));
    ASSERT_TRUE(terminal.shows("povzel> "));
    terminal.send("'open\r");
    ASSERT_TRUE(terminal.shows("....... "));
    terminal.send("end!'\r");
    ASSERT_TRUE(terminal.shows("end!'   (String)"));
    ASSERT_TRUE(terminal.shows("povzel> "));
    terminal.send("oops\003");  // interrupted before it was entered
    ASSERT_TRUE(terminal.shows("povzel> "));
    terminal.send(":inspect #(1 $a)\r");
    ASSERT_TRUE(terminal.shows("0 named and 2 indexed"));
    ASSERT_TRUE(terminal.shows("[2]: $a   (Character)"));
    terminal.send(":class\r");
    ASSERT_TRUE(terminal.shows("Array < "));
    terminal.send(":session\r");
    ASSERT_TRUE(terminal.shows("session "));
    terminal.send(":help\r");
    ASSERT_TRUE(terminal.shows(":quit"));
    terminal.send("6 * 7\r");
    ASSERT_TRUE(terminal.shows("42   (SmallInteger)"));
    terminal.send(":quit\r");
    EXPECT_EQ(0, terminal.ends()) << terminal.everything();
    EXPECT_EQ(std::string::npos, terminal.everything().find("[Info]"));
  }
  Terminal terminal(scratch, {});
  ASSERT_TRUE(terminal.shows("povzel> "));
  terminal.send("\033OA\033OA\r");  // two back in the history of the first conversation
  ASSERT_TRUE(terminal.shows("42   (SmallInteger)"));
  terminal.send("3 foo\r");
  ASSERT_TRUE(terminal.shows("error 2010: "));
  ASSERT_TRUE(terminal.shows("povzel> "));
  terminal.send("\004");
  EXPECT_EQ(1, terminal.ends()) << terminal.everything();
}

TEST(Shell, PasswordsAreNotShown) {
  const Scratch scratch;
  Terminal terminal(scratch, {"--user", "SystemUser", "-e", "3 + 4"});
  ASSERT_TRUE(terminal.shows("Password of SystemUser: "));
  terminal.send("swordfish\r");
  ASSERT_TRUE(terminal.shows("7"));
  EXPECT_EQ(0, terminal.ends());
  EXPECT_EQ(std::string::npos, terminal.everything().find("swordfish"));

  Terminal refused(scratch, {"--user", "SystemUser"});
  ASSERT_TRUE(refused.shows("Password of SystemUser: "));
  refused.send("guess\r");
  ASSERT_TRUE(refused.shows("cannot log in as SystemUser"));
  EXPECT_EQ(1, refused.ends());
}

}  // namespace
