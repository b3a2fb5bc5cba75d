// What the sources of the lowest layer share, and what every layer above may use of it.
//
//   guarantee.cpp                          broken guarantees, reported to the fatal path
//   utlsafewrite.cpp                       output past the streams
//   utlclaim.cpp                           what one thread has at a time
//   utlcpu.cpp                             instructions beyond the build's baseline
//   oscalls.cpp                            the system's calls, through a table
//   utltree.cpp                            the installation that this library lies in
//   fortests.h                             all that tests may replace or set
//   utlutf8.cpp                            columns that texts take
//   utlchecksum.cpp, utlchecksumfold.cpp   the checksum, by tables and by carry-less products
//   xchar.cpp, xchartables.cpp             characters, and their built-in tables
//   utlbits, utlfilename, utlglob, utlmemcmp, utlsystem, utltext, atomics.S: public alone
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <netdb.h>
#include <pthread.h>
#include <pwd.h>
#include <shadow.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>

#include <povzel/xchar.h>

// errno across clean-up and reporting

// Puts errno back to what it was when this was made.
class ErrnoKeeper {
 public:
  ErrnoKeeper() : kept_(errno) {}
  ~ErrnoKeeper() { errno = kept_; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

  // The errno that will be put back.
  int kept() const { return kept_; }

 private:
  int kept_;
};

// Streams

// Other threads stay out of the stream while this lives.
class UtlStreamLock {
 public:
  explicit UtlStreamLock(std::FILE* stream) : stream_(stream) { flockfile(stream_); }
  ~UtlStreamLock() { funlockfile(stream_); }
  UtlStreamLock(const UtlStreamLock&) = delete;
  UtlStreamLock& operator=(const UtlStreamLock&) = delete;

 private:
  std::FILE* stream_;
};

// The system's calls (oscalls.cpp)
//
// Those of the system and the C library that can fail, a pointer each. The library makes them
// through this table, `os.unlink(name)`, so that a test can put a failing call in the place of any.
// An indirect call costs what one through the linker's own table does. What is marked as
// signal-safe makes its calls directly, where the built library shows them.

// Calls that the C library does not have in this form.
namespace oscalls {

inline int open(const char* name, int flags, mode_t mode) {
  return ::open(name, flags, mode);
}
inline int open64(const char* name, int flags, mode_t mode) {
  return ::open64(name, flags, mode);
}
inline int fcntl(int descriptor, int command, int argument) {
  return ::fcntl(descriptor, command, argument);
}
// The C library's opens directories and allocates where the system cannot say.
inline char* getcwd(char* buffer, std::size_t size) {
  if (::syscall(SYS_getcwd, buffer, size) < 0) return nullptr;
  if (buffer[0] == '/') return buffer;
  errno = ENOENT;  // out of reach from here
  return nullptr;
}
// The effective and the saved ids of the calling thread, where the C library would change those of
// all threads.
inline int setThreadUids(uid_t effective, uid_t saved) {
  return static_cast<int>(::syscall(SYS_setresuid32, -1, effective, saved));
}
inline int setThreadGids(gid_t effective, gid_t saved) {
  return static_cast<int>(::syscall(SYS_setresgid32, -1, effective, saved));
}
// The ids of the calling thread alone, for a child between fork and exec: in a threaded process the
// C library's functions wait there for threads that the child does not have.
inline int setThreadGroups(std::size_t count, const gid_t* groups) {
  return static_cast<int>(::syscall(SYS_setgroups32, count, groups));
}
inline int setThreadGid(gid_t gid) {
  return static_cast<int>(::syscall(SYS_setgid32, gid));
}
inline int setThreadUid(uid_t uid) {
  return static_cast<int>(::syscall(SYS_setuid32, uid));
}
// Asked before each vfork, which returns twice and so not through a pointer: anything but 0 stands
// for its failure.
inline int refuseVfork() {
  return 0;
}

}  // namespace oscalls

// OWN(name) for each of the calls above, CALL(name) for each that is used as it is.
// clang-format off
#define POVZEL_OS_CALLS(OWN, CALL)                                                              \
  OWN(open) OWN(open64) OWN(fcntl) OWN(getcwd) OWN(setThreadUids) OWN(setThreadGids)            \
  OWN(setThreadGroups) OWN(setThreadGid) OWN(setThreadUid) OWN(refuseVfork)                     \
  /* files and directories */                                                                   \
  CALL(read) CALL(write) CALL(close) CALL(lseek) CALL(dup2) CALL(pipe2)                         \
  CALL(access) CALL(stat) CALL(stat64) CALL(fstat) CALL(fstat64) CALL(statx) CALL(readlink)     \
  CALL(unlink) CALL(rename) CALL(mkdir) CALL(rmdir) CALL(chdir)                                 \
  CALL(opendir) CALL(readdir64) CALL(closedir)                                                  \
  /* streams */                                                                                 \
  CALL(fopen64) CALL(fdopen) CALL(fread) CALL(fgetc) CALL(fputc) CALL(fseek) CALL(fflush)       \
  /* processes and threads */                                                                   \
  CALL(fork) CALL(_Fork) CALL(execv) CALL(waitpid) CALL(kill) CALL(setsid) CALL(pthread_create) \
  /* users */                                                                                   \
  CALL(seteuid) CALL(setegid) CALL(setresuid) CALL(setresgid) CALL(getgrouplist)                \
  CALL(getpwnam_r) CALL(getpwuid_r) CALL(getspnam_r) CALL(getlogin_r)                           \
  /* limits, terminals, pages, the system */                                                    \
  CALL(getrlimit) CALL(setrlimit) CALL(getrlimit64) CALL(setrlimit64)                           \
  CALL(tcgetattr) CALL(tcsetattr) CALL(tcgetpgrp) CALL(tcsetpgrp)                               \
  CALL(mprotect) CALL(uname) CALL(gethostname) CALL(gethostbyname_r) CALL(sysconf)
// clang-format on

struct OsCalls {
#define POVZEL_OS_OWN(name) decltype(&oscalls::name) name = oscalls::name;
#define POVZEL_OS_CALL(name) decltype(&::name) name = ::name;
  POVZEL_OS_CALLS(POVZEL_OS_OWN, POVZEL_OS_CALL)
#undef POVZEL_OS_OWN
#undef POVZEL_OS_CALL
};

extern OsCalls osCallsForTests;

// The table, as everything but a test sees it.
inline constexpr const OsCalls& os = osCallsForTests;

// Broken guarantees (guarantee.cpp)

// Reports the broken guarantee at `line` of `module` ("src/utlheap") to the fatal path. Returns
// only when that path is told not to halt. Not signal-safe.
void utlGuaranteeFailed(const char* module, int line);

// Output past the streams (utlsafewrite.cpp)

// Writes the `size` bytes at `bytes`, all of them in one write where the system takes them whole.
// Gives up on any error but an interruption. Keeps errno. Signal-safe.
void utlSafeWrite(int descriptor, const char* bytes, std::size_t size);

// The same with the bytes of all `parts`, at most 1,024, which it changes. Signal-safe.
void utlSafeWriteParts(int descriptor, std::span<iovec> parts);

// Claims (utlclaim.cpp)

// Whether the process has no such thread any more. Keeps errno. Signal-safe.
bool utlIsGone(pid_t thread);

// What one thread of the process has at a time, for as long as it takes. A child after a fork has
// none of its parent's claims, and a thread that is gone has none. All are signal-safe.
class UtlClaim {
 public:
  // Takes it for the calling thread. Returns false if another thread has it.
  bool take();

  // Gives the calling thread's up, and wakes who waits for it.
  void giveUp();

  // The thread of this process that has it, or 0.
  pid_t owner() const;
  bool isMine() const;

  // Waits until `owner` has it no more, or less long. By the call that conditions are waited for
  // with: unlike a lock, a claim may take its time.
  void await(pid_t owner) const;

 private:
  struct alignas(8) Owner {
    pid_t process;
    pid_t thread;
  };
  static_assert(std::atomic<Owner>::is_always_lock_free);

  const pid_t* threadWord() const { return reinterpret_cast<const pid_t*>(&owner_) + 1; }

  std::atomic<Owner> owner_{};
};

// Own installation (utltree.cpp)
//
// DIR for DIR/lib/libpovzel30.so and DIR/bin/PROGRAM, if there is a DIR/sys/english67.err; links on
// the way are followed. It stands in where TARVOLIN has no value.

// Returns its name, without '/' at the end, or null if there is none. Signal-safe.
const char* utlOwnTree();

// The same, whether or not it has that file. Signal-safe.
const char* utlOwnPlace();

// Puts the name of a file of the installation, "$TARVOLIN/...", with its name in the place of the
// variable into the `size` bytes at `place`. Leaves them alone if there is no such tree, when
// TARVOLIN has a value, for another name and for one that does not fit. Signal-safe but for reading
// the environment.
void utlPlaceInOwnTree(const char* name, char* place, std::size_t size);

// Columns of texts (utlutf8.cpp)
//
// A text that is valid UTF-8 as a whole takes a column for each character, whatever that is; any
// other text one for each byte. All are signal-safe.

// Whether the `length` bytes at `text` are valid UTF-8.
bool utlIsUtf8(const char* text, std::size_t length);

// Whether they are, and not ASCII alone: columns then are not bytes. The last character may be cut,
// as it is where a buffer ended.
bool utlIsWide(const char* text, std::size_t length);

// Whether a byte of a wide text is the first of its character.
inline bool utlBeginsCharacter(char byte) {
  return (byte & 0xC0) != 0x80;
}

// Of a wide text: what utlColumns and utlBytes give.
std::size_t utlWideColumns(const char* text, std::size_t length);
std::size_t utlWideBytes(const char* text, std::size_t length, std::size_t columns);

// The columns of the `length` bytes at `text`, whole characters of a wide text or any other bytes.
inline std::size_t utlColumns(const char* text, std::size_t length, bool isWide) {
  return isWide ? utlWideColumns(text, length) : length;
}

// The bytes of the first `columns` columns there, or all of them.
inline std::size_t utlBytes(const char* text, std::size_t length, std::size_t columns,
                            bool isWide) {
  if (isWide) return utlWideBytes(text, length, columns);
  return columns < length ? columns : length;
}

// Processor (utlcpu.cpp)

constexpr unsigned int utlCpuPclmul = 1;      // PCLMULQDQ
constexpr unsigned int utlCpuVpclmul256 = 2;  // VPCLMULQDQ on 256-bit vectors, and AVX2
constexpr unsigned int utlCpuVpclmul512 = 4;  // VPCLMULQDQ on 512-bit vectors, and AVX-512

// What was found when the library was loaded, 0 before.
extern unsigned int utlCpuFeatures;

// Checksum steps (utlchecksumfold.cpp)

constexpr std::size_t utlCrcRestSize = 16;

// Each takes 16-byte blocks from the front of `bytes`, as many as there are, and leaves their
// remainder in `rest`. Returns the number of bytes taken.

// With utlCpuPclmul; `length` is at least 64.
std::size_t utlCrcFold128(std::uint32_t crc, const unsigned char* bytes, std::size_t length,
                          unsigned char (&rest)[utlCrcRestSize]);

// With utlCpuVpclmul256; `length` is at least 16.
std::size_t utlCrcFold256(std::uint32_t crc, const unsigned char* bytes, std::size_t length,
                          unsigned char (&rest)[utlCrcRestSize]);

// With utlCpuVpclmul512; `length` is at least 256.
std::size_t utlCrcFold512(std::uint32_t crc, const unsigned char* bytes, std::size_t length,
                          unsigned char (&rest)[utlCrcRestSize]);

// A sparse multiple of the checksum's polynomial, read from the back: 1 + x^(8*580) + x^(8*732) +
// x^(8*844) + x^(8*1200). So a byte may be removed if it is added to those 580, 732, 844 and 1200
// places behind. These distances have the smallest span of all whose members are multiples of 4,
// far enough behind for the stores to have settled.
constexpr std::ptrdiff_t utlCrcDistances[] = {580, 732, 844, 1200};
constexpr std::size_t utlCrcSpan = utlCrcDistances[3];

// How many bytes are removed before the last ones are moved back to the front of their buffer.
constexpr std::size_t utlCrcStretch = 4096;
static_assert(utlCrcStretch >= utlCrcSpan);

// Character tables (xchartables.cpp)

constexpr std::size_t xcharBuiltInSize = 256;

extern const std::array<unsigned short, xcharBuiltInSize> defaultDispatchTable;
extern const std::array<unsigned short, xcharBuiltInSize> defaultIndexTable;
extern const std::array<ByteType, xcharBuiltInSize> defaultCategoryTable;
extern const std::array<XCharEntrySType, xcharBuiltInSize> defaultEntryTable;
extern const std::array<XCharTitleCaseEntrySType, 1> defaultTitleCaseTable;  // its size is 0
