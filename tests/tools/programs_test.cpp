// The small programs of the installation.
#include <dlfcn.h>

#include <povzel/errmsg.h>
#include <povzel/hoststack.h>
#include <povzel/zelrtl.h>
#include "tests.h"

namespace {

// Runs a program of the installation through the shell: what it prints, and its exit status.
std::string run(const std::string& command, const std::string& settings = "",
                const std::string& installation = POVZEL_INSTALLATION) {
  const ChildResult child = runInChild([&] {
    const std::string line = settings + " exec \"$0\"/bin/" + command + " 2>&1";
    setenv("TARVOLIN", POVZEL_INSTALLATION, 1);
    execl("/bin/sh", "sh", "-c", line.c_str(), installation.c_str(), nullptr);
  });
  return child.out + std::to_string(exitCode(child));
}

// A copy of the installation, with a blank in its name.
const std::string tree = "a b/tree";

void copyTree() {
  fs::remove_all(tree);
  fs::create_directories(tree);
  for (const std::string folder : {"bin", "lib", "sys"})
    fs::copy(POVZEL_INSTALLATION "/" + folder, tree + "/" + folder);
}

TEST(TvInfo, ShowsWhatIsInForceAndMessages) {
  EXPECT_THAT(
      run("tvinfo"),
      AllOf(HasSubstr("Tarvolin Object Database"), HasSubstr("VERSION: 6.7, Sun Dec"),
            EndsWith("\n0"), HasSubstr("TARVOLIN           " POVZEL_INSTALLATION),
            HasSubstr(POVZEL_INSTALLATION "/sys/english67.err\n                     in use"),
            HasSubstr("found              " POVZEL_INSTALLATION "/lib/libzelrpc67.so")));
  EXPECT_EQ(run("tvinfo --errno 13"), "errno=13, EACCES, Permission denied\n0");
  EXPECT_EQ(run("tvinfo --symbol host.fork9b"), "Log of a child process\n0");
  EXPECT_THAT(run("tvinfo --symbol nonsense"), EndsWith("\n1"));
  for (const std::string number : {"x", "99999999999"})
    EXPECT_THAT(run("tvinfo --errno " + number), EndsWith("\n2"));
  for (const std::string mode : {"", "--version", "--errno 13"})
    EXPECT_EQ(run("tvinfo " + mode + " >/dev/full"), "1");
  EXPECT_THAT(run("tvinfo --nonsense"), EndsWith("See tvinfo --help.\n2"));
  EXPECT_THAT(run("tvinfo --help"), AllOf(StartsWith("usage: "), EndsWith("\n0")));
  EXPECT_EQ(run("tvinfo --version"), POVZEL_VERSION "\n0");
  // A date that 32 bits do not hold is none of its business.
  EXPECT_THAT(run("tvinfo", "mkdir late; touch -d 2050-01-01 late; TARVOLIN=late"),
              Not(HasSubstr("late is not there")));
  EXPECT_THAT(run("tvinfo --errno 1", "TARVOLIN_LANG=/none"),
              Reads("tvinfo: the message file /none is not there\nSet TARVOLIN_LANG ~\n1"));
}

TEST(TvInfo, SaysOnceOfEachFileWhyItCannotBeUsed) {
  const std::string rpc = "lib/libzelrpc67.so";
  const std::string used = "  not usable         ";
  const std::string image = readFile(POVZEL_INSTALLATION "/" + rpc);
  std::string wide = image;
  wide[4] = 2;
  std::string foreign = image;
  foreign[18] = 8;
  const std::string library = readFile(POVZEL_INSTALLATION "/lib/libpovzel30.so");
  const std::string messages = readFile(POVZEL_INSTALLATION "/sys/english67.err");
  std::string next = library;
  next.replace(next.find(POVZEL_VERSION), 3, "9.9");
  std::string misplaced = messages;
  misplaced[misplaced.find("host.fork9b")] = 'g';
  const struct {
    std::string file, contents, settings, reason;
    int status;
  } cases[] = {
      {"", "", "", "(lnk)\n  not there          libzellnk67.so\n  found", 0},
      {"", "", "ZELRTL_VERSION=99", used + "there is none at these places\n", 1},
      {"", "", "ZELRTL_BASELIBNAME=muchtoolongforaname",
       "(rpc)\n" + used + "The interface library file name ", 1},
      {"", "", "TARVOLIN=/none", used + "/none is not there\n", 1},
      {"", "", "TARVOLIN='a;b'", used + "a;b is not there\n", 1},
      {"", "", "JAVA32=/none", used + "it is not there\n", 1},
      {"", "", "JAVA32=$0/" + rpc, used + "it is not executable\n", 1},
      {"sys/english67.err", "a: b\n", "", used + "it is a text, not compiled by msgc: ", 1},
      {"sys/english67.err", "", "", used + "it is empty: ", 1},
      {"", "", "JAVA32=$0/bin/msgc", used + "it is no JVM: its lib/libjli.so is not there\n", 1},
      {"sys/english67.err", messages.substr(0, 60), "", used + "it is damaged: there is no w", 1},
      {"sys/english67.err", messages.substr(0, messages.size() - 1), "", "damaged: there is no w",
       1},
      {"sys/english67.err", misplaced, "", used + "it is damaged: there is no whole entry ", 1},
      {"", "", "mkfifo fifo; TARVOLIN_LANG=fifo", used + "it is not a file: messages show ", 1},
      {"", "", "rm \"$0\"/sys/*;", "lib/libpovzel30.so\n                     " POVZEL_VERSION, 1},
      {"lib/libpovzel30.so", image, "", used + "it has no VerLibraryVersion\n", 1},
      {"lib/libpovzel30.so", next, "", used + "its version is 9.9.1, this program's ", 1},
      {"lib/libpovzel30.so", image.substr(0, 40), "", used + "it is cut short\n", 1},
      {"lib/libpovzel30.so", library.substr(0, 50000), "", used + "it is cut short\n", 1},
      {"lib/libpovzel30.so", readFile(POVZEL_EXITING), "",
       used + "it ended the program that opened it, with status 0\n", 1},
      {rpc, image.substr(0, 50000), "", "libzelrpc67.so is cut short\n", 1},
      {"lib/libzellnk67.so", wide, "", "libzellnk67.so is a 64-bit library\n", 1},
      {rpc, foreign, "", "libzelrpc67.so is a library for another processor\n", 1},
      {rpc, "INPUT(x)\n", "", "libzelrpc67.so is a text\n", 1},
      {rpc, std::string(99, '\0'), "", "libzelrpc67.so is no library\n", 1},
      {rpc, readFile(POVZEL_FIXTURE), "", "libzelrpc67.so: undefined symbol: fixtureTable\n", 1},
      {rpc, library, "", used + "it is not an interface library: it has no ZelGetRtlTable\n", 1}};
  for (const auto& c : cases) {
    copyTree();
    if (!c.file.empty()) {
      fs::remove(tree + "/" + c.file);
      writeFile(tree + "/" + c.file, c.contents);
    }
    const std::string said = run("tvinfo", "export TARVOLIN=; " + c.settings, fs::absolute(tree));
    const std::size_t place = said.find(c.reason);
    EXPECT_NE(place, std::string::npos) << c.reason << said;
    EXPECT_EQ(said.find(c.reason, place + 1), std::string::npos) << said;
    EXPECT_THAT(said, EndsWith("\n" + std::to_string(c.status)));
  }
  copyTree();
  const std::string name(200, 'd');
  for (const auto& [place, reason] :
       {std::pair<std::string, std::string>("a:b", "holds a ':', which ends a path for Java"),
        {"a$ORIGIN", "holds $ORIGIN, "},
        {name + "/" + name + "/" + name + "/" + name + "/" + name, "is too long a path: move "}}) {
    fs::create_directories(place);
    fs::copy(tree, place, fs::copy_options::recursive);
    EXPECT_THAT(run("tvinfo", "TARVOLIN=", fs::absolute(place)),
                AllOf(HasSubstr(place + " " + reason), EndsWith("\n1")));
  }
}

// A second copy of the library, in a tree of its own that no variable names.
TEST(OwnTree, ServesLastWhereNoOtherIsNamed) {
  copyTree();
  fs::create_symlink("a b/tree/lib/libpovzel30.so", "link.so");
  const auto useFromElsewhere = [] {
    void* library = dlopen("./link.so", RTLD_NOW | RTLD_LOCAL);
    fs::create_directory("elsewhere");
    fs::current_path("elsewhere");
    const auto call = [library]<typename Function>(Function*, const char* name) {
      return reinterpret_cast<Function*>(dlsym(library, name));
    };
    char why[1024];
    call(ZelRtlLoad, "ZelRtlLoad")(1, nullptr, why, sizeof why);
    std::puts(why);
    call(ErrMsgInit, "ErrMsgInit")();
    char* text = call(ErrMsgGetString, "ErrMsgGetString")("host.fork9b");
    std::puts(text != nullptr ? text : "no text");
    std::fflush(stdout);
    call(HostPrintMyCStack, "HostPrintMyCStack")();
  };
  unsetenv("TARVOLIN");
  EXPECT_THAT(runInChild(useFromElsewhere).out,
              AllOf(StartsWith("\nLog of a child process\n"), HasSubstr("\nThread ")));
  setenv("TARVOLIN", "/nonexistent", 1);
  EXPECT_THAT(runInChild(useFromElsewhere).out,
              AllOf(StartsWith("dlopen(libzelrpc67.so) failed because "), HasSubstr("\nno text\n"),
                    Not(HasSubstr("\nThread "))));
  unsetenv("TARVOLIN");
}

TEST(GStack, PrintsThreadsWithoutTheDebugger) {
  const std::string pid = std::to_string(getpid());
  // The tools that the script itself needs, but no debugger.
  fs::create_directory("bin");
  for (const std::string tool : {"sh", "cat", "awk", "sed"})
    fs::create_symlink("/usr/bin/" + tool, "bin/" + tool);
  EXPECT_THAT(
      run("gstack " + pid, "PATH=$PWD/bin"),
      AllOf(HasSubstr("gstack: no C stacks, because none of gdb, eu-stack and pstack could"),
            HasSubstr("Thread " + pid + " (programs_test): state "), EndsWith("\n0")));
  // A debugger that finds nothing gives way to one that does.
  fs::create_symlink("/usr/bin/grep", "bin/grep");
  for (const std::string name : {"gdb", "eu-stack"}) {
    writeFile("bin/" + name, name == "gdb" ? "#!/bin/sh\n" : "#!/bin/sh\necho \"#0 here $2\"\n");
    fs::permissions("bin/" + name, fs::perms::owner_all);
  }
  EXPECT_EQ(run("gstack " + pid, "PATH=$PWD/bin"), "#0 here " + pid + "\n0");
  EXPECT_THAT(run("gstack 999999999"), EndsWith("\n1"));
}

}  // namespace
