#include <povzel/hostusers.h>

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <regex>

#include <povzel/hostenv.h>
#include <povzel/hostinit.h>
#include <povzel/hoststrings.h>
#include <povzel/hostsystem.h>
#include <povzel/unixerr.h>
#include "basics/fortests.h"
#include "process.h"
#include "reads.h"

namespace {

bool cryptIsMissing = false;

}  // namespace

// The dynamic loader, with a library that is not there in the place of one that a test hides.
extern "C" void* dlopen(const char* name, int flags) noexcept {
  static auto* real = reinterpret_cast<void* (*)(const char*, int)>(dlsym(RTLD_NEXT, "dlopen"));
  return real(cryptIsMissing ? "libmissing.so.1" : name, flags);
}

namespace {

passwd account(const char* name, uid_t uid, const char* hash, const char* home) {
  passwd entry = {};
  entry.pw_name = const_cast<char*>(name);
  entry.pw_uid = uid;
  entry.pw_passwd = const_cast<char*>(hash);
  entry.pw_dir = const_cast<char*>(home);
  return entry;
}

const std::string longText(5000, 'h');
passwd accounts[] = {
    account("me", getuid(), "x", longText.c_str()),
    account("old", 1001, "abIudS3O2Umpc", "/home/old"),
    account("new", 1002, "x", "/home/new"),
    account("locked", 1004, "x", "/"),
    account("open", 1005, "", "/home/open"),
};
std::map<std::string, std::string> hashes = {
    {"new",
     "$6$saltsalt$cPbDmdp7sUA1v8Yjfppi8VeFqwELnkKCqsv5H2wx/S4LZwLhIhlK7tCX/"
     "4JqgCT3onV3./FXCDD2Y6iXkj4Lp/"},
    {"locked", "!"},
    {"open", ""}};

template <typename Fits>
passwd* lookUp(Fits fits) {
  auto* found = std::find_if(std::begin(accounts), std::end(accounts), fits);
  return found != std::end(accounts) ? found : nullptr;
}

// With these accounts in place of the system's.
class HostUsers : public testing::Test {
 protected:
  HostUsers() {
    osCallsForTests.getpwnam = [](const char* name) {
      return lookUp([name](const passwd& entry) { return std::strcmp(entry.pw_name, name) == 0; });
    };
    osCallsForTests.getpwuid = [](uid_t uid) {
      return lookUp([uid](const passwd& entry) { return entry.pw_uid == uid; });
    };
    osCallsForTests.getspnam = [](const char* name) {
      static spwd entry;
      if (hashes.contains(name)) entry.sp_pwdp = hashes[name].data();
      return hashes.contains(name) ? &entry : nullptr;
    };
  }
  ~HostUsers() override { osCallsForTests = kept_; }

 private:
  const OsCalls kept_ = osCallsForTests;
};

std::string lookupFailure(const char* symbol, const char* user, int error) {
  char text[200];
  UnixErr(error, text, sizeof text);
  return std::string("[pwvalidation.") + symbol + " " + user + " " + text + "]";
}

TEST(HostEnv, ValuesByVariable) {
  char value[8] = "kept";
  EXPECT_TRUE(HostSetEnv("POVZEL_V", "seven77"));
  EXPECT_TRUE(HostGetEnv("POVZEL_V", value, sizeof value));
  EXPECT_TRUE(HostSetEnv("POVZEL_V", "eight888"));
  EXPECT_FALSE(HostGetEnv("POVZEL_V", value, sizeof value) || HostGetEnv("POVZEL_V", value, 0));
  EXPECT_TRUE(HostSetEnv("POVZEL_V", ""));
  EXPECT_FALSE(HostGetEnv("POVZEL_V", value, sizeof value));
  unsetenv("POVZEL_V");
  EXPECT_FALSE(HostGetEnv("POVZEL_V", value, sizeof value));
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
  // In a child, because the library stays once it is found.
  const ChildResult child = inChild([] {
    cryptIsMissing = true;
    std::puts(refusal("new", "swordfish").c_str());
    cryptIsMissing = false;
    EXPECT_EQ(refusal("new", "swordfish"), "");
    EXPECT_EQ(refusal("new", ""), "[pwvalidation.badpw new]");
    EXPECT_EQ(refusal("old", "swordfish"), "");
    EXPECT_EQ(refusal("old", "sword"), "[pwvalidation.badpw old]");
    EXPECT_EQ(refusal("locked", "swordfish"), "[pwvalidation.badpw locked]");
    EXPECT_EQ(refusal("locked", "!"), "[pwvalidation.badpw locked]");
    EXPECT_EQ(refusal("open", ""), "[pwvalidation.badpw open]");
    EXPECT_EQ(refusal("me", "x"), lookupFailure("getspnam", "me", 0));
    EXPECT_EQ(refusal("stranger", "x"), lookupFailure("getpwnam", "stranger", 0));
    osCallsForTests.getspnam = [](const char*) -> spwd* {
      errno = EACCES;
      return nullptr;
    };
    EXPECT_EQ(refusal("new", "swordfish"), lookupFailure("getspnam", "new", EACCES));
    return testing::Test::HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(exitCode(child), 0) << child.out;
  EXPECT_THAT(child.out, Reads("Passwords cannot be checked: libmissing.so.1: "));
}

// Who has logged in, by the kernel's record, the terminal's login record and TV_LOGIN_NAME.
TEST_F(HostUsers, LoginUserBySource) {
  static const char* record;
  static const char* terminal;
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"1002\n", nullptr, "old"}, {"-7", "old", "new"},         {"4294967295", nullptr, "old"},
      {"", nullptr, "old"},       {"777", nullptr, "stranger"}, {nullptr, nullptr, ""},
  };
  osCallsForTests.getlogin_r = [](char* name, std::size_t size) {
    if (terminal != nullptr) std::snprintf(name, size, "%s", terminal);
    return terminal != nullptr ? 0 : ENXIO;
  };
  osCallsForTests.open = [](const char* name, int flags, mode_t mode) {
    if (record != nullptr) writeFile("loginuid", record);
    return open(record != nullptr ? "loginuid" : name + 1, flags, mode);
  };
  const auto tell = [&] {
    testing::internal::CaptureStdout();
    for (const auto& [kernel, login, variable] : cases) {
      record = kernel;
      terminal = login;
      setenv("TV_LOGIN_NAME", variable, 1);
      int id = 5;
      char name[32];
      const BoolType found = HostGetLoginUserInfo(&id, name, sizeof name);
      std::printf("= %d %d %s\n", found, id, name);
    }
    return std::regex_replace(testing::internal::GetCapturedStdout(),
                              std::regex("(read.|/proc/)[0-9]+"), "$1N");
  };
  unsetenv("TV_DEBUG_LOGIN_USER");
  EXPECT_EQ(tell(),
            "= 1 1002 new\n= 1 1001 old\n= 1 1001 old\n= 1 1001 old\n= 0 -1 stranger\n"
            "= 0 -1 unknown user\n");
  setenv("TV_DEBUG_LOGIN_USER", "1", 1);
  EXPECT_EQ(tell(),
            "[Debug]: Got login user from /proc/pid/loginuid:  'new' (1002)\n"
            "= 1 1002 new\n"
            "[Debug]: getLoginUidFromProc() failed: Invalid uid found in loginuid: -7\n"
            "[Debug]: getlogin_r() success: login user is old\n"
            "= 1 1001 old\n"
            "[Debug]: getLoginUidFromProc() failed: strtol(4294967295) failed. errno=34\n"
            "[Debug]: getlogin_r() failed, rc=6\n"
            "[Debug]: Got login user for TV_LOGIN_NAME env var: login user is old\n"
            "= 1 1001 old\n"
            "[Debug]: getLoginUidFromProc() failed: read(N) failed, rc=0, errno=0\n"
            "[Debug]: getlogin_r() failed, rc=6\n"
            "[Debug]: Got login user for TV_LOGIN_NAME env var: login user is old\n"
            "= 1 1001 old\n"
            "[Debug]: getLoginUidFromProc() failed: getpwuid(777) failed, errno=0\n"
            "[Debug]: getlogin_r() failed, rc=6\n"
            "[Debug]: Got login user for TV_LOGIN_NAME env var: login user is stranger\n"
            "[Debug]: Unable to determine the login user id.  getpwnam(stranger) failure, errno=0\n"
            "= 0 -1 stranger\n"
            "[Debug]: getLoginUidFromProc() failed: open(/proc/N/loginuid) failed.  errno=2\n"
            "[Debug]: getlogin_r() failed, rc=6\n"
            "[Debug]: TV_LOGIN_NAME is not set.  Unable to get login user.= 0 -1 unknown user\n");
  unsetenv("TV_DEBUG_LOGIN_USER");
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
    return 0;
  });
  EXPECT_EQ(child.out, "1001 old 888 unknown unknown user\n1001 ol 1001 ol un\n");
}

TEST_F(HostUsers, UserNameAndHome) {
  const ChildResult child = inChild([] {
    accounts[0].pw_uid = 888;
    EXPECT_STREQ(HostGetUserName(), "FORGED USER");
    accounts[0] = account(longText.c_str(), getuid(), "", "");
    EXPECT_EQ(HostGetUserName(), longText.substr(0, 39));
    HostGetUserName()[0] = '#';
    accounts[0].pw_uid = 888;
    EXPECT_EQ(HostGetUserName(), longText.substr(0, 39));
    return 0;
  });
  EXPECT_EQ(child.out, "");
  EXPECT_EQ(child.err, "HostGetUserName:  getpwuid(getuid()) returned NULL, errno = 0\n");
  HostFnameStrType home;
  EXPECT_TRUE(HostGetHomeDir("old", home));
  EXPECT_STREQ(home, "/home/old/");
  EXPECT_TRUE(HostGetHomeDir("locked", home));
  EXPECT_STREQ(home, "//");
  for (const char* user : {"stranger", "me"}) {
    EXPECT_FALSE(HostGetHomeDir(user, home));
    EXPECT_EQ(home, std::filesystem::current_path());
  }
}

TEST(HostUsersByName, AdministratorsByExactName) {
  for (const char* name : {"SystemUser", "DataCurator"}) EXPECT_TRUE(HostUserSysAdmin(name));
  for (const char* name : {"systemuser", "SystemUsers", "SystemUse", "", "DATACURATOR"}) {
    EXPECT_FALSE(HostUserSysAdmin(name)) << name;
  }
}

TEST(HostSystem, HostNameByResolver) {
  static std::string given = "nowhere";
  const ChildResult child = inChild([] {
    osCallsForTests.gethostname = [](char* name, std::size_t size) noexcept {
      std::snprintf(name, size, "%s", given.c_str());
      return given.empty() ? -1 : 0;
    };
    osCallsForTests.gethostbyname = [](const char* name) {
      static char official[] = "host.example";
      static hostent entry = {official, nullptr, 0, 0, nullptr};
      return std::string(name) == "host" ? &entry : nullptr;
    };
    char name[32] = "";
    EXPECT_FALSE(HostGetHostname(name, sizeof name));
    given = "";
    EXPECT_FALSE(HostGetHostname(name, sizeof name));
    given = "host";
    EXPECT_FALSE(HostGetHostname(name, 4));
    EXPECT_STREQ(name, "hos");
    given = "nowhere";
    EXPECT_TRUE(HostGetHostname(name, 13));
    EXPECT_STREQ(name, "host.example");
    EXPECT_FALSE(HostGetHostname(name, 12) || HostGetHostname(name, 0));
    return 0;
  });
  EXPECT_EQ(child.out, "gethostbyname() failure for host nowhere\ngethostname() failure");
}

TEST(HostSystem, DescriptionBeforeAndAfterInit) {
  const ChildResult child = inChild([] {
    char text[400];
    HostGetSystemName(text, sizeof text);
    EXPECT_STREQ(text, "x86 (Linux 2.6.18-8.el5PAE #1 SMP glibc-2.5-12)");
    osCallsForTests.uname = [](utsname* is) noexcept {
      *is = {"Linux", "povzelhost", "6.1-x", "#1 SMP", "i686", ""};
      return 0;
    };
    HostInit();
    HostGetSystemName(text, sizeof text);
    EXPECT_STREQ(text, "povzelhost i686 (Linux 6.1-x #1 SMP)");
    HostGetSystemName(text, 7);
    EXPECT_STREQ(text, "povzel");
    const HostSystemInfoSType& info = *HostGetSystemInfo();
    EXPECT_EQ(std::string(info.osName) + info.nodeName, "Linuxpovzelhost");
    EXPECT_TRUE(info.cpuCount == HostGetCpuCount() && info.cpuCount >= 1);
    EXPECT_THAT(info.cpuMisc, testing::MatchesRegex("[1-9][0-9][0-9]+MB"));
    HostDisableFPE();
    HostEnableFPE();
    return 0;
  });
  EXPECT_EQ(child.out, "");
}

TEST(HostStrings, OrderByComparison) {
  const auto check = [](const std::string& a, const std::string& b, int cmpi, long compare,
                        long insensitive) {
    const auto* first = reinterpret_cast<const ByteType*>(a.data());
    const auto* second = reinterpret_cast<const ByteType*>(b.data());
    EXPECT_EQ(HostStrCmpi(a.c_str(), b.c_str()), cmpi) << a << " " << b;
    EXPECT_EQ(HostStrCompare(first, second, a.size(), b.size()), compare) << a << " " << b;
    EXPECT_EQ(HostStrCompareCaseInsen(first, second, a.size(), b.size()), insensitive) << a << b;
  };
  const std::tuple<const char*, const char*, int, long, long> cases[] = {
      {"", "", 0, 0, 0},         {"a", "A", 0, 1, 0},       {"abc", "ABD", -1, 1, -1},
      {"ab", "abc", -1, -1, -1}, {"abc", "AB", 1, 1, 1},    {"", "a", -1, -1, -1},
      {"\x80", "a", -1, 1, 1},   {"\xff", "\x80", 1, 1, 1}, {"_", "a", 1, -1, 1},
  };
  for (const auto& [a, b, cmpi, compare, insensitive] : cases) {
    check(a, b, cmpi, compare, insensitive);
    check(b, a, -cmpi, -compare, -insensitive);
  }
  EXPECT_EQ(HostMemCmpi("a\0b", "A\0c", 3), -1);
  EXPECT_EQ(HostMemCmpi("a", "b", 0), 0);
}

}  // namespace
