#include <povzel/hostfname.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <vector>

#include "basics/fortests.h"
#include "faults.h"
#include "hostunix/internal.h"
#include "process.h"

namespace {

namespace fs = std::filesystem;

using Expander = void(const char*, char*, ArraySizeType);

std::string expand(const std::string& name, std::size_t size = sizeof(HostFnameStrType),
                   Expander* expander = HostUnixExpandFileName) {
  std::vector<char> buffer(size + 1, '#');
  expander(name.c_str(), buffer.data(), size);
  EXPECT_EQ(buffer[size], '#') << "overrun for " << name.substr(0, 200);
  return size == 0 ? "" : buffer.data();
}

// The prefixes that readlink was asked about while `name` was expanded.
std::vector<std::string> askedFor(const std::string& name) {
  static std::vector<std::string> asked;
  asked.clear();
  const OsCalls kept = osCallsForTests;
  osCallsForTests.readlink = [](const char* path, char* target, std::size_t size) noexcept {
    asked.emplace_back(path);
    return readlink(path, target, size);
  };
  expand(name);
  osCallsForTests = kept;
  return asked;
}

// Works in the folder d of a tree of its own.
class HostFname : public testing::Test {
 protected:
  HostFname() : before_(fs::current_path()) {
    fs::create_directories(root_ / "d/e/f");
    root_.write("d/file", "x");
    fs::current_path(root_ / "d");
  }
  ~HostFname() override { fs::current_path(before_); }

  void link(const std::string& target, const std::string& name) const {
    fs::create_symlink(target, root_ / name);
  }

  const ScratchDirectory root_;

 private:
  fs::path before_;
};

TEST_F(HostFname, ByName) {
  setenv("EXPAND_ABS", "/nowhere", 1);
  setenv("EXPAND_REL", "e", 1);
  setenv("EXPAND_EMPTY", "", 1);
  setenv("EXPAND_AGAIN", "$EXPAND_ABS", 1);
  link("/real", "l");
  link("d/e", "rel");
  link("../d/./e/..", "d/up");
  const std::string root = root_.path();
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"$EXPAND_ABS/x", "/nowhere/x"},
      {"$EXPAND_ABS", "/nowhere"},
      {"$EXPAND_REL/x", root + "/d/e/x"},
      {"$EXPAND_EMPTY/x", "/x"},
      {"$EXPAND_EMPTY", root + "/d/"},
      {"$EXPAND_AGAIN/y", "$EXPAND_ABS/y"},
      {"$EXPAND_NONE/./x/../y", "$EXPAND_NONE/y"},
      {"$", "$"},
      {"a/./b", root + "/d/a/b"},
      {"../x", root + "/x"},
      {".", root + "/d/"},
      {"/nowhere/b/../c", "/nowhere/c"},
      {"/nowhere/..", "/"},
      {"/nowhere/../..", "/../"},
      {"/../nowhere", "/../nowhere"},
      {"/./nowhere/.", "/nowhere"},
      {"/.", ""},
      {"//", "//"},
      {"/nowhere//../b", "/nowhere/b"},
      {"/nowhere/.../..x", "/nowhere/.../..x"},
      {root + "/l/x", "/real/x"},
      {root + "/rel/x", root + "/d/e/x"},
      {root + "/rel", root + "/d/e/"},
      {root + "/rel/../file", root + "/d/file"},
      {"up/file", root + "/d/file"},
      {"file/", root + "/d/file/"},
  };
  for (const auto& [name, expected] : cases) {
    EXPECT_EQ(expand(name), expected) << name;
    HostFnameStrType inPlace;
    std::strcpy(inPlace, name.c_str());
    HostUnixExpandFileName(inPlace, inPlace, sizeof inPlace);
    EXPECT_EQ(inPlace, expected) << name;
  }
  {
    const KeepSoftLinks keepLinks;
    EXPECT_EQ(expand(root_ / "l/../d/."), root_ / "d");
    const KeepSoftLinks again;
  }
  EXPECT_EQ(expand(root_ / "l/x"), "/real/x");
  const FailingCall failing("getcwd", ENOENT, 0);
  EXPECT_EQ(expand("a/../b/.."), "");
}

TEST_F(HostFname, AutoMountPrefix) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"/tmp_mnt", "/tmp_mnt/home/u", "/home/u"}, {"/tmp_mnt", "/tmp_mntx", "/tmp_mntx"},
      {"/tmp_mnt", "/tmp_mnt", "/tmp_mnt"},       {"/tmp_mnt", "/tmp_mnt/", "/"},
      {"", "/tmp_mnt/a", "/tmp_mnt/a"},           {"/nowhere/b", "/nowhere/c/../b/d", "/d"},
  };
  for (const auto& [prefix, name, expected] : cases) {
    std::strcpy(autoMountPrefix, prefix);
    EXPECT_EQ(expand(name, 4096, HostExpandFileName), expected) << prefix << " " << name;
  }
  autoMountPrefix[0] = '\0';
}

TEST_F(HostFname, LinksAreCountedAndSettledPrefixesNotReadAgain) {
  link("b", "a");
  link("a", "b");
  const std::vector<std::string> asked = askedFor(root_ / "a/x");
  EXPECT_EQ(std::count(asked.begin(), asked.end(), root_ / "a") +
                std::count(asked.begin(), asked.end(), root_ / "b"),
            4095);
  EXPECT_EQ(expand(root_ / "a/x"), root_ / "a/x");

  fs::create_directories(root_ / "c/b/c");
  link(root_ / "c/b", "c/abs");
  link(root_ / "c", "c/b/up");
  link("b/./c", "c/rel");
  const auto depth = std::count(root_.path().begin(), root_.path().end(), '/');
  const std::pair<const char*, int> cases[] = {
      {"c/b/c/x", 4},         {"c//b///c", 3}, {"c/./b/././c/.", 3},
      {"c/b/c/../x/../y", 5}, {"c/abs/c", 4},  // abs, b
      {"c/rel/x", 5},                          // rel, b, c
      {"c/b/up/x", 4},                         // up; c is known
  };
  for (const auto& [name, calls] : cases) {
    EXPECT_EQ(askedFor(root_ / name).size(), static_cast<std::size_t>(depth + calls)) << name;
  }
}

TEST_F(HostFname, NamesAndTargetsAtTheLimits) {
  const std::string longName = "/" + std::string(5000, 'n');
  EXPECT_EQ(expand(longName), longName.substr(0, 4095));
  setenv("EXPAND_LONG", std::string(4000, 'v').c_str(), 1);
  EXPECT_EQ(expand("$EXPAND_LONG/" + std::string(94, 'x')).size(), 4095U);
  EXPECT_EQ(expand("$EXPAND_LONG/" + std::string(95, 'x'))[0], '$');

  // What does not fit is left out: the link stays, the current directory and the mark are missing.
  link("d/" + std::string(200, 'r'), "wide");
  link("grow/x", "grow");
  const std::string wide = root_ / "d/" + std::string(200, 'r');
  EXPECT_EQ(expand(root_ / "wide", wide.size() + 1), wide);
  EXPECT_EQ(expand(root_ / "wide", wide.size()), root_ / "wide");
  EXPECT_LT(300 - expand(root_ / "grow", 300).size(), 4U);
  const std::string marked = root_ / "d/e/";
  for (const std::string& name : {root_ / "d/e", std::string("e")}) {
    EXPECT_EQ(expand(name, marked.size() + 1), marked);
    EXPECT_EQ(expand(name, marked.size()), root_ / "d/e");
    EXPECT_EQ(expand(name, marked.size() - 1), name == "e" ? "e/" : (root_ / "d/"));
  }
  for (std::size_t size = 1; size < 4; ++size) EXPECT_EQ(expand("e", size).size(), size - 1);
  EXPECT_EQ(expand("e", 0), "");
}

TEST_F(HostFname, TemporaryNames) {
  const ChildResult child = inChild([this] {
    setenv("TMPDIR", root_.path().c_str(), 1);
    HostFnameStrType first;
    HostFnameStrType second;
    HostTempFileSpec(first, sizeof first);
    HostTempFileSpec(second, sizeof second);
    if (!std::string(first).starts_with(root_.path() + "/")) return 1;
    if (std::strcmp(first, second) == 0 || access(first, F_OK) == 0) return 2;
    for (const std::size_t room : {0, 1}) {
      char small[64] = "#########";
      HostTempFileSpec(small, std::strlen(first) + room);
      if (std::strlen(small) != room * std::strlen(first)) return 3;
    }
    char none = '#';
    HostTempFileSpec(&none, 0);
    return none == '#' ? 0 : 4;
  });
  EXPECT_EQ(exitCode(child), 0);
}

}  // namespace
