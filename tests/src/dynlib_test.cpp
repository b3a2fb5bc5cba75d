#include <povzel/dynlib.h>

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <povzel/zeltable.h>
#include "loaderhooks.h"

using loaderhooks::Guarded;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

class DynLib : public testing::Test {
 protected:
  DynLib() { loaderhooks::reset(); }
};

TEST_F(DynLib, SuffixIsAddedToBaseNamesWithoutDot) {
  const struct {
    const char* asked;
    const char* opened;
  } cases[] = {
      {"libnone", "libnone.so"},
      {"/a.b/libnone", "/a.b/libnone.so"},
      {"libnone.so.2", "libnone.so.2"},
      {"lib/libnone-6.7", "lib/libnone-6.7"},
      {"a.b/c.d/none", "a.b/c.d/none.so"},
      {"no/such/", "no/such/.so"},
      {"", ".so"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.asked);
    loaderhooks::reset();
    int notAHandle = 0;
    DynLibType library = &notAHandle;
    char why[512];
    EXPECT_EQ(0, DynLibLoad(c.asked, &library, why, sizeof why));
    EXPECT_EQ(nullptr, library);
    EXPECT_THAT(loaderhooks::openedNames(), ElementsAre(c.opened));
    EXPECT_THAT(why, StartsWith("dlopen(" + std::string(c.opened) + ") failed because "));
    EXPECT_EQ(1, loaderhooks::errorCalls);
    EXPECT_EQ(nullptr, dlerror());
  }
}

TEST_F(DynLib, NamesThatDoNotFitWithTheirSuffixAreRefused) {
  const std::string fits(2043, 'n');
  const std::string dotted = std::string(3000, 'n') + ".so";
  DynLibType library = nullptr;
  EXPECT_EQ(0, DynLibLoad(fits.c_str(), &library, nullptr, 0));
  EXPECT_EQ(0, DynLibLoad(dotted.c_str(), &library, nullptr, 0));
  EXPECT_THAT(loaderhooks::openedNames(), ElementsAre(fits + ".so", dotted));

  loaderhooks::reset();
  Guarded why(200);
  library = &library;
  EXPECT_EQ(0, DynLibLoad((fits + "n").c_str(), &library, why.buffer(), 200));
  EXPECT_EQ(nullptr, library);
  EXPECT_THAT(why.text(), testing::AllOf(HasSubstr("2044"), HasSubstr("2043")));
  EXPECT_TRUE(why.intact());
  EXPECT_EQ(0, DynLibLoad(std::string(5000, 'n').c_str(), &library, nullptr, 0));
  EXPECT_TRUE(loaderhooks::opens.empty());
}

TEST_F(DynLib, FailureTextsAreCutToTheBuffer) {
  loaderhooks::errorsAreNull = true;
  DynLibType library = nullptr;
  ASSERT_EQ(1, DynLibLoad(loaderhooks::fixture("good").c_str(), &library, nullptr, 0));
  const std::string openText = "dlopen(libnone.so) failed because (no error info returned)";
  const std::string findText = "dlsym(NoSuchFunction) failed because (no error info returned)";
  for (ArraySizeType size = 0; size < findText.size() + 3; ++size) {
    SCOPED_TRACE(size);
    Guarded open(size);
    Guarded find(size);
    DynLibType none = nullptr;
    EXPECT_EQ(0, DynLibLoad("libnone", &none, open.buffer(), size));
    EXPECT_EQ(nullptr, DynLibGetFunc(library, "NoSuchFunction", find.buffer(), size));
    EXPECT_TRUE(open.intact() && find.intact());
    EXPECT_EQ(open.cut(openText), open.text());
    EXPECT_EQ(find.cut(findText), find.text());
  }
  EXPECT_EQ(nullptr, DynLibGetFunc(library, "NoSuchFunction", nullptr, 100));
  DynLibUnload(library);
}

TEST_F(DynLib, OpensFindsAndCloses) {
  loaderhooks::stands["libx.so"] = loaderhooks::fixture("good");
  DynLibType library = nullptr;
  ASSERT_EQ(1, DynLibLoad("libx", &library, nullptr, 0));
  ASSERT_NE(nullptr, library);
#ifdef POVZEL_SANITIZE
  EXPECT_EQ(0x101, loaderhooks::opens.at(0).flags);
#else
  EXPECT_EQ(0x109, loaderhooks::opens.at(0).flags);
#endif

  char why[256] = "untouched";
  const DynLibFuncPtr found = DynLibGetFunc(library, "ZelGetRtlTable", why, sizeof why);
  ASSERT_NE(nullptr, found);
  EXPECT_EQ(312, reinterpret_cast<ZelGetRtlTableFuncPtr>(found)()->zelFeatureLevel);
  EXPECT_STREQ("untouched", why);
  EXPECT_EQ(0, loaderhooks::errorCalls);

  EXPECT_EQ(nullptr, DynLibGetFunc(library, "NoSuchFunction", why, sizeof why));
  EXPECT_THAT(why, testing::AllOf(StartsWith("dlsym(NoSuchFunction) failed because "),
                                  HasSubstr("undefined symbol")));
  EXPECT_EQ(nullptr, DynLibGetFunc(library, "FixtureNull", why, sizeof why));
  EXPECT_STREQ("dlsym(FixtureNull) failed because (no error info returned)", why);
  EXPECT_EQ(2, loaderhooks::errorCalls);

  DynLibUnload(library);
  DynLibUnload(nullptr);
  EXPECT_THAT(loaderhooks::events, ElementsAre("opened good", "closed good"));
}

}  // namespace
