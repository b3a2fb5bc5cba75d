#include <dlfcn.h>

#include <povzel/dynlib.h>
#include <povzel/zelrtl.h>
#include <povzel/zeltable.h>
#include "misaligned.h"
#include "tests.h"

namespace {

using Strings = std::vector<std::string>;

// What stands between the library and the dynamic loader.
struct Hooks {
  Strings events = {};  // the names asked for, "closed", calls of the table
  std::map<std::string, std::string> stands = {};  // name asked for: file that is opened
  const ZelRtlJumpSType* table = nullptr;          // that the fixture library hands out
  int flags = 0;                                   // of the last dlopen
  bool misaligned = false;  // a call came with a stack that is not aligned to 16 bytes
  bool isSetId = false;
};
Hooks hooks;

}  // namespace

extern "C" {

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
POVZEL_EXPORT void* dlopen(const char* name, int flags) noexcept {
  static const auto real = reinterpret_cast<decltype(&dlopen)>(dlsym(RTLD_NEXT, "dlopen"));
  if (name == nullptr) return real(name, flags);
  hooks.misaligned |= !STACK_IS_ALIGNED();
  hooks.events.emplace_back(name);
  hooks.flags = flags;
  const auto stand = hooks.stands.find(name);
  return real(stand != hooks.stands.end() ? stand->second.c_str() : name, flags);
}

POVZEL_EXPORT int dlclose(void* library) noexcept {
  static const auto real = reinterpret_cast<decltype(&dlclose)>(dlsym(RTLD_NEXT, "dlclose"));
  const int result = real(library);
  hooks.events.emplace_back(result == 0 ? "closed" : "not closed");
  return result;
}

// As in a set-id program, if asked.
POVZEL_EXPORT char* secure_getenv(const char* name) noexcept {
  return hooks.isSetId ? nullptr : getenv(name);
}

POVZEL_EXPORT const ZelRtlJumpSType* fixtureTable() {
  return hooks.table;
}

}  // extern "C"

namespace {

constexpr char noTarvolin[] =
    "\nThe TARVOLIN environment variable is not defined.\n"
    "Setting it should correct this error.\n";
constexpr char firstCandidate[] = "/no/tv/lib/libzelrpc67.so";

void setVariables(const char* tarvolin, const char* base, const char* version) {
  for (const auto& [name, value] : {std::pair("TARVOLIN", tarvolin),
                                    {"ZELRTL_BASELIBNAME", base},
                                    {"ZELRTL_VERSION", version}}) {
    unsetenv(name);
    if (value != nullptr) setenv(name, value, 1);
  }
}

ZelRtlJumpSType tableOf(int featureLevel, int compatibilityLevel) {
  ZelRtlJumpSType table{};
  table.zelFeatureLevel = featureLevel;
  table.zelCompatiblityLevel = compatibilityLevel;
  table.ZelShutdown = [] { hooks.events.emplace_back("ZelShutdown"); };
  table.ZelUnload = [] { hooks.events.emplace_back("ZelUnload"); };
  return table;
}

const ZelRtlJumpSType good = tableOf(312, 1);

class Loader : public testing::Test {
 protected:
  Loader() {
    hooks = {.stands = {{firstCandidate, POVZEL_FIXTURE}}, .table = &good};
    setVariables("/no/tv", nullptr, nullptr);
  }
  ~Loader() override { ZelRtlUnload(); }
};

using Refusal = std::function<BoolType(char* why, ArraySizeType size)>;

// Makes a call that fails, with buffers of several sizes, and returns its text. That is cut to the
// buffer, or with less than `needed` bytes is empty; nothing else is written. What the last call
// did is among the events.
std::string refusal(const Refusal& call, ArraySizeType needed = 0) {
  std::string text(8192, '#');
  EXPECT_EQ(call(text.data(), text.size()), 0);
  text.resize(std::strlen(text.c_str()));
  for (const ArraySizeType size : {0U, 1U, text.size(), text.size() + 1, text.size() + 2}) {
    std::string room(size + 1, '#');
    EXPECT_EQ(call(room.data(), size), 0) << size;
    EXPECT_EQ(room[size], '#') << size;
    if (size == 0) continue;
    EXPECT_EQ(std::string(room.c_str()), size < needed ? "" : text.substr(0, size - 1)) << size;
  }
  hooks.events.clear();
  EXPECT_EQ(call(nullptr, 100), 0);
  return text;
}

Refusal opening(const std::string& name) {
  return [name](char* why, ArraySizeType size) {
    DynLibType library = &library;
    return DynLibLoad(name.c_str(), &library, why, size) != 0 || library != nullptr ? 1 : 0;
  };
}

Refusal loading(BoolType useRpc = 1, const char* path = nullptr) {
  return [=](char* why, ArraySizeType size) { return ZelRtlLoad(useRpc, path, why, size); };
}

TEST_F(Loader, SuffixIsAddedToBaseNamesWithoutDot) {
  const std::string fits(2043, 'n');
  for (const auto& [asked, opened] :
       {std::pair<std::string, std::string>("/a.b/libnone", "/a.b/libnone.so"),
        {fits, fits + ".so"},
        {"libnone.so.2" + fits, "libnone.so.2" + fits}}) {
    EXPECT_THAT(refusal(opening(asked)), StartsWith("dlopen(" + opened + ") failed because "));
    EXPECT_THAT(hooks.events, ElementsAre(opened));
  }
  EXPECT_THAT(refusal(opening(fits + "n")), AllOf(HasSubstr("2044"), HasSubstr("2043")));
}

TEST_F(Loader, FilesThatAreCutShortAreNotOpened) {
  for (const std::size_t size : {40U, 200U, 12000U}) {
    writeFile("cut.so", readFile(POVZEL_FIXTURE).substr(0, size));
    EXPECT_EQ(refusal(opening("./cut")), "dlopen(./cut.so) failed because the file is cut short");
    EXPECT_TRUE(hooks.events.empty());
  }
}

TEST_F(Loader, RefusesFunctionsThatAreNull) {
  DynLibType library = nullptr;
  ASSERT_EQ(DynLibLoad(firstCandidate, &library, nullptr, 0), 1);
#ifndef POVZEL_SANITIZE
  EXPECT_EQ(hooks.flags, 0x109);
#endif
  const auto finding = [library](char* why, ArraySizeType size) {
    return DynLibGetFunc(library, "FixtureNull", why, size) != nullptr ? 1 : 0;
  };
  EXPECT_EQ(refusal(finding), "dlsym(FixtureNull) failed because (no error info returned)");
  DynLibUnload(library);
  DynLibUnload(nullptr);
  EXPECT_THAT(hooks.events, ElementsAre("closed"));
}

TEST_F(Loader, CandidatesAreTriedInOrder) {
  const struct {
    BoolType useRpc;
    const char *path, *tarvolin;
    Strings folders;  // before the name alone
    std::string name;
    const char *base = nullptr, *version = nullptr;
    bool isSetId = false;
  } cases[] = {
      {1, nullptr, "/t/", {"/t/lib/"}, "libzelrpc67.so", "", ""},
      {-1, ";a/;;b\\;", "\\t\\", {"a/", "b\\", "\\t\\lib/"}, "libzelrpc67.so"},
      {1, "", "", {}, "libotherrpc-6.7.1", "other", "-6.7.1"},
      {0, "", nullptr, {}, "libzellnk67.so"},
      // The invoker of a set-id program has no say.
      {1, "", "/t/", {}, "libzelrpc67.so", "other", "-6.7.1", true},
  };
  for (const auto& c : cases) {
    Strings candidates;
    for (const std::string& folder : c.folders) candidates.push_back(folder + c.name);
    candidates.push_back(c.name);
    hooks = {.isSetId = c.isSetId};
    setVariables(c.tarvolin, c.base, c.version);
    const std::string why = refusal(loading(c.useRpc, c.path));
    EXPECT_EQ(hooks.events, candidates);
    EXPECT_THAT(why, Reads("dlopen(" + c.name + ") failed because ~No such file or directory"));
    EXPECT_EQ(why.ends_with(noTarvolin), c.folders.empty());
    for (; !candidates.empty(); candidates.pop_back()) {
      hooks = {
          .stands = {{candidates.back(), POVZEL_FIXTURE}}, .table = &good, .isSetId = c.isSetId};
      EXPECT_EQ(loading(c.useRpc, c.path)(nullptr, 0), 1);
      EXPECT_EQ(hooks.events, candidates) << "the first that opens ends the search";
      ZelRtlUnload();
    }
  }
}

TEST_F(Loader, PublishesOneFitTable) {
  const std::string old = "Attempted to load old ZEL library 'libzelrpc67'.\n";
  const std::string incompatible = "Attempted to load incompatible ZEL library 'libzelrpc67'.\n";
  const ZelRtlJumpSType tables[] = {tableOf(311, 2), tableOf(312, 2)};
  const std::pair<const ZelRtlJumpSType*, std::string> cases[] = {
      {nullptr, old}, {&tables[0], old}, {&tables[1], incompatible}};
  // It would do, but the first library that opens is the one that counts.
  hooks.stands["libzelrpc67.so"] = POVZEL_FIXTURE;
  for (const auto& [table, text] : cases) {
    hooks.table = table;
    EXPECT_EQ(refusal(loading(), text.size() + 2), text);
    EXPECT_THAT(hooks.events, ElementsAre(firstCandidate, "closed"));
    EXPECT_EQ(ZelRtlIsLoaded(), 0);
  }
  hooks.stands[firstCandidate] = "libm.so.6";
  EXPECT_THAT(refusal(loading()), StartsWith("dlsym(ZelGetRtlTable) failed because "));
  EXPECT_EQ(hooks.events.back(), "closed");

  hooks = {.stands = {{firstCandidate, POVZEL_FIXTURE}}, .table = &good};
  EXPECT_EQ(loading()(nullptr, 0), 1);
  EXPECT_EQ(refusal(loading(0, "elsewhere"), 27), "Library is already loaded.");
  EXPECT_EQ(rtlPrivZelRtlFuncs, &good);
  ZelRtlUnload();
  EXPECT_THAT(hooks.events, ElementsAre("ZelShutdown", "ZelUnload", "closed"));
  EXPECT_EQ(rtlPrivZelRtlFuncs, nullptr);
}

TEST_F(Loader, AlignsTheStackForWhatItCalls) {
  for (const unsigned bytesOff : {4, 8, 12}) {
    DynLibType library = nullptr;
    misaligned(bytesOff, DynLibLoad)(POVZEL_FIXTURE, &library, nullptr, 0);
    misaligned(bytesOff, DynLibUnload)(library);
    EXPECT_THAT(hooks.events, ElementsAre(POVZEL_FIXTURE, "closed"));
    EXPECT_FALSE(hooks.misaligned) << bytesOff;
    hooks.events.clear();
  }
}

TEST_F(Loader, OverlongNamesAreRefused) {
  const std::string base(15, 'b');     // "lib", base, "rpc" and "67" are 23 characters
  const std::string entry(1011, 'e');  // with "/libzelrpc67" 1023
  const std::string path(2039, ';');   // with ";" and "/no/lib" 2047
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {base, "", "dlopen"},  {base + "b", "", "too long (24 characters, at most 23)"},
      {"", entry, "dlopen"}, {"", entry + "e", "too long (1024 characters, at most 1023)"},
      {"", path, "dlopen"},  {"", path + ";", "too long (2048 characters, at most 2047)"}};
  for (const auto& [name, folders, text] : cases) {
    setVariables("/no", name.c_str(), nullptr);
    EXPECT_THAT(refusal(loading(1, folders.c_str())), HasSubstr(text));
    EXPECT_EQ(hooks.events.empty(), text != "dlopen");
  }
}

}  // namespace
