// The host layer on eight threads at once, under signals: every answer is what it was in calm, and
// process and threads are left as they were found.
//
//   POVZEL_STORM_SECONDS=60 POVZEL_STORM_SEED=4711 build/tests/storm_test

#include <povzel/atomics.h>
#include <povzel/errmsg.h>
#include <povzel/hostfiles.h>
#include <povzel/hostfname.h>
#include <povzel/hostinit.h>
#include <povzel/hostmutex.h>
#include <povzel/hostprocess.h>
#include <povzel/hostspawn.h>
#include <povzel/hostsystem.h>
#include <povzel/hostthread.h>
#include <povzel/hosttime.h>
#include <povzel/hostusers.h>
#include <povzel/tvhash.h>
#include <povzel/unixio.h>
#include <povzel/utl.h>
#include <povzel/utlfiles.h>
#include <povzel/utlheap.h>
#include <povzel/utllogname.h>
#include <povzel/utloutput.h>
#include <povzel/utltime.h>
#include <povzel/vermsg.h>
#include "faults.h"
#include "messagefile.h"
#include "tests.h"

namespace {

struct Answer {
  Answer(const auto&... parts) {
    std::ostringstream stream;
    ((stream << parts << '|'), ...);
    text = stream.str();
  }
  std::string text;
};

const char* const names[] = {"link",     "$STORM/x", "link/../y", "closed",
                             "link/lib", "none",     "",          "/"};
const char* const users[] = {"nobody", "root", "daemon", "no such user"};

// Each thread's own, and behind them what all share.
thread_local const std::string ownName = "own" + std::to_string(gettid());
thread_local char text[4096];
thread_local HostErrSType why;
thread_local ZelCTimeStringType date;
thread_local long number;
HostMutexSType mutex = PTHREAD_MUTEX_INITIALIZER;
int guarded[2] = {}, counter = 0;

// What a function puts into a buffer.
const char* filled(auto function, auto... arguments) {
  function(arguments..., text, sizeof text);
  return text;
}

Answer writeOwnFile(int v) {
  const char* own = ownName.c_str();
  std::FILE* file = HostOpenFile(own, "w", &why, v % 2);
  if (file == nullptr) return why.theErrno;
  std::fprintf(file, "%0*d", 100 * v + 1, 7);
  std::fclose(file);
  struct stat64 status;
  UnixIoStat64(own, &status, nullptr, 0);
  return {UtlAppendLfToFile(own),
          status.st_size,
          status.st_uid,
          HostRemoveSingleFile(own, v % 2, &why),
          HostFileExist(own, &why),
          why.theErrno};
}

Answer frameReport(int v) {
  SysErrorSType record;
  ErrMsgSymToText(v % 2 != 0 ? "a.b" : "a.c", text, sizeof text, "ds", 1L * v, "it");
  SysErrorSet(&record, v, "%s", text);
  std::FILE* stream = fmemopen(text, sizeof text, "w");
  VerMessage(stream, record.errMsg);
  std::fclose(stream);
  return text;
}

Answer fillTable(int v) {
  TvHashTable table;
  TvInitHashTable(&table, 0);
  for (int i = 0; i <= 20 * v; ++i) table.createProc(&table, filled(UtlStrerror, i % 30), &number);
  const long entries = table.numEntries;
  TvDeleteHashTable(&table);
  return {entries, number, text, UtlChecksum(reinterpret_cast<unsigned char*>(text), 8)};
}

Answer joinThread(int) {
  HostThreadType thread;
  void* value;
  const auto run = [](void* given) {
    HostMutexAcquire(&mutex);
    HostAsmSyncCtrAdd(&counter, ++guarded[0] - guarded[1]++);
    HostMutexRelease(&mutex);
    return given;
  };
  HostThreadCreate(&thread, run, text, 0);
  HostThreadJoin(thread, &value);
  return {value == text, HostAsmSyncCtrAdd(&counter, -1) > 0};
}

// Answers depend on the variant alone, 0 to 7. Not here: what its header keeps to one thread or the
// start (character tables, locale, environment, limits, guard pages, exits, unwinding, static
// results, stamps of log lines), and what ends the process or asks a terminal.
struct Row {
  const char* name;
  Answer (*answer)(int v);
};
// clang-format off
const Row rows[] = {
    {"HostOpenFile", writeOwnFile}, {"SysErrorSet", frameReport},
    {"TvHashTable", fillTable}, {"HostThreadCreate", joinThread},
    {"UtlOpenFile", [](int) { return Answer{UtlOpenFile("closed/f", "r", text, 99), text}; }},
    {"UtlCheckAccess", [](int v) { return Answer{UtlCheckAccess("closed/f", "r", &why, v % 2)}; }},
    {"HostRemoveFile", [](int) { return Answer{HostRemoveFile("closed/f", 1)}; }},
    {"HostExpandFileName", [](int v) { return Answer{filled(HostExpandFileName, names[v])}; }},
    {"HostFileExist", [](int v) { return Answer{HostFileExist(names[v], nullptr)}; }},
    {"HostFileType", [](int v) { return Answer{HostFileType(names[v], nullptr)}; }},
    {"UtlDirectory", [](int) {
       return Answer{UtlDirectory("closed/*", ownName.c_str()), HostRemoveFile(ownName.c_str(), 0)}; }},
    {"HostGetHomeDir", [](int v) { return Answer{HostGetHomeDir(users[v % 4], text), text}; }},
    {"HostIsSuperUser", [](int) { return Answer{HostIsSuperUser()}; }},
    {"UtlExpandLogName", [](int v) {
       UtlExpandLogName("%N-%H%U", text, 99, "/a.b", users[v % 4], nullptr, nullptr, 0);
       return Answer{text}; }},
    {"HostValidatePassword", [](int v) {
       return Answer{HostValidatePassword(users[v % 4], "wrong", &number, text, 300), text}; }},
    {"UtlCtime", [](int v) { return Answer{UtlCtime(100000007L * v, &date)}; }},
    {"HostClock", [](int) { number = HostClock(); return Answer{HostClock() >= number}; }},
    {"HostGetHostname", [](int) { return Answer{filled(HostGetHostname)}; }},
    {"HostGetSystemName", [](int) { return Answer{filled(HostGetSystemName)}; }},
    {"ErrMsgReset", [](int) { return Answer{ErrMsgReset()}; }},
    {"UtlMallocExe", [](int v) { UtlFree(UtlMallocExe(4096 * v + 1, 1, "")); return Answer{}; }},
    {"UnixIoSystem", [](int v) { return Answer{UnixIoSystem(v < 4 ? "exit 0" : "exit 1", 0)}; }},
    {"HostSpawn", [](int v) { return Answer{HostSpawn(v < 4 ? "kill -2 $$; exit 1" : "exit 1")}; }},
    {"HostPerform", [](int) { return Answer{HostPerform("storm.sh", (ownName + "p").c_str()), errno}; }},
    {"HostFork", [](int) {
       PidType child;
       return Answer{HostFork("/bin/true", users[3], 0, text, 99, "", "log", ".", &child), text}; }},
};
// clang-format on
constexpr int variants = 8, questions = variants * std::size(rows);
std::string calm[questions];

// What is wrong with an answer; empty if it is right.
std::string wrong(int question) {
  const auto& [name, ask] = rows[question / variants];
  const std::string answer = ask(question % variants).text;
  if (answer == calm[question]) return "";
  return std::string(name) + " gives " + answer + " instead of " + calm[question] + "\n";
}

std::atomic<bool> over = false;
struct Worker {
  HostThreadType thread;
  std::mt19937 random;
  std::atomic<int> question;
  std::string wrong;
};

void* work(void* argument) {
  auto& self = *static_cast<Worker*>(argument);
  const std::string before = threadState();
  while (!over) {
    self.question = static_cast<int>(self.random() % questions);
    self.wrong += self.wrong.empty() ? wrong(self.question) : "";
  }
  if (threadState() != before) self.wrong += "left: " + threadState() + "\nfound: " + before;
  return nullptr;
}

void lookUp(int) {
  char found[99];
  ErrMsgSymToText("a.b", found, sizeof found, "ds", 5L, "it");
  const std::string_view is = found;
  if (is != "5 of it" && is != "[a.b 5 it]") HostAsmSyncCtrAdd(&counter, 1000);
}

TEST(Storm, AnswersAsInCalm) {
  writeFile("storm.err", compiledFile({{"a.b", "a.b (1 2):%d of %s\n"}}));
  setenv("TARVOLIN_LANG", fs::absolute("storm.err").c_str(), 1);
  setenv("STORM", "/tmp/../usr", 1);
  fs::create_symlink("/usr", "link");
  fs::create_directory("closed");
  writeFile("closed/f", "x");
  writeFile("storm.sh", "exit 5");
  fs::permissions("closed", fs::perms::none);
  fs::permissions(".", fs::perms::all);
  if (geteuid() == 0) std::ignore = setresgid(65534, 0, 0) + setresuid(65534, 0, 0);
  HostInit();
  const int signals[] = {SIGUSR1, SIGCHLD, SIGALRM};
  for (const int sig : signals) UNIXIO_DO_SIGNAL_1ARG(sig, lookUp, nullptr);

  for (int i = 0; i < questions; ++i) calm[i] = rows[i / variants].answer(i % variants).text;
  const std::string before = processState();
  std::mt19937 random(stormSeed());
  Worker workers[8];
  for (Worker& worker : workers) {
    worker.random.seed(random());
    HostThreadCreate(&worker.thread, work, &worker, 0);
  }
  const std::time_t end = stormEnd(10);
  while (std::time(nullptr) < end) {
    HostThreadKill(workers[random() % 8].thread, signals[random() % 3]);
    HostNanoSleep(1000000);
  }
  over = true;
  for (Worker& worker : workers) {
    const timespec limit{end + 60, 0};
    ASSERT_EQ(pthread_timedjoin_np(worker.thread, nullptr, &limit), 0)
        << "no answer from " << rows[worker.question / variants].name;
    EXPECT_EQ(worker.wrong, "");
  }
  for (int i = 0; i < questions; ++i) EXPECT_EQ(wrong(i), "") << "in calm";
  EXPECT_EQ(processState(), before);
  EXPECT_EQ(std::pair(counter, guarded[0]), std::pair(0, guarded[1]));
  for (const int sig : signals) EXPECT_EQ(std::signal(sig, SIG_DFL), lookUp);
}

}  // namespace
