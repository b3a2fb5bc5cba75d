#include <povzel/hostusers.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>

#include <cstring>

#include <povzel/hostenv.h>
#include <povzel/hostinit.h>
#include <povzel/hoststrings.h>
#include <povzel/hostsystem.h>
#include <povzel/unixerr.h>
#include "surroundings.h"

namespace {

using testing::MatchesRegex;

constexpr char longName[] = "a-user-whose-name-is-longer-than-fits-into-the-buffer";

// Password files of the tests' own, shown to children in place of the system's.
class PasswordFiles {
 public:
  PasswordFiles() {
    scratch_.write("passwd", std::string("root:x:0:0:root:/root:/bin/sh\n"
                                         "old:abIudS3O2Umpc:1001:1001::/home/old:/bin/sh\n"
                                         "new:x:1002:1002::/home/new:/bin/sh\n"
                                         "unshadowed:x:1003:1003::/:/bin/sh\n"
                                         "locked:x:1004:1004::/home/l:/bin/sh\n"
                                         "open::1005:1005::/home/o:/bin/sh\n") +
                                 longName + ":x:1006:1006::/home/" + std::string(5000, 'h') +
                                 ":/bin/sh\n");
    scratch_.write("shadow",
                   "new:$6$saltsalt$cPbDmdp7sUA1v8Yjfppi8VeFqwELnkKCqsv5H2wx/S4LZwLhIhlK7tCX/"
                   "4JqgCT3onV3./FXCDD2Y6iXkj4Lp/:1::::::\n"
                   "locked:!:1::::::\n"
                   "open::1::::::\n");
    std::filesystem::permissions(scratch_ / "shadow", std::filesystem::perms::owner_read);
    scratch_.write("nsswitch.conf", "passwd: files\nshadow: files\nhosts: files\n");
    scratch_.write("hosts", "127.0.0.1 povzelhost.example povzelhost\n");
  }

  void show() const {
    useOwnMounts();
    for (const char* name : {"passwd", "shadow", "nsswitch.conf", "hosts"}) {
      if (std::filesystem::exists(std::string("/etc/") + name)) {
        showAs(scratch_ / name, std::string("/etc/") + name);
      }
    }
  }

  // Shows `record` as the kernel's record of who has logged in to this process.
  void showLogin(const std::string& record) const {
    showAs(scratch_.write("loginuid", record), "/proc/" + std::to_string(getpid()) + "/loginuid");
  }

 private:
  const ScratchDirectory scratch_;
};

std::string errorText(int number) {
  char text[200];
  UnixErr(number, text, sizeof text);
  return text;
}

TEST(HostEnv, ValuesByVariable) {
  char value[8] = "kept";
  EXPECT_TRUE(HostSetEnv("POVZEL_V", "seven77"));
  EXPECT_TRUE(HostGetEnv("POVZEL_V", value, sizeof value));
  EXPECT_STREQ(value, "seven77");
  EXPECT_TRUE(HostSetEnv("POVZEL_V", "eight888"));
  EXPECT_FALSE(HostGetEnv("POVZEL_V", value, sizeof value));
  EXPECT_FALSE(HostGetEnv("POVZEL_V", value, 0));
  EXPECT_TRUE(HostSetEnv("POVZEL_V", ""));
  EXPECT_FALSE(HostGetEnv("POVZEL_V", value, sizeof value));
  unsetenv("POVZEL_V");
  EXPECT_FALSE(HostGetEnv("POVZEL_V", value, sizeof value));
  EXPECT_STREQ(value, "seven77");
}

TEST(HostUsers, PasswordsByAccount) {
  const PasswordFiles files;
  struct Case {
    const char* user;
    const char* password;
    BoolType result;
    std::string reason;
  };
  const Case cases[] = {
      {"old", "swordfish", 1, ""},
      {"old", "sword", 0, "[pwvalidation.badpw old]"},
      {"new", "swordfish", 1, ""},
      {"new", "", 0, "[pwvalidation.badpw new]"},
      {"locked", "swordfish", 0, "[pwvalidation.badpw locked]"},
      {"locked", "!", 0, "[pwvalidation.badpw locked]"},
      {"open", "", 0, "[pwvalidation.badpw open]"},
      {"unshadowed", "x", 0, "[pwvalidation.getspnam unshadowed " + errorText(0) + "]"},
      {"nobody-at-all", "x", 0, "[pwvalidation.getpwnam nobody-at-all " + errorText(0) + "]"},
  };
  for (const Case& c : cases) {
    const ChildResult child = inChild([&] {
      files.show();
      long token = 5;
      char reason[200] = "";
      const BoolType result =
          HostValidatePassword(c.user, c.password, &token, reason, sizeof reason);
      std::fputs(reason, stdout);
      if (HostValidatePassword(c.user, c.password, &token, nullptr, 0) != result) return 2;
      return token != 0 ? 3 : result;
    });
    EXPECT_EQ(exitCode(child), c.result) << c.user << ": " << child.err;
    EXPECT_EQ(child.out, c.reason) << c.user;
  }
}

TEST(HostUsers, ShadowEntriesAreForRoot) {
  const PasswordFiles files;
  const ChildResult child = inChild([&] {
    files.show();
    if (setresuid(1001, 1001, 1001) != 0) return 2;
    long token = 5;
    char reason[200] = "";
    const BoolType result = HostValidatePassword("new", "swordfish", &token, reason, sizeof reason);
    std::fputs(reason, stdout);
    return result;
  });
  EXPECT_EQ(exitCode(child), 0);
  EXPECT_EQ(child.out, "[pwvalidation.getspnam new " + errorText(EACCES) + "]");
}

TEST(HostUsers, MissingCryptLibraryIsSaid) {
  const PasswordFiles files;
  const ScratchDirectory nothing;
  const ChildResult child = inChild([&] {
    files.show();
    for (const char* directory : {POVZEL_UNPACKED "/lib", "/lib32", "/usr/lib32"}) {
      if (std::filesystem::exists(directory)) showAs(nothing.path(), directory);
    }
    long token = 5;
    char reason[300] = "";
    const BoolType result = HostValidatePassword("new", "swordfish", &token, reason, sizeof reason);
    std::fputs(reason, stdout);
    return result;
  });
  EXPECT_EQ(exitCode(child), 0);
  EXPECT_THAT(child.out, MatchesRegex("Passwords cannot be checked: libcrypt.so.1: .*"));
}

TEST(HostUsers, LoginUserBySource) {
  const PasswordFiles files;
  struct Case {
    const char* record;    // the kernel's
    const char* variable;  // TV_LOGIN_NAME
    BoolType result;
    int id;
    const char* name;
    const char* debug;  // without "[Debug]: "
  };
  const char* noLogin = "\\[Debug\\]: getlogin_r\\(\\) failed, rc=[0-9]+\n";
  const Case cases[] = {
      {"1002", nullptr, 1, 1002, "new",
       "Got login user from /proc/pid/loginuid:  'new' \\(1002\\)\n"},
      {"0\n", "old", 1, 0, "root", "Got login user from /proc/pid/loginuid:  'root' \\(0\\)\n"},
      {"4294967295", "old", 1, 1001, "old", "strtol\\(4294967295\\) failed. errno=34"},
      {"-7", "new", 1, 1002, "new", "Invalid uid found in loginuid: -7"},
      {"777", "open", 1, 1005, "open", "getpwuid\\(777\\) failed, errno=0"},
      {"", "old", 1, 1001, "old", "read\\([0-9]+\\) failed, rc=0, errno=0"},
      {"777", nullptr, 0, -1, "unknown user", "getpwuid\\(777\\) failed, errno=0"},
      {"777", "stranger", 0, -1, "stranger", "getpwuid\\(777\\) failed, errno=0"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.record) + " " + (c.variable ? c.variable : "unset"));
    for (const bool debug : {true, false}) {
      const ChildResult child = inChild([&] {
        files.show();
        files.showLogin(c.record);
        close(STDIN_FILENO);  // no terminal, no login record
        unsetenv("TV_LOGIN_NAME");
        if (c.variable != nullptr) setenv("TV_LOGIN_NAME", c.variable, 1);
        unsetenv("TV_DEBUG_LOGIN_USER");
        if (debug) setenv("TV_DEBUG_LOGIN_USER", "1", 1);
        int id = 5;
        char name[32];
        if (HostGetLoginUserInfo(&id, name, sizeof name) != c.result) return 1;
        if (id != c.id) return 2;
        return std::strcmp(name, c.name) == 0 ? 0 : 3;
      });
      EXPECT_EQ(exitCode(child), 0) << child.err;
      std::string expected;
      if (debug && std::strncmp(c.debug, "Got", 3) == 0) {
        expected = std::string("\\[Debug\\]: ") + c.debug;
      } else if (debug) {
        expected = std::string("\\[Debug\\]: getLoginUidFromProc\\(\\) failed: ") + c.debug + "\n" +
                   noLogin;
        expected += c.variable == nullptr
                        ? "\\[Debug\\]: TV_LOGIN_NAME is not set.  Unable to get login user."
                        : std::string(
                              "\\[Debug\\]: Got login user for TV_LOGIN_NAME env var: "
                              "login user is ") +
                              c.variable + "\n";
        if (c.result == 0 && c.variable != nullptr) {
          expected +=
              "\\[Debug\\]: Unable to determine the login user id.  getpwnam\\(stranger\\) "
              "failure, "
              "errno=0\n";
        }
      }
      EXPECT_THAT(child.out, MatchesRegex(expected));
    }
  }
}

TEST(HostUsers, LoginUserWithoutProc) {
  const PasswordFiles files;
  const ScratchDirectory nothing;
  const ChildResult child = inChild([&] {
    files.show();
    showAs(nothing.path(), "/proc");
    close(STDIN_FILENO);
    unsetenv("TV_LOGIN_NAME");
    setenv("TV_DEBUG_LOGIN_USER", "1", 1);
    int id = 5;
    char name[4];
    if (HostGetLoginUserInfo(&id, name, sizeof name)) return 1;
    return id == -1 && std::strcmp(name, "unk") == 0 ? 0 : 2;
  });
  EXPECT_EQ(exitCode(child), 0);
  EXPECT_THAT(child.out, testing::HasSubstr("open(/proc/"));
  EXPECT_THAT(child.out, testing::HasSubstr("/loginuid) failed.  errno=2\n"));
}

TEST(HostUsers, RealAndEffectiveUser) {
  const PasswordFiles files;
  const ChildResult child = inChild([&] {
    files.show();
    files.showLogin("1002");
    if (setresuid(1001, 888, 0) != 0) return 1;
    int ruid = 0;
    int euid = 0;
    int luid = 0;
    char runame[8];
    char euname[8] = "";
    char luname[3] = "";
    HostGetUserInfo(&ruid, &euid, &luid, runame, sizeof runame, euname, sizeof euname, luname,
                    sizeof luname);
    if (ruid != 1001 || euid != 888 || luid != 1002) return 2;
    if (std::strcmp(runame, "old") != 0 || std::strcmp(euname, "unknown") != 0) return 3;
    if (std::strcmp(luname, "ne") != 0 || HostIsSuperUser()) return 4;
    if (seteuid(1001) != 0) return 5;
    HostGetUserInfo(&ruid, &euid, &luid, runame, 3, euname, sizeof euname, luname, 0);
    if (std::strcmp(runame, "ol") != 0 || std::strcmp(euname, "ol") != 0) return 6;
    return std::strcmp(HostGetUserName(), "old") == 0 ? 0 : 7;
  });
  EXPECT_EQ(exitCode(child), 0);
  EXPECT_EQ(HostIsSuperUser(), geteuid() == 0);
}

TEST(HostUsers, UserNameAndHome) {
  const PasswordFiles files;
  const ChildResult child = inChild([&] {
    files.show();
    if (chdir("/usr") != 0 || setresuid(777, 0, 0) != 0) return 1;
    if (std::strcmp(HostGetUserName(), "FORGED USER") != 0) return 2;
    if (setresuid(1006, 0, 0) != 0) return 3;
    char* name = HostGetUserName();
    if (std::string(name) != std::string(longName).substr(0, 39)) return 4;
    name[0] = '#';
    if (setresuid(1001, 0, 0) != 0) return 5;
    if (std::string(HostGetUserName()) != std::string(longName).substr(0, 39)) return 6;
    HostFnameStrType home;
    if (!HostGetHomeDir("old", home) || std::strcmp(home, "/home/old/") != 0) return 7;
    if (!HostGetHomeDir("unshadowed", home) || std::strcmp(home, "//") != 0) return 8;
    if (HostGetHomeDir("stranger", home) || std::strcmp(home, "/usr") != 0) return 9;
    if (HostGetHomeDir(longName, home) || std::strcmp(home, "/usr") != 0) return 10;
    return 0;
  });
  EXPECT_EQ(exitCode(child), 0);
  EXPECT_EQ(child.err, "HostGetUserName:  getpwuid(getuid()) returned NULL, errno = 0\n");
}

TEST(HostUsers, AdministratorsByExactName) {
  for (const char* name : {"SystemUser", "DataCurator"}) EXPECT_TRUE(HostUserSysAdmin(name));
  for (const char* name : {"systemuser", "SystemUsers", "SystemUse", "", "DATACURATOR"}) {
    EXPECT_FALSE(HostUserSysAdmin(name)) << name;
  }
}

TEST(HostSystem, HostNameByResolver) {
  const PasswordFiles files;
  const ChildResult child = inChild([&] {
    files.show();
    if (unshare(CLONE_NEWUTS) != 0 || sethostname("nowhere", 7) != 0) return 1;
    char name[32] = "";
    if (HostGetHostname(name, sizeof name)) return 2;
    if (sethostname("povzelhost", 10) != 0) return 3;
    if (HostGetHostname(name, 4) || std::strcmp(name, "pov") != 0) return 4;
    if (sethostname("nowhere", 7) != 0) return 5;
    if (!HostGetHostname(name, sizeof name)) return 6;
    if (std::strcmp(name, "povzelhost.example") != 0) return 7;
    if (!HostGetHostname(name, 19) || HostGetHostname(name, 18)) return 8;
    name[0] = '#';
    return !HostGetHostname(name, 0) && name[0] == '#' ? 0 : 9;
  });
  EXPECT_EQ(exitCode(child), 0);
  EXPECT_EQ(child.out, "gethostbyname() failure for host nowhere\n");
}

TEST(HostSystem, DescriptionBeforeAndAfterInit) {
  const ChildResult child = inChild([] {
    char text[400];
    HostGetSystemName(text, sizeof text);
    if (std::strcmp(text, "x86 (Linux 2.6.18-8.el5PAE #1 SMP glibc-2.5-12)") != 0) return 1;
    if (unshare(CLONE_NEWUTS) != 0 || sethostname("povzelhost", 10) != 0) return 2;
    HostInit();
    HostGetSystemName(text, sizeof text);
    std::puts(text);
    HostGetSystemName(text, 7);
    if (std::strcmp(text, "povzel") != 0) return 3;
    const HostSystemInfoSType* info = HostGetSystemInfo();
    if (std::strcmp(info->osName, "Linux") != 0) return 4;
    if (std::strcmp(info->nodeName, "povzelhost") != 0) return 5;
    if (info->cpuCount != HostGetCpuCount() || info->cpuCount < 1) return 6;
    const long megabytes = std::strtol(info->cpuMisc, nullptr, 10);
    std::printf("%s %ld\n", info->cpuMisc, megabytes);
    HostDisableFPE();
    HostEnableFPE();
    return megabytes > 16 ? 0 : 7;
  });
  EXPECT_EQ(exitCode(child), 0);
  EXPECT_THAT(child.out, MatchesRegex("povzelhost [^ ]+ \\(Linux [0-9].*\\)\n[0-9]+MB [0-9]+\n"));
}

TEST(HostStrings, OrderByComparison) {
  struct Case {
    const char* a;
    const char* b;
    int cmpi;
    long compare;
    long insensitive;
  };
  const Case cases[] = {
      {"", "", 0, 0, 0},         {"a", "A", 0, 1, 0},       {"abc", "ABD", -1, 1, -1},
      {"ab", "abc", -1, -1, -1}, {"abc", "AB", 1, 1, 1},    {"", "a", -1, -1, -1},
      {"\x80", "a", -1, 1, 1},   {"\xff", "\x80", 1, 1, 1}, {"_", "a", 1, -1, 1},
  };
  for (const Case& c : cases) {
    const auto* a = reinterpret_cast<const ByteType*>(c.a);
    const auto* b = reinterpret_cast<const ByteType*>(c.b);
    const std::size_t aLength = std::strlen(c.a);
    const std::size_t bLength = std::strlen(c.b);
    EXPECT_EQ(HostStrCmpi(c.a, c.b), c.cmpi) << c.a << " " << c.b;
    EXPECT_EQ(HostStrCmpi(c.b, c.a), -c.cmpi) << c.a << " " << c.b;
    EXPECT_EQ(HostStrCompare(a, b, aLength, bLength), c.compare) << c.a << " " << c.b;
    EXPECT_EQ(HostStrCompare(b, a, bLength, aLength), -c.compare) << c.a << " " << c.b;
    EXPECT_EQ(HostStrCompareCaseInsen(a, b, aLength, bLength), c.insensitive) << c.a << " " << c.b;
    EXPECT_EQ(HostStrCompareCaseInsen(b, a, bLength, aLength), -c.insensitive);
  }
  EXPECT_EQ(HostMemCmpi("a\0b", "A\0c", 3), -1);
  EXPECT_EQ(HostMemCmpi("a", "b", 0), 0);
}

}  // namespace
