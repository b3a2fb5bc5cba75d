#include <povzel/zelrtl.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "loaderhooks.h"

using loaderhooks::events;
using loaderhooks::Guarded;
using loaderhooks::openedNames;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr char noTarvolin[] =
    "\nThe TARVOLIN environment variable is not defined.\n"
    "Setting it should correct this error.\n";

void environment(const char* tarvolin, const char* base, const char* version) {
  const std::pair<const char*, const char*> variables[] = {
      {"TARVOLIN", tarvolin}, {"ZELRTL_BASELIBNAME", base}, {"ZELRTL_VERSION", version}};
  for (const auto& [name, value] : variables) {
    if (value != nullptr) {
      setenv(name, value, 1);
    } else {
      unsetenv(name);
    }
  }
}

class ZelRtl : public testing::Test {
 protected:
  ZelRtl() {
    loaderhooks::reset();
    environment("/no/tv", nullptr, nullptr);
  }
  ~ZelRtl() override { ZelRtlUnload(); }

  // The fixture `name` answers to the first candidate, of TARVOLIN's lib directory.
  static void provide(const char* name) {
    loaderhooks::stands["/no/tv/lib/libzelrpc67.so"] = loaderhooks::fixture(name);
  }
};

TEST_F(ZelRtl, CandidatesAreTriedInOrder) {
  const struct {
    BoolType useRpc;
    const char* path;
    const char* tarvolin;
    const char* base;
    const char* version;
    std::vector<std::string> opened;
  } cases[] = {
      {1, nullptr, "/no/tv", nullptr, nullptr, {"/no/tv/lib/libzelrpc67.so", "libzelrpc67.so"}},
      {0, nullptr, "/no/tv/", "", "", {"/no/tv/lib/libzellnk67.so", "libzellnk67.so"}},
      {-1,
       nullptr,
       "\\no\\tv\\",
       nullptr,
       nullptr,
       {"\\no\\tv\\lib/libzelrpc67.so", "libzelrpc67.so"}},
      {1,
       "noa;nob",
       "/t",
       nullptr,
       nullptr,
       {"noa/libzelrpc67.so", "nob/libzelrpc67.so", "/t/lib/libzelrpc67.so", "libzelrpc67.so"}},
      {1,
       "noa/;nob\\",
       nullptr,
       nullptr,
       nullptr,
       {"noa/libzelrpc67.so", "nob\\libzelrpc67.so", "libzelrpc67.so"}},
      {1,
       ";noa;;nob;",
       "",
       nullptr,
       nullptr,
       {"noa/libzelrpc67.so", "nob/libzelrpc67.so", "libzelrpc67.so"}},
      {1, "", nullptr, nullptr, nullptr, {"libzelrpc67.so"}},
      {1, "", "/t", nullptr, nullptr, {"/t/lib/libzelrpc67.so", "libzelrpc67.so"}},
      {1, nullptr, "/t", nullptr, "-6.7.1", {"/t/lib/libzelrpc-6.7.1", "libzelrpc-6.7.1"}},
      {0, nullptr, nullptr, "other", "123456789012", {"libotherlnk123456789012.so"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.opened[0]);
    loaderhooks::reset();
    environment(c.tarvolin, c.base, c.version);
    char why[400];
    EXPECT_EQ(0, ZelRtlLoad(c.useRpc, c.path, why, sizeof why));
    EXPECT_THAT(openedNames(), ElementsAreArray(c.opened));
    EXPECT_THAT(why, StartsWith("dlopen(" + c.opened.back() + ") failed because "));
    const bool hasTarvolin = c.tarvolin != nullptr && c.tarvolin[0] != '\0';
    EXPECT_EQ(hasTarvolin, std::string(why).find(noTarvolin) == std::string::npos);
    EXPECT_EQ(0, ZelRtlLoad(c.useRpc, c.path, nullptr, 100));
    EXPECT_EQ(0, ZelRtlIsLoaded());
  }
}

TEST_F(ZelRtl, OpensWhereverTheLibraryIs) {
  for (const char* place : {"noa/libzelrpc67.so", "nob/libzelrpc67.so", "/no/tv/lib/libzelrpc67.so",
                            "libzelrpc67.so"}) {
    SCOPED_TRACE(place);
    loaderhooks::reset();
    loaderhooks::stands[place] = loaderhooks::fixture("good");
    EXPECT_EQ(1, ZelRtlLoad(1, "noa;nob", nullptr, 0));
    EXPECT_EQ(place, openedNames().back());
    ZelRtlUnload();
  }
  // Once more without a stand-in, from a directory.
  char root[] = "/tmp/zelrtl_test.XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(root));
  const std::string lib = std::string(root) + "/libzellnk67.so";
  ASSERT_EQ(0, symlink(loaderhooks::fixture("good").c_str(), lib.c_str()));
  loaderhooks::reset();
  EXPECT_EQ(1, ZelRtlLoad(0, root, nullptr, 0));
  EXPECT_THAT(openedNames(), ElementsAre(lib));
  unlink(lib.c_str());
  rmdir(root);
}

TEST_F(ZelRtl, PublishesOneTableUntilUnloaded) {
  provide("good");
  ZelRtlUnload();
  EXPECT_THAT(events, IsEmpty());
  EXPECT_EQ(nullptr, rtlPrivZelRtlFuncs);
  char why[100] = "untouched";
  ASSERT_EQ(1, ZelRtlLoad(1, nullptr, why, sizeof why));
  EXPECT_STREQ("untouched", why);
  EXPECT_EQ(1, ZelRtlIsLoaded());
  const ZelRtlJumpSType* const table = rtlPrivZelRtlFuncs;
  ASSERT_NE(nullptr, table);
  EXPECT_EQ(312, table->zelFeatureLevel);

  for (const ArraySizeType size : {0U, 1U, 26U, 27U, 100U}) {
    Guarded again(size);
    EXPECT_EQ(0, ZelRtlLoad(0, "noa", again.buffer(), size));
    EXPECT_TRUE(again.intact());
    EXPECT_EQ(size < 27 ? "" : "Library is already loaded.", again.text());
  }
  EXPECT_EQ(0, ZelRtlLoad(1, nullptr, nullptr, 0));
  EXPECT_EQ(table, rtlPrivZelRtlFuncs);
  EXPECT_EQ(1U, loaderhooks::opens.size());

  ZelRtlUnload();
  EXPECT_THAT(events, ElementsAre("opened good", "ZelShutdown", "ZelUnload", "closed good"));
  EXPECT_EQ(nullptr, rtlPrivZelRtlFuncs);
  EXPECT_EQ(0, ZelRtlIsLoaded());
  EXPECT_EQ(1, ZelRtlLoad(1, nullptr, nullptr, 0));
}

TEST_F(ZelRtl, UnfitLibrariesAreClosedAgain) {
  const std::string old = "Attempted to load old ZEL library 'libzelrpc67'.\n";
  const std::string incompatible = "Attempted to load incompatible ZEL library 'libzelrpc67'.\n";
  const struct {
    const char* fixture;
    std::string text;
    ArraySizeType needed;  // with less room the text is empty
  } cases[] = {{"old", old, 11 + 40},
               {"incompatible", incompatible, 11 + 49},
               {"oldincompatible", old, 11 + 40},
               {"notable", old, 11 + 40}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.fixture);
    provide(c.fixture);
    // It would do, but the first library that opens is the one that counts.
    loaderhooks::stands["libzelrpc67.so"] = loaderhooks::fixture("good");
    for (const ArraySizeType size : {0U, 1U, c.needed - 1, c.needed, 200U}) {
      SCOPED_TRACE(size);
      events.clear();
      Guarded why(size);
      EXPECT_EQ(0, ZelRtlLoad(1, nullptr, why.buffer(), size));
      EXPECT_TRUE(why.intact());
      EXPECT_EQ(size < c.needed ? "" : c.text, why.text());
      EXPECT_THAT(events, ElementsAre(std::string("opened ") + c.fixture,
                                      std::string("closed ") + c.fixture));
      EXPECT_EQ(0, ZelRtlIsLoaded());
    }
    EXPECT_EQ(0, ZelRtlLoad(1, nullptr, nullptr, 200));
  }
  events.clear();
  provide("noentry");
  char why[300];
  EXPECT_EQ(0, ZelRtlLoad(1, nullptr, why, sizeof why));
  EXPECT_THAT(why, StartsWith("dlsym(ZelGetRtlTable) failed because "));
  EXPECT_EQ(0, ZelRtlLoad(1, nullptr, nullptr, 0));
  EXPECT_THAT(events,
              ElementsAre("opened noentry", "closed noentry", "opened noentry", "closed noentry"));
  provide("good");
  EXPECT_EQ(1, ZelRtlLoad(1, nullptr, nullptr, 0));
}

TEST_F(ZelRtl, HintIsCutToTheBuffer) {
  environment(nullptr, nullptr, nullptr);
  loaderhooks::errorsAreNull = true;
  const std::string whole =
      std::string("dlopen(libzelrpc67.so) failed because (no error info returned)") + noTarvolin;
  for (ArraySizeType size = 0; size < whole.size() + 3; ++size) {
    SCOPED_TRACE(size);
    Guarded why(size);
    EXPECT_EQ(0, ZelRtlLoad(1, nullptr, why.buffer(), size));
    EXPECT_TRUE(why.intact());
    EXPECT_EQ(why.cut(whole), why.text());
  }
}

TEST_F(ZelRtl, OverlongNamesAreRefused) {
  const std::string base(14, 'b');     // "lib" + base + "rpc" + "67" is 22 characters
  const std::string entry(1011, 'e');  // with "/libzelrpc67" 1023
  const std::string path(2039, ';');   // with ";" and "/no/lib" 2047
  const auto longer = [](std::string text) { return text + text[0]; };
  const struct {
    std::string base;
    std::string path;
    const char* length;  // in the refusal; null when the candidates are tried
  } cases[] = {
      {base + "b", "", nullptr},
      {base + "bb", "", "24"},
      {std::string(500, 'b'), "", "508"},
      {"", entry, nullptr},
      {"", longer(entry), "1024"},
      {"", entry + entry, "2034"},
      {"", path, nullptr},
      {"", longer(path), "2048"},
      {"", std::string(100000, 'p'), "100008"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.base.size() + c.path.size());
    loaderhooks::reset();
    environment("/no", c.base.c_str(), nullptr);
    for (const ArraySizeType size : {0U, 1U, 30U, 4096U}) {
      Guarded why(size);
      EXPECT_EQ(0, ZelRtlLoad(1, c.path.c_str(), why.buffer(), size));
      EXPECT_TRUE(why.intact());
      if (size < 4096) continue;
      if (c.length != nullptr) {
        EXPECT_THAT(why.text(), testing::AllOf(HasSubstr("too long"), HasSubstr(c.length)));
      } else {
        EXPECT_THAT(why.text(), StartsWith("dlopen("));
      }
    }
    EXPECT_EQ(0, ZelRtlLoad(1, c.path.c_str(), nullptr, 4096));
    EXPECT_EQ(c.length != nullptr, loaderhooks::opens.empty());
  }
}

}  // namespace
