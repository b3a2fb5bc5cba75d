// Logs in to the database and runs the texts that the command line gives: query '3 + 4'
#include <cstdio>

#include <povzel/zelrtl.h>

namespace {

// The library is loaded, and the session is there, for as long as this is.
class Session {
 public:
  Session(const char* user, const char* password) {
    char why[1024];
    if (ZelRtlLoad(1, nullptr, why, sizeof why) == 0) {
      std::fprintf(stderr, "query: %s\n", why);
      return;
    }
    zel = rtlPrivZelRtlFuncs;
    zel->ZelInitAppName("query", 1);
    isOpen = zel->ZelInit() != 0;
    if (isOpen) {
      zel->ZelSetNet("", "", "", "");  // no server: the database that is built in
      isOpen = zel->ZelLogin(user, password) != 0;
    }
    if (!isOpen) tellError();
  }
  ~Session() {
    if (isOpen) zel->ZelLogout();
    ZelRtlUnload();
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  explicit operator bool() const { return isOpen; }

  // Runs the text and prints its result, which must be a small integer.
  bool run(const char* text) {
    const OopType result = zel->ZelExecuteStr(text, NilOop);
    if (tellError()) return false;
    const long number = zel->ZelOopToLong(result);
    if (tellError()) return false;
    std::printf("%ld\n", number);
    return true;
  }

 private:
  // A call that fails leaves its error in the library, which gives it away once.
  bool tellError() {
    ZelErrSType error;
    if (zel->ZelErr(&error) == 0) return false;
    std::fprintf(stderr, "query: error %d, %s\n", static_cast<int>(error.number), error.message);
    return true;
  }

  const ZelRtlJumpSType* zel = nullptr;
  bool isOpen = false;
};

}  // namespace

int main(int argc, char** argv) {
  Session session("DataCurator", "swordfish");
  if (!session) return 1;
  bool allRan = true;
  for (int i = 1; i < argc; ++i) allRan = session.run(argv[i]) && allRan;
  return allRan ? 0 : 1;
}
