#include <povzel/hostfname.h>

#include "basics/fortests.h"
#include "faults.h"
#include "hostunix/internal.h"
#include "tests.h"

static std::string expand(const std::string& name, std::size_t size = sizeof(HostFnameStrType)) {
  std::string buffer(std::max(size, name.size()) + 1, '#');
  buffer.replace(0, name.size() + 1, name.c_str(), name.size() + 1);  // may be expanded in place
  const char behind = buffer[size];
  HostUnixExpandFileName(buffer.c_str(), buffer.data(), size);
  EXPECT_EQ(buffer[size], behind) << "overrun for " << name.substr(0, 200);
  return size == 0 ? "" : buffer.c_str();
}

// Works in the folder d of a tree of its own, whose name stands for the letter R.
struct HostFname : testing::Test {
  HostFname() {
    fs::create_directories(root_ / "d/e/f");
    root_.write("d/file", "x");
    fs::current_path(root_ / "d");
  }
  ~HostFname() override { fs::current_path("/"); }

  std::string at(const std::string& name) const {
    return name[0] == 'R' ? root_.path() + name.substr(1) : name;
  }
  void link(const std::string& target, const std::string& name) const {
    fs::create_symlink(at(target), at(name));
  }

  const ScratchDirectory root_;
};

TEST_F(HostFname, ByName) {
  setenv("ABS", "/nowhere", 1);
  setenv("REL", "e", 1);
  setenv("EMPTY", "", 1);
  link("/real", "R/l");
  link("d/e", "R/rel");
  link("../d/./e/..", "R/d/up");
  link("b", "R/a");
  link("a", "R/b");
  std::istringstream cases(R"(
      $ABS/x /nowhere/x   $REL/x R/d/e/x   $EMPTY/x /x   $EMPTY R/d/   R/a/x R/a/x
      $NO/./x/../y $NO/y  $ $               a/./b R/d/a/b   ../x R/x   . R/d/
      /n/b/../c /n/c      /n/.. /           /n/../.. /../    /../n /../n   /./n/. /n    // //
      /n//../b /n/b       /n/.../..x /n/.../..x              R/l/x /real/x   R/rel/x R/d/e/x
      R/rel R/d/e/        R/rel/../file R/d/file             up/file R/d/file   file/ R/d/file/)");
  for (std::string name, expected; cases >> name >> expected;) {
    EXPECT_EQ(expand(at(name)), at(expected)) << name;
  }
  // A target with the same component at the same place, behind others
  fs::create_directory("bin");
  const std::string slashes(at("R/d/").size(), '/');
  link(slashes + "bin/x", "R/d/bin/l");
  const fs::path bin = fs::is_symlink("/bin") ? fs::read_symlink("/bin") : "bin";
  EXPECT_EQ(expand("bin/l"), slashes + bin.string() + "/x");
  EXPECT_EQ(expand("") + expand("/."), "");
  EXPECT_EQ(expand(at("R/d/e"), at("R/d/e").size() + 1), at("R/d/e"));
  HostFnameStrType result;
  EXPECT_TRUE(hostExpandFileName(at("R/l/../d/.").c_str(), result, true));
  EXPECT_EQ(result, at("R/d"));

  std::strcpy(autoMountPrefix, "/tmp_mnt");
  for (const auto& [name, rest] :
       {std::pair("/tmp_mnt/home/u", "/home/u"), {"/tmp_mntx", "/tmp_mntx"}}) {
    HostExpandFileName(name, result, sizeof result);
    EXPECT_STREQ(result, rest);
  }
  autoMountPrefix[0] = '\0';
  const FailingCall failing("getcwd", ENOENT);
  EXPECT_EQ(expand("a/../b/.."), "");
}

// The rounds of a circle are counted, not made.
TEST_F(HostFname, LinksInACircleCostLittle) {
  static int reads;
  const OsCalls kept = osCallsForTests;
  osCallsForTests.readlink = [](const char* name, char* target, std::size_t size) noexcept {
    ++reads;
    return readlink(name, target, size);
  };
  std::string round;
  while (round.size() < 3500) round += "e/../";
  link(round + "t", "R/d/s");
  link(round + "u", "R/d/t");
  link(round + "s", "R/d/u");
  EXPECT_EQ(expand("s"), at("R/d/u"));  // where link 4095 is met
  EXPECT_LT(reads, 200);
  osCallsForTests = kept;
}

TEST_F(HostFname, TemporaryNames) {
  setenv("TMPDIR", root_.path().c_str(), 1);
  const std::string first = filled(sizeof(HostFnameStrType), HostTempFileSpec);
  EXPECT_EQ(fs::path(first).parent_path(), root_.path());
  EXPECT_EQ(filled(first.size(), HostTempFileSpec), "");
  const std::string second = filled(first.size() + 1, HostTempFileSpec);
  EXPECT_TRUE(second.size() == first.size() && second != first);
  unsetenv("TMPDIR");
}
