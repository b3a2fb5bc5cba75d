#include <dlfcn.h>

#include <povzel/dynlib.h>
#include <povzel/zelrtl.h>
#include <povzel/zeltable.h>
#include "tests.h"

namespace {

using Strings = std::vector<std::string>;

// What stands between the library and the dynamic loader.
struct Hooks {
  Strings events = {};  // the names asked for, "closed", calls of the table
  std::map<std::string, std::string> stands = {};  // name asked for: file that is opened
  const ZelRtlJumpSType* table = nullptr;          // that the fixture library hands out
  int flags = 0;                                   // of the last dlopen
  int errorCalls = 0;                              // of dlerror
  bool errorsAreNull = false;                      // dlerror has nothing to say
};
Hooks hooks;

}  // namespace

extern "C" {

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
POVZEL_EXPORT void* dlopen(const char* name, int flags) noexcept {
  static const auto real = reinterpret_cast<decltype(&dlopen)>(dlsym(RTLD_NEXT, "dlopen"));
  if (name == nullptr) return real(name, flags);
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

POVZEL_EXPORT char* dlerror() noexcept {
  static const auto real = reinterpret_cast<decltype(&dlerror)>(dlsym(RTLD_NEXT, "dlerror"));
  ++hooks.errorCalls;
  char* reason = real();
  return hooks.errorsAreNull ? nullptr : reason;
}

POVZEL_EXPORT const ZelRtlJumpSType* fixtureTable() {
  return hooks.table;
}

}  // extern "C"

namespace {

constexpr char unknownReason[] = " failed because (no error info returned)";
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

// Makes a call that fails, with buffers of several sizes. The text is cut to the buffer, or with
// less than `needed` bytes is empty; nothing else is written.
void expectRefused(const std::string& text, const Refusal& call, ArraySizeType needed = 0) {
  const ArraySizeType whole = text.size();
  for (const ArraySizeType size : {0U, 1U, 2U, whole - 1, whole, whole + 1, whole + 2, whole + 9}) {
    std::string room(size + 32, '#');
    EXPECT_EQ(call(&room[16], size), 0) << size;
    EXPECT_EQ(room.substr(0, 16) + room.substr(16 + size), std::string(32, '#')) << size;
    if (size == 0) continue;
    EXPECT_EQ(std::string(&room[16]), size < needed ? "" : text.substr(0, size - 1)) << size;
  }
  EXPECT_EQ(call(nullptr, 100), 0);
}

std::string reasonOf(const Refusal& call) {
  char why[4096] = "untouched";
  EXPECT_EQ(call(why, sizeof why), 0);
  return why;
}

Refusal opening(const std::string& name) {
  return [name](char* why, ArraySizeType size) {
    DynLibType library = &library;
    const BoolType opened = DynLibLoad(name.c_str(), &library, why, size);
    EXPECT_EQ(library, nullptr);
    return opened;
  };
}

Refusal finding(DynLibType library, const char* name) {
  return [=](char* why, ArraySizeType size) {
    return DynLibGetFunc(library, name, why, size) != nullptr ? 1 : 0;
  };
}

Refusal loading(BoolType useRpc = 1, const char* path = nullptr) {
  return [=](char* why, ArraySizeType size) { return ZelRtlLoad(useRpc, path, why, size); };
}

TEST_F(Loader, SuffixIsAddedToBaseNamesWithoutDot) {
  const std::string fits(2043, 'n');
  const std::string dotted = std::string(3000, 'n') + ".so";
  const std::pair<std::string, std::string> cases[] = {
      {"libnone", "libnone.so"},
      {"/a.b/libnone", "/a.b/libnone.so"},
      {"libnone.so.2", "libnone.so.2"},
      {"lib/libnone-6.7", "lib/libnone-6.7"},
      {"no/such/", "no/such/.so"},
      {"", ".so"},
      {fits, fits + ".so"},
      {dotted, dotted},
  };
  for (const auto& [asked, opened] : cases) {
    hooks = {};
    EXPECT_THAT(reasonOf(opening(asked)), StartsWith("dlopen(" + opened + ") failed because "));
    EXPECT_THAT(hooks.events, ElementsAre(opened));
    EXPECT_EQ(hooks.errorCalls, 1);
  }
  hooks = {};
  EXPECT_THAT(reasonOf(opening(fits + "n")), AllOf(HasSubstr("2044"), HasSubstr("2043")));
  EXPECT_EQ(opening(std::string(5000, 'n'))(nullptr, 0), 0);
  EXPECT_THAT(hooks.events, ElementsAre());
}

TEST_F(Loader, OpensFindsAndCloses) {
  DynLibType library = nullptr;
  char why[256] = "untouched";
  ASSERT_EQ(DynLibLoad("/no/tv/lib/libzelrpc67", &library, why, sizeof why), 1);
#ifdef POVZEL_SANITIZE
  EXPECT_EQ(hooks.flags, 0x101);
#else
  EXPECT_EQ(hooks.flags, 0x109);
#endif
  const DynLibFuncPtr found = DynLibGetFunc(library, "ZelGetRtlTable", why, sizeof why);
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(reinterpret_cast<ZelGetRtlTableFuncPtr>(found)(), &good);
  EXPECT_STREQ(why, "untouched");
  EXPECT_EQ(hooks.errorCalls, 0);

  EXPECT_THAT(reasonOf(finding(library, "None")),
              AllOf(StartsWith("dlsym(None) failed because "), HasSubstr("undefined symbol")));
  EXPECT_EQ(reasonOf(finding(library, "FixtureNull")),
            std::string("dlsym(FixtureNull)") + unknownReason);
  EXPECT_EQ(hooks.errorCalls, 2);
  hooks.errorsAreNull = true;
  expectRefused(std::string("dlsym(None)") + unknownReason, finding(library, "None"));
  expectRefused(std::string("dlopen(libnone.so)") + unknownReason, opening("libnone"));

  hooks.events.clear();
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
  } cases[] = {
      {1, nullptr, "/t", {"/t/lib/"}, "libzelrpc67.so"},
      {0, nullptr, "/t/", {"/t/lib/"}, "libzellnk67.so", "", ""},
      {-1, nullptr, "\\t\\", {"\\t\\lib/"}, "libzelrpc67.so"},
      {1, "a;b", "/t", {"a/", "b/", "/t/lib/"}, "libzelrpc67.so"},
      {1, ";a/;;b\\;", "", {"a/", "b\\"}, "libzelrpc67.so"},
      {1, "", nullptr, {}, "libzelrpc67.so"},
      {1, "", "/t", {"/t/lib/"}, "libzelrpc-6.7.1", nullptr, "-6.7.1"},
      {0, nullptr, nullptr, {}, "libotherlnk123456789012.so", "other", "123456789012"},
  };
  for (const auto& c : cases) {
    Strings candidates;
    for (const std::string& folder : c.folders) candidates.push_back(folder + c.name);
    candidates.push_back(c.name);
    hooks = {};
    setVariables(c.tarvolin, c.base, c.version);
    const std::string why = reasonOf(loading(c.useRpc, c.path));
    EXPECT_EQ(hooks.events, candidates);
    EXPECT_THAT(why, StartsWith("dlopen(" + c.name + ") failed because "));
    const bool hasTarvolin = c.tarvolin != nullptr && c.tarvolin[0] != '\0';
    EXPECT_EQ(why.ends_with(noTarvolin), !hasTarvolin);
    for (; !candidates.empty(); candidates.pop_back()) {
      hooks = {.stands = {{candidates.back(), POVZEL_FIXTURE}}, .table = &good};
      EXPECT_EQ(loading(c.useRpc, c.path)(nullptr, 0), 1);
      EXPECT_EQ(hooks.events, candidates) << "the first that opens ends the search";
      ZelRtlUnload();
    }
  }
  hooks.errorsAreNull = true;
  setVariables(nullptr, nullptr, nullptr);
  expectRefused(std::string("dlopen(libzelrpc67.so)") + unknownReason + noTarvolin, loading());
}

TEST_F(Loader, PublishesOneTableUntilUnloaded) {
  ZelRtlUnload();
  EXPECT_EQ(rtlPrivZelRtlFuncs, nullptr);
  char why[100] = "untouched";
  ASSERT_EQ(ZelRtlLoad(1, nullptr, why, sizeof why), 1);
  EXPECT_STREQ(why, "untouched");
  EXPECT_EQ(ZelRtlIsLoaded(), 1);
  expectRefused("Library is already loaded.", loading(0, "elsewhere"), 27);
  EXPECT_EQ(rtlPrivZelRtlFuncs, &good);
  ZelRtlUnload();
  EXPECT_THAT(hooks.events, ElementsAre(firstCandidate, "ZelShutdown", "ZelUnload", "closed"));
  EXPECT_EQ(rtlPrivZelRtlFuncs, nullptr);
  EXPECT_EQ(ZelRtlIsLoaded(), 0);
}

TEST_F(Loader, UnfitLibrariesAreClosedAgain) {
  const std::string old = "Attempted to load old ZEL library 'libzelrpc67'.\n";
  const std::string incompatible = "Attempted to load incompatible ZEL library 'libzelrpc67'.\n";
  const ZelRtlJumpSType tables[] = {tableOf(311, 1), tableOf(-1, 2), tableOf(312, 2)};
  const std::pair<const ZelRtlJumpSType*, std::string> cases[] = {
      {nullptr, old}, {&tables[0], old}, {&tables[1], old}, {&tables[2], incompatible}};
  // It would do, but the first library that opens is the one that counts.
  hooks.stands["libzelrpc67.so"] = POVZEL_FIXTURE;
  for (const auto& [table, text] : cases) {
    hooks.table = table;
    hooks.events.clear();
    EXPECT_EQ(reasonOf(loading()), text);
    EXPECT_THAT(hooks.events, ElementsAre(firstCandidate, "closed"));
    expectRefused(text, loading(), text.size() + 2);
    EXPECT_EQ(ZelRtlIsLoaded(), 0);
  }
  hooks.stands[firstCandidate] = "libm.so.6";
  EXPECT_THAT(reasonOf(loading()), StartsWith("dlsym(ZelGetRtlTable) failed because "));
  EXPECT_EQ(hooks.events.back(), "closed");
  hooks.stands.erase(firstCandidate);
  hooks.table = &good;
  EXPECT_EQ(ZelRtlLoad(1, nullptr, nullptr, 0), 1);
}

TEST_F(Loader, OverlongNamesAreRefused) {
  const std::string base(15, 'b');     // "lib", base, "rpc" and "67" are 23 characters
  const std::string entry(1011, 'e');  // with "/libzelrpc67" 1023
  const std::string path(2039, ';');   // with ";" and "/no/lib" 2047
  const struct {
    std::string base, path;
    const char* length;  // in the refusal; null when the candidates are tried
  } cases[] = {
      {base, "", nullptr},  {base + "b", "", "24"},    {std::string(500, 'b'), "", "508"},
      {"", entry, nullptr}, {"", entry + "e", "1024"}, {"", entry + entry, "2034"},
      {"", path, nullptr},  {"", path + ";", "2048"},  {"", std::string(100000, 'p'), "100008"},
  };
  for (const auto& c : cases) {
    hooks = {};
    setVariables("/no", c.base.c_str(), nullptr);
    const std::string why = reasonOf(loading(1, c.path.c_str()));
    EXPECT_EQ(c.length != nullptr, hooks.events.empty()) << why;
    if (c.length == nullptr) continue;
    EXPECT_THAT(why, AllOf(HasSubstr("too long"), HasSubstr(c.length)));
    expectRefused(why, loading(1, c.path.c_str()));
  }
}

}  // namespace
