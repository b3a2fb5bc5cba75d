// The small programs of the installation.
#include <dlfcn.h>

#include <povzel/errmsg.h>
#include <povzel/hoststack.h>
#include <povzel/zelrtl.h>
#include "tests.h"

namespace {

// Runs a program of the installation through the shell: what it prints, and its exit status.
std::string run(const std::string& command, const std::string& settings = "") {
  const ChildResult child = runInChild([&] {
    const std::string line = settings + " exec " POVZEL_INSTALLATION "/bin/" + command + " 2>&1";
    setenv("TARVOLIN", POVZEL_INSTALLATION, 1);
    execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
  });
  return child.out + std::to_string(exitCode(child));
}

TEST(TvInfo, ShowsWhatIsInForceAndMessages) {
  EXPECT_THAT(
      run("tvinfo"),
      AllOf(HasSubstr("Tarvolin Object Database"), HasSubstr("VERSION: 6.7, Sun Dec"),
            EndsWith("\n0"), HasSubstr("TARVOLIN           " POVZEL_INSTALLATION),
            HasSubstr(POVZEL_INSTALLATION "/sys/english67.err\n                     in use"),
            HasSubstr("found              " POVZEL_INSTALLATION "/lib/libzelrpc67")));
  EXPECT_THAT(
      run("tvinfo", "ZELRTL_VERSION=99"),
      AllOf(HasSubstr("not found          dlopen(" POVZEL_INSTALLATION "/lib/libzelrpc99.so)"),
            HasSubstr("not usable         dlopen(libzelrpc99.so) failed because")));
  EXPECT_EQ(run("tvinfo --errno 13"), "errno=13, EACCES, Permission denied\n0");
  EXPECT_EQ(run("tvinfo --symbol host.fork9b"), "Log of a child process\n0");
  EXPECT_THAT(run("tvinfo --symbol nonsense"), EndsWith("\n1"));
  EXPECT_THAT(run("tvinfo --errno x"), EndsWith("\n2"));
}

// A second copy of the library, in a tree of its own that no variable names.
TEST(OwnTree, ServesLastWhereNoOtherIsNamed) {
  fs::create_directories("a b/tree");
  for (const std::string folder : {"bin", "lib", "sys"})
    fs::copy(POVZEL_INSTALLATION "/" + folder, "a b/tree/" + folder);
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
  EXPECT_THAT(run("gstack " + pid, "PATH=$PWD/bin"),
              AllOf(HasSubstr("Thread " + pid + " (programs_test): state "), EndsWith("\n0")));
  EXPECT_THAT(run("gstack 999999999"), EndsWith("\n1"));
}

}  // namespace
