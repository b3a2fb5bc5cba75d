#include <povzel/hostfname.h>

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>
#include <vector>

#include "expandermodel.h"
#include "hostunix/internal.h"
#include "process.h"

namespace {

// Every prefix that readlink was asked about while recording, in order.
std::vector<std::string> asked;
bool recording = false;

}  // namespace

// Stands in for the C library's, so that the calls can be counted.
extern "C" __attribute__((visibility("default"))) ssize_t readlink(const char* path, char* buf,
                                                                   std::size_t len) noexcept {
  if (recording) asked.emplace_back(path);
  return syscall(SYS_readlink, path, buf, len);
}

namespace {

using Expander = void(const char*, char*, ArraySizeType);

std::string expand(const std::string& name, std::size_t size = sizeof(HostFnameStrType),
                   Expander* expander = HostUnixExpandFileName) {
  std::vector<char> buffer(size + 1, '#');
  expander(name.c_str(), buffer.data(), size);
  EXPECT_EQ(buffer[size], '#') << "overrun for " << name.substr(0, 200);
  return size == 0 ? "" : buffer.data();
}

class HostFname : public testing::Test {
 protected:
  HostFname() : before_(std::filesystem::current_path()) {
    std::filesystem::create_directories(root_ / "d/e/f");
    root_.write("d/file", "x");
    std::filesystem::current_path(root_ / "d");
  }
  ~HostFname() override { std::filesystem::current_path(before_); }

  void link(const std::string& target, const std::string& name) const {
    std::filesystem::create_symlink(target, root_ / name);
  }

  const ScratchDirectory root_;

 private:
  std::filesystem::path before_;
};

TEST_F(HostFname, ByName) {
  setenv("EXPAND_ABS", "/nowhere", 1);
  setenv("EXPAND_REL", "e", 1);
  setenv("EXPAND_EMPTY", "", 1);
  setenv("EXPAND_AGAIN", "$EXPAND_ABS", 1);
  unsetenv("EXPAND_NONE");
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
      {"$EXPAND_NONE/x", "$EXPAND_NONE/x"},
      {"$EXPAND_NONE/./x/../y", "$EXPAND_NONE/y"},
      {"$", "$"},
      {"$/x", "$/x"},
      {"a/./b", root + "/d/a/b"},
      {"./a", root + "/d/a"},
      {"../x", root + "/x"},
      {".", root + "/d/"},
      {"/nowhere/b/../c", "/nowhere/c"},
      {"/nowhere/..", "/"},
      {"/nowhere/../..", "/../"},
      {"/..", "/../"},
      {"/../nowhere", "/../nowhere"},
      {"/./nowhere/.", "/nowhere"},
      {"/.", ""},
      {"/", "/"},
      {"//", "//"},
      {"/nowhere//../b", "/nowhere/b"},
      {"/nowhere/.../..x", "/nowhere/.../..x"},
      {root + "/l/x", "/real/x"},
      {root + "/rel/x", root + "/d/e/x"},
      {root + "/rel", root + "/d/e/"},
      {root + "/rel/", root + "/d/e/"},
      {root + "/rel/../file", root + "/d/file"},
      {"up", root + "/d/"},
      {"up/file", root + "/d/file"},
      {"file/", root + "/d/file/"},
      {"/tmp", "/tmp/"},
  };
  for (const auto& [name, expected] : cases) {
    EXPECT_EQ(expand(name), expected) << name;
    EXPECT_EQ(ExpanderModel(4096).expand(name), expected) << name;
    HostFnameStrType inPlace;
    std::strcpy(inPlace, name.c_str());
    HostUnixExpandFileName(inPlace, inPlace, sizeof inPlace);
    EXPECT_EQ(inPlace, expected) << name;
  }
}

TEST_F(HostFname, LinksKeptOnRequest) {
  link("/real", "l");
  {
    const KeepSoftLinks keepLinks;
    EXPECT_EQ(expand(root_ / "l/x"), root_ / "l/x");
    EXPECT_EQ(expand(root_ / "l/../d/."), root_ / "d");
    const KeepSoftLinks again;
  }
  EXPECT_EQ(expand(root_ / "l/x"), "/real/x");
}

TEST_F(HostFname, RelativeWithoutACurrentDirectory) {
  const std::string gone = root_ / "gone";
  std::filesystem::create_directory(gone);
  std::filesystem::current_path(gone);
  std::filesystem::remove(gone);
  EXPECT_EQ(expand("a/./b"), "a/b");
  EXPECT_EQ(expand("a/../b/.."), "");
  EXPECT_EQ(expand("./x"), "./x");
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

TEST_F(HostFname, LoopsEndAfter4095Links) {
  link("b", "a");
  link("a", "b");
  link(root_ / "self", "self");
  asked.clear();
  recording = true;
  EXPECT_EQ(expand(root_ / "a/x"), root_ / "a/x");
  recording = false;
  EXPECT_EQ(std::count(asked.begin(), asked.end(), root_ / "a") +
                std::count(asked.begin(), asked.end(), root_ / "b"),
            4095);
  EXPECT_EQ(expand(root_ / "self"), root_ / "self");
  // A link that makes the name longer stops where it no longer fits.
  link("grow/x", "grow");
  const std::string grown = expand(root_ / "grow", 300);
  EXPECT_LT(300 - grown.size(), 4U);
  EXPECT_EQ(grown, ExpanderModel(300).expand(root_ / "grow"));
}

TEST_F(HostFname, SettledPrefixesAreNotReadAgain) {
  std::filesystem::create_directories(root_ / "a/b/c");
  link(root_ / "a/b", "a/abs");
  link(root_ / "a", "a/b/up");
  link("b/./c", "a/rel");
  const auto depth = std::count(root_.path().begin(), root_.path().end(), '/');
  const std::pair<const char*, int> cases[] = {
      {"a/b/c/x", 4},         {"a//b///c", 3}, {"a/./b/././c/.", 3},
      {"a/b/c/../x/../y", 5}, {"a/abs/c", 4},  // abs, b
      {"a/rel/x", 5},                          // rel, b, c
      {"a/b/up/x", 4},                         // up; a is known
  };
  for (const auto& [name, calls] : cases) {
    asked.clear();
    recording = true;
    const std::string result = expand(root_ / name);
    recording = false;
    EXPECT_EQ(asked.size(), static_cast<std::size_t>(depth + calls)) << name;
    EXPECT_EQ(result, ExpanderModel(4096).expand(root_ / name));
  }
}

TEST_F(HostFname, NamesAndTargetsAtTheLimits) {
  const std::string longName = "/" + std::string(5000, 'n');
  EXPECT_EQ(expand(longName), longName.substr(0, 4095));
  setenv("EXPAND_LONG", std::string(4000, 'v').c_str(), 1);
  EXPECT_EQ(expand("$EXPAND_LONG/" + std::string(200, 'x')),
            "$EXPAND_LONG/" + std::string(200, 'x'));
  unsetenv("EXPAND_LONG");

  std::string target;
  while (target.size() < 4000) target += "/" + std::string(39, 't');
  link(target, "deep");
  link("d/" + std::string(200, 'r'), "wide");
  for (const std::string& name : {root_ / "deep" + "/" + std::string(94, 'y'), root_ / "wide/x",
                                  root_ / "d/e/../../wide/./y", std::string("e/f"), root_ / "d"}) {
    const std::size_t longest = ExpanderModel(9000).expand(name).size();
    for (std::size_t size = 0; size < longest + 4; size += size < 120 ? 1 : longest / 30 + 1) {
      ASSERT_EQ(expand(name, size), ExpanderModel(size).expand(name)) << name << " in " << size;
    }
    for (std::size_t size = longest - 2; size < longest + 4; ++size) {
      ASSERT_EQ(expand(name, size), ExpanderModel(size).expand(name)) << name << " in " << size;
    }
  }
}

// Trees of random links and names made of their components: the results are the model's.
TEST_F(HostFname, RandomTreesAgreeWithTheModel) {
  std::mt19937 random(20240611);
  const auto pick = [&random](std::size_t count) { return random() % count; };
  const std::string words[] = {"a", "b", "c", "dd", ".", "..", ""};
  const auto path = [&](std::size_t most) {
    std::string result;
    for (std::size_t i = pick(most) + 1; i > 0; --i)
      result.append(words[pick(7)]).append(i > 1 ? "/" : "");
    return result;
  };
  for (int tree = 0; tree < 12; ++tree) {
    const std::string top = root_ / std::to_string(tree);
    std::filesystem::create_directory(top);
    for (int entry = 0; entry < 12; ++entry) {
      std::string where = top;
      where.append("/").append(words[pick(4)]);
      if (pick(2) != 0) where.append("/").append(words[pick(4)]);
      std::error_code ignored;
      // Links that are there already must not lead the new entry out of the tree.
      const auto parent = std::filesystem::path(where).parent_path();
      if (!std::filesystem::weakly_canonical(parent, ignored).string().starts_with(top)) continue;
      if (pick(3) == 0) {
        std::filesystem::create_directory(where, ignored);
      } else {
        std::string target = path(4);
        if (pick(2) != 0 || target.empty()) target.insert(0, top + "/");
        std::filesystem::create_symlink(target, where, ignored);
      }
    }
    std::filesystem::current_path(top);
    for (int i = 0; i < 25; ++i) {
      const std::string name = pick(2) ? path(8) : top + "/" + path(8);
      const std::size_t size = 40 + pick(160);
      ASSERT_EQ(expand(name, size), ExpanderModel(size).expand(name)) << name << " in " << size;
    }
  }
}

TEST_F(HostFname, TemporaryNames) {
  const ChildResult child = inChild([this] {
    setenv("TMPDIR", root_.path().c_str(), 1);
    HostFnameStrType first;
    HostFnameStrType second;
    HostTempFileSpec(first, sizeof first);
    HostTempFileSpec(second, sizeof second);
    if (std::string(first).rfind(root_.path() + "/", 0) != 0) return 1;
    if (std::strcmp(first, second) == 0 || access(first, F_OK) == 0) return 2;
    char small[64] = "#########";
    HostTempFileSpec(small, std::strlen(first));
    if (small[0] != '\0') return 3;
    HostTempFileSpec(small, std::strlen(first) + 1);
    if (std::strlen(small) != std::strlen(first)) return 4;
    small[0] = '#';
    HostTempFileSpec(small, 0);
    return small[0] == '#' ? 0 : 5;
  });
  EXPECT_EQ(exitCode(child), 0);
}

}  // namespace
