// Expands names in a fixed tree of directories, files and links: nothing may be written outside
// the buffer, what fits expands to itself, and where the kernel finds the file, the result is what
// realpath gives.

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include <povzel/hostfname.h>
#include "require.h"

namespace {

namespace fs = std::filesystem;

// Made in the scratch folder, where the process then works in the tree's own folder "a".
fs::path makeTree() {
  fs::path root = fs::canonical(fs::current_path()) / "tree";
  fs::create_directories(root / "a/b/c");
  std::ofstream(root / "a/f") << "x";
  const std::pair<std::string, std::string> links[] = {
      {root / "a", "l"},      {"../a/./b", "a/m"},         {"..", "a/b/p"},
      {"c/../../f", "a/b/q"}, {root / "l/m/c", "a/b/c/r"}, {std::string(200, 'w'), "w"},
      {"/none", "o"},
  };
  for (const auto& [target, link] : links) fs::create_symlink(target, root / link);
  return root;
}

std::string expand(const std::string& name, std::size_t capacity) {
  std::vector<char> buffer(capacity + 1, '#');
  HostUnixExpandFileName(name.c_str(), buffer.data(), capacity);
  require(buffer[capacity] == '#');
  if (capacity == 0) return "";
  require(std::find(buffer.begin(), buffer.end() - 1, '\0') != buffer.end() - 1);
  return buffer.data();
}

// Lexical removal of "a//..", and what becomes of "/." and "/..", are the expander's own.
bool kernelMustAgree(const std::string& name, const std::string& result) {
  if (name[0] == '$' || name.starts_with("/.") || name.find("//") != std::string::npos)
    return false;
  return !result.empty() && !result.starts_with("/..");
}

void check(const std::string& name, std::size_t capacity) {
  std::string result = expand(name, capacity);
  if (capacity < 4096 || name.size() > 1000 || name.empty()) return;
  if (result.starts_with("/")) require(expand(result, capacity) == result);

  char real[PATH_MAX];
  if (!kernelMustAgree(name, result) || realpath(name.c_str(), real) == nullptr) return;
  if (result.size() > 1 && result.ends_with('/')) result.pop_back();
  require(result == real);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const fs::path root = makeTree();
  if (size < 2) return 0;
  std::string name(reinterpret_cast<const char*>(data + 2), size - 2);
  name.erase(std::min(name.find('\0'), name.size()));
  if ((data[0] & 1) != 0) name.insert(0, root.string() + "/");
  const fs::path before = fs::current_path();  // where the fuzzer itself works
  fs::current_path(root / "a");
  check(name, (data[0] & 2) != 0 ? 4096 : data[1]);
  fs::current_path(before);
  return 0;
}
