// Expands names in a fixed tree of directories, files and links: nothing may be written outside
// the buffer, the result must be the model's, and where the kernel finds the file, its realpath.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <povzel/hostfname.h>
#include "../tests/support/expandermodel.h"

namespace {

class Tree {
 public:
  Tree() {
    std::string name = std::filesystem::canonical("/tmp") / "povzel.XXXXXX";
    if (mkdtemp(name.data()) == nullptr) std::abort();
    root_ = name;
    std::filesystem::create_directories(root_ / "a/b/c");
    std::ofstream(root_ / "a/f") << "x";
    const std::pair<std::string, std::string> links[] = {
        {root_ / "a", "l"},
        {"../a/./b", "a/m"},

        {"..", "a/b/p"},
        {"c/../../f", "a/b/q"},
        {root_ / "l/m/c", "a/b/c/r"},
        {std::string(200, 'w'), "w"},
        {"/none", "o"},
    };
    for (const auto& [target, link] : links) std::filesystem::create_symlink(target, root_ / link);
  }
  ~Tree() { std::filesystem::remove_all(root_); }

  std::string root() const { return root_; }

 private:
  std::filesystem::path root_;
};

// The fuzzer itself needs its own current directory back.
class CurrentDirectory {
 public:
  explicit CurrentDirectory(const std::string& name) : before_(std::filesystem::current_path()) {
    std::filesystem::current_path(name);
  }
  ~CurrentDirectory() { std::filesystem::current_path(before_); }

 private:
  std::filesystem::path before_;
};

void require(bool condition, const char* what, const std::string& name, const std::string& result) {
  if (condition) return;
  std::fprintf(stderr, "%s: '%s' gives '%s'\n", what, name.c_str(), result.c_str());
  std::abort();
}

// Lexical removal of "a//..", and what becomes of "/." and "/..", are the expander's own.
bool kernelMustAgree(const std::string& name, const std::string& result) {
  if (name[0] == '$' || name.starts_with("/.") || name.find("//") != std::string::npos)
    return false;
  return !result.empty() && !result.starts_with("/..");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Tree tree;
  if (size < 2) return 0;
  std::string name(reinterpret_cast<const char*>(data + 2), size - 2);
  name = name.c_str();
  if ((data[0] & 1) != 0) name = tree.root() + "/" + name;
  const std::size_t capacity = (data[0] & 2) != 0 ? 4096 : data[1];

  const CurrentDirectory current(tree.root() + "/a");
  std::vector<char> buffer(capacity);
  HostUnixExpandFileName(name.c_str(), buffer.data(), capacity);
  const std::string result = capacity == 0 ? "" : buffer.data();
  require(result == ExpanderModel(capacity).expand(name), "differs from the model", name, result);

  char real[PATH_MAX];
  if (capacity < 4096 || name.size() > 1000 || name.empty()) return 0;
  if (!kernelMustAgree(name, result)) return 0;
  if (realpath(name.c_str(), real) == nullptr) return 0;
  std::string bare = result;
  if (bare.size() > 1 && bare.ends_with('/')) bare.pop_back();
  require(bare == real, "differs from realpath", name, result);
  return 0;
}
