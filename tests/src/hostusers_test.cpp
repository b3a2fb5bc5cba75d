#include <povzel/hostusers.h>

#include <dlfcn.h>

#include <povzel/hostenv.h>
#include <povzel/hostids.h>
#include <povzel/hostinit.h>
#include <povzel/hoststrings.h>
#include <povzel/hostsystem.h>
#include "basics/fortests.h"
#include "tests.h"

// What opens in the place of libcrypt.so.1 and, if that does not, .so.2.
static const char* cryptLibraries[2] = {"libcrypt.so.1", "libmissing.so.2"};

// The dynamic loader, with the libraries of a test.
extern "C" void* dlopen(const char* name, int flags) noexcept {
  static auto* real = reinterpret_cast<void* (*)(const char*, int)>(dlsym(RTLD_NEXT, "dlopen"));
  return real(cryptLibraries[std::string(name).back() - '1'], flags);
}

namespace {

passwd account(const char* name, uid_t uid, const char* hash, const char* home) {
  const auto text = [](const char* constant) { return const_cast<char*>(constant); };
  return {text(name), text(hash), uid, 0, nullptr, text(home), nullptr};
}

const std::string longText(5000, 'h');
passwd accounts[] = {account("me", getuid(), "x", longText.c_str()),
                     account("old", 1001, "abIudS3O2Umpc", "/home/old"),
                     account("new", 1002, "x", "/home/new"), account("locked", 1004, "x", "/"),
                     account("open", 1005, "", "/home/open")};
std::map<std::string, std::string> hashes = {
    {"new",
     "$6$saltsalt$cPbDmdp7sUA1v8Yjfppi8VeFqwELnkKCqsv5H2wx/S4LZwLhIhlK7tCX/"
     "4JqgCT3onV3./FXCDD2Y6iXkj4Lp/"},
    {"locked", "!"},
    {"open", ""}};

// Finds an account as the C library does it, for which long names need a large buffer.
int lookUp(std::size_t size, passwd** found, const std::function<bool(const passwd&)>& fits) {
  passwd* account = std::find_if(std::begin(accounts), std::end(accounts), fits);
  const bool none = account == std::end(accounts);
  const bool large = !none && std::strlen(account->pw_dir) >= size;
  *found = none || large ? nullptr : account;
  return large ? ERANGE : 0;
}

// With these accounts in place of the system's.
struct HostUsers : testing::Test {
  HostUsers() {
    osCallsForTests.getpwnam_r = [](auto name, auto, auto, std::size_t size, passwd** found) {
      return lookUp(size, found,
                    [name](auto& entry) { return entry.pw_name == std::string(name); });
    };
    osCallsForTests.getpwuid_r = [](auto uid, auto, auto, std::size_t size, passwd** found) {
      return lookUp(size, found, [uid](auto& entry) { return entry.pw_uid == uid; });
    };
    osCallsForTests.getspnam_r = [](auto name, spwd* entry, auto, auto, spwd** found) {
      const bool known = hashes.contains(name);
      if (known) entry->sp_pwdp = hashes.at(name).data();
      *found = known ? entry : nullptr;
      return known || std::strcmp(name, "open") != 0 ? 0 : EACCES;
    };
  }
  ~HostUsers() override { osCallsForTests = kept_; }

  const OsCalls kept_ = osCallsForTests;
};

TEST(HostEnv, OnlyWhatFitsIsCopied) {
  char value[8] = "kept";
  EXPECT_FALSE(HostSetEnv("POVZEL_V", "eight888") && HostGetEnv("POVZEL_V", value, sizeof value));
  EXPECT_STREQ(value, "kept");
  EXPECT_TRUE(HostSetEnv("POVZEL_V", "seven77") && HostGetEnv("POVZEL_V", value, sizeof value));
  EXPECT_STREQ(value, "seven77");
}

// Why `password` is not the user's; empty if it is.
std::string refusal(const char* user, const char* password) {
  long token = 5;
  char reason[300] = "";
  const BoolType right = HostValidatePassword(user, password, &token, reason, sizeof reason);
  EXPECT_EQ(HostValidatePassword(user, password, &token, nullptr, 0), right);
  EXPECT_EQ(right != 0, reason[0] == '\0');
  EXPECT_EQ(token, 0);
  return reason;
}

TEST_F(HostUsers, PasswordsByAccount) {
  const std::tuple<const char*, const char*, std::string> cases[] = {
      {"new", "swordfish", ""},
      {"new", "", "[pwvalidation.badpw new]"},
      {"old", "swordfish", ""},
      {"locked", "!", "[pwvalidation.badpw locked]"},
      {"open", "", "[pwvalidation.badpw open]"},
      {"me", "x", "[pwvalidation.getspnam me ]"},
      {"stranger", "x", "[pwvalidation.getpwnam stranger ]"}};
  // In a child, because the library stays once it is found.
  const ChildResult child = inChild([&] {
    cryptLibraries[0] = "libmissing.so.1";
    std::puts(refusal("new", "swordfish").c_str());
    cryptLibraries[1] = "libcrypt.so.1";
    for (const auto& [user, password, reason] : cases) EXPECT_EQ(refusal(user, password), reason);
    inThreads(3, [](int thread) {
      const char* password = thread == 0 ? "swordfish" : thread == 1 ? "wrong" : "other";
      long token;
      for (int time = 0; time < 400; ++time) {
        EXPECT_EQ(HostValidatePassword("old", password, &token, nullptr, 0), thread == 0);
      }
    });
    hashes.erase("open");
    EXPECT_EQ(refusal("open", ""),
              "[pwvalidation.getspnam open [unixerr.part1 13][unixerr.EACCES]]");
    return testing::Test::HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(exitCode(child), 0) << child.out;
  EXPECT_THAT(child.out,
              Reads("Passwords cannot be checked: libmissing.so.1: ~\n~libcrypt1:i386).\n"));
}

// Who has logged in, by the kernel's record, the terminal's login record and TV_LOGIN_NAME; and
// what is told of it when TV_DEBUG_LOGIN_USER is set.
TEST_F(HostUsers, LoginUserBySource) {
  static const char* record;
  static const char* terminal;
  const std::string failed = "[Debug]: getLoginUidFromProc() failed: ";
  const std::string noTerminal = "\n[Debug]: getlogin_r() failed, rc=6\n[Debug]: ";
  const std::tuple<const char*, const char*, const char*, std::string> cases[] = {
      {"1002\n", nullptr, "old",
       "[Debug]: Got login user from /proc/pid/loginuid:  'new' (1002)\n= 1 1002 new"},
      {"-7", "old", "new",
       failed + "Invalid uid found in loginuid: -7\n[Debug]: getlogin_r() success: login user is "
                "old\n= 1 1001 old"},
      {"777", nullptr, "stranger",
       failed + "getpwuid(777) failed, errno=0" + noTerminal +
           "Got login user for TV_LOGIN_NAME env var: login user is stranger\n[Debug]: Unable to "
           "determine the login user id.  getpwnam(stranger) failure, errno=0\n= 0 -1 stranger"},
      {nullptr, nullptr, "",
       failed + "open(/proc/~/loginuid) failed.  errno=2" + noTerminal +
           "TV_LOGIN_NAME is not set.  Unable to get login user.= 0 -1 unknown user"}};
  osCallsForTests.getlogin_r = [](char* name, std::size_t size) {
    if (terminal != nullptr) std::snprintf(name, size, "%s", terminal);
    return terminal != nullptr ? 0 : ENXIO;
  };
  osCallsForTests.open = [](const char* name, int flags, mode_t mode) {
    if (record != nullptr) writeFile("loginuid", record);
    return open(record != nullptr ? "loginuid" : name + 1, flags, mode);
  };
  for (const auto& [kernel, login, name, told] : cases) {
    record = kernel;
    terminal = login;
    setenv("TV_LOGIN_NAME", name, 1);
    const auto ask = [] {
      int id = 5;
      char user[32];
      const BoolType found = HostGetLoginUserInfo(&id, user, sizeof user);
      std::printf("= %d %d %s", found, id, user);
    };
    setenv("TV_DEBUG_LOGIN_USER", "1", 1);
    EXPECT_THAT(printed(ask), Reads(told));
    setenv("TV_DEBUG_LOGIN_USER", "", 1);
    EXPECT_EQ(printed(ask), told.substr(told.find("= ")));
  }
}

TEST_F(HostUsers, RealAndEffectiveUser) {
  EXPECT_EQ(HostIsSuperUser(), geteuid() == 0);
  if (geteuid() != 0) GTEST_SKIP() << "only root can change its ids";
  const ChildResult child = inChild([] {
    const auto tell = [](std::size_t size) {
      int id[3];
      char name[3][13];
      HostGetUserInfo(&id[0], &id[1], &id[2], name[0], size, name[1], 8, name[2], size);
      std::printf("%d %s %d %s %s\n", id[0], name[0], id[1], name[1], name[2]);
    };
    if (setresuid(1001, 888, 0) != 0) return 1;
    tell(13);
    if (HostIsSuperUser() || seteuid(1001) != 0) return 2;
    tell(3);
    const HostUserIdSType other{.uid = 4711, .gid = getegid()};
    errno = 0;
    HostUseRealId(nullptr);
    const int unchanged = errno;
    HostSetUserId(&other);
    return unchanged == 0 ? errno : 3;
  });
  EXPECT_EQ(exitCode(child), EPERM);
  EXPECT_EQ(child.out, "1001 old 888 unknown unknown user\n1001 ol 1001 old un\n");
}

TEST_F(HostUsers, UserNameHomeAndAdministrators) {
  const ChildResult child = runInChild([] {
    accounts[0].pw_uid = 888;
    std::puts(HostGetUserName());
    utlHeapAllocateForTests = [](std::size_t) -> void* { return nullptr; };  // it needs no memory
    accounts[0] = account(longText.c_str(), getuid(), "", "");
    HostGetUserName()[0] = '#';
    std::puts(HostGetUserName());
  });
  EXPECT_EQ(child.out, "FORGED USER\n" + longText.substr(0, 39) + "\n");
  EXPECT_EQ(child.err, "HostGetUserName:  getpwuid(getuid()) returned NULL, errno = 0\n");
  const std::string here = fs::current_path();
  const std::pair<const char*, std::string> homes[] = {
      {"old", "/home/old/"}, {"stranger", here}, {"me", here}};
  for (const auto& [user, home] : homes) {
    HostFnameStrType found;
    EXPECT_EQ(HostGetHomeDir(user, found), home != here) << user;
    EXPECT_EQ(found, home);
  }
  EXPECT_TRUE(HostUserSysAdmin("SystemUser") && HostUserSysAdmin("DataCurator"));
  EXPECT_FALSE(HostUserSysAdmin("systemuser") || HostUserSysAdmin("SystemUsers"));
}

TEST(HostSystem, HostNameByResolver) {
  static std::string given = "nowhere";
  const ChildResult child = runInChild([] {
    osCallsForTests.gethostname = [](char* name, std::size_t size) noexcept {
      std::snprintf(name, size, "%s", given.c_str());
      return given.empty() ? -1 : 0;
    };
    osCallsForTests.gethostbyname_r = [](auto name, hostent* entry, auto, auto, auto found, auto) {
      static char official[] = "host.example";
      entry->h_name = official;
      *found = std::string(name) == "host" ? entry : nullptr;
      return 0;
    };
    // Once the resolver has answered, it is asked no more.
    const std::pair<const char*, ArraySizeType> calls[] = {{"nowhere", 32}, {"", 32}, {"host", 4},
                                                           {"nowhere", 13}, {"", 12}, {"", 0}};
    for (const auto& [name, size] : calls) {
      given = name;
      char found[32] = "";
      const BoolType fits = HostGetHostname(found, size);
      std::printf("<%d %s>", fits, found);
    }
  });
  EXPECT_EQ(child.out,
            "gethostbyname() failure for host nowhere\n<0 >gethostname() failure<0 ><0 hos>"
            "<1 host.example><0 host.exampl><0 >");
}

TEST(HostSystem, DescriptionBeforeAndAfterInit) {
  const ChildResult child = runInChild([] {
    char text[400];
    HostGetSystemName(text, sizeof text);
    std::puts(text);
    osCallsForTests.uname = [](utsname* is) noexcept {
      *is = {"Linux", "povzelhost", "6.1-x", "#1 SMP", "i686", ""};
      return 0;
    };
    HostInit();
    for (const std::size_t size : {sizeof text, 7U}) {
      HostGetSystemName(text, size);
      std::puts(text);
    }
    const HostSystemInfoSType& info = *HostGetSystemInfo();
    std::printf("%s %s %d %s", info.osName, info.nodeName,
                info.cpuCount == HostGetCpuCount() && info.cpuCount >= 1, info.cpuMisc);
    HostDisableFPE();
    HostEnableFPE();
  });
  EXPECT_THAT(child.out, testing::MatchesRegex("x86 .Linux 2.6.18-8.el5PAE #1 SMP glibc-2.5-12.\n"
                                               "povzelhost i686 .Linux 6.1-x #1 SMP.\npovzel\n"
                                               "Linux povzelhost 1 [1-9][0-9][0-9]+MB"));
}

TEST(HostStrings, OrderByComparison) {
  const auto outcome = [](const std::string& a, const std::string& b) {
    const auto* first = reinterpret_cast<const ByteType*>(a.data());
    const auto* second = reinterpret_cast<const ByteType*>(b.data());
    return std::tuple(HostStrCmpi(a.c_str(), b.c_str()),
                      HostStrCompare(first, second, a.size(), b.size()),
                      HostStrCompareCaseInsen(first, second, a.size(), b.size()));
  };
  const std::tuple<const char*, const char*, int, long, long> cases[] = {
      {"", "", 0, 0, 0},         {"a", "A", 0, 1, 0},     {"abc", "ABD", -1, 1, -1},
      {"ab", "abc", -1, -1, -1}, {"\x80", "a", -1, 1, 1}, {"_", "a", 1, -1, 1}};
  for (const auto& [a, b, cmpi, compare, insensitive] : cases) {
    EXPECT_EQ(outcome(a, b), std::tuple(cmpi, compare, insensitive)) << a << " " << b;
    EXPECT_EQ(outcome(b, a), std::tuple(-cmpi, -compare, -insensitive)) << a << " " << b;
  }
}

}  // namespace
