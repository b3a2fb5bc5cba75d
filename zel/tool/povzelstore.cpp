// povzelstore: work on whole databases, in files and on servers, for the shell and by itself.

#include <getopt.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <span>

#include "session/users.h"
#include "store/memorystore.h"
#include "store/openfile.h"
#include "tool/graph.h"
#include "tool/transfer.h"

namespace {

using namespace zel;

constexpr char usage[] =
    "usage: povzelstore check NAME         what is wrong with a database; status 1 if anything is\n"
    "       povzelstore dump NAME [OUT]    all of it as a text, for a new file or standard output\n"
    "       povzelstore load NAME [IN]     a new database of such a text, or of standard input\n"
    "       povzelstore compact NAME       without what nothing refers to; nobody else may use it\n"
    "       povzelstore create NAME        a new database; asks for the password of its users\n"
    "       povzelstore stat NAME          how much is in it, its users, and whether it is in use\n"
    "       povzelstore --help | --version\n"
    "\n"
    "  NAME                    a file, or postgresql://user@host:port/database?schema=povzel;\n"
    "                          its password comes from ~/.pgpass or as libpq takes it elsewhere\n"
    "  --password-file FILE    where create takes the password from; else POVZEL_PASSWORD is\n"
    "                          looked at, else it is asked for\n"
    "  --skip-damaged          have dump leave out what cannot be read, and tell of it\n"
    "\n"
    "Exit status: 0 if all is well, 1 if there are faults, 2 if the command line is wrong.\n";

struct Job {
  const Signals& signals;
  std::string name;   // of the database: a file, or a server's URL
  std::string shown;  // the name for messages
  std::string other;  // OUT or IN, empty for a standard stream
  std::string passwordFile{};
  bool skipDamaged = false;
};

int complain(const std::string& text, int status) {
  std::fprintf(stderr, "povzelstore: %s\n", text.c_str());
  return status;
}

// Opening

void requireThere(const std::string& file) {
  struct stat64 status;
  const bool isThere =
      ::stat64(file.c_str(), &status) == 0 && (status.st_size > 0 || !S_ISREG(status.st_mode));
  if (isThere || (errno != ENOENT && errno != 0)) return;
  throw Trouble{"there is no database " + file + "\nMake one: povzelstore create FILE"};
}

FileOptions optionsOf(const Job& job) {
  return {.path = job.name, .poll = [&job] { job.signals.check(); }};
}

ServerOptions serverOf(const Job& job) {
  return {.url = job.name, .poll = [&job] { job.signals.check(); }};
}

std::unique_ptr<Store> opened(const Job& job) {
  if (isServerUrl(job.name)) return openServerStore(serverOf(job));
  requireThere(job.name);
  return openFileStore(optionsOf(job));
}

Progress progressOf(ProgressLine& line) {
  return [&line](std::uint64_t done, std::uint64_t all) { return line.tell(done, all); };
}

std::string counted(std::uint64_t objects) {
  return std::to_string(objects) + (objects == 1 ? " object" : " objects");
}

// Commands

std::vector<std::string> faultsOf(const Job& job) {
  ProgressLine line(job.signals, "checking " + job.shown);
  if (isServerUrl(job.name)) return faultsOf(*opened(job), line);
  requireThere(job.name);
  return verifyFile(optionsOf(job), references, progressOf(line));
}

int check(const Job& job) {
  const std::vector<std::string> faults = faultsOf(job);
  Output output(job.signals, "");
  for (const std::string& fault : faults) output.line(fault);
  if (faults.empty()) {
    const std::uint64_t objects = opened(job)->statistics().objects;
    output.line(job.shown + " is whole: " + counted(objects));
  }
  output.finish();
  return faults.empty() ? 0 : faultStatus;
}

int dumpAll(const Job& job) {
  const auto store = opened(job);
  Output output(job.signals, job.other);
  std::vector<Lost> lost;
  {
    ProgressLine line(job.signals, "dumping " + job.shown);
    dump(*store, output, line, job.skipDamaged ? &lost : nullptr);
  }
  output.finish();
  for (const Lost& each : lost) {
    complain("objects @" + std::to_string(each.first) + " to @" + std::to_string(each.end - 1) +
                 " cannot be read: those of them that there are were left out",
             faultStatus);
  }
  return lost.empty() ? 0 : faultStatus;
}

int loadAll(const Job& job) {
  struct stat64 status;
  const bool isOnServer = isServerUrl(job.name);
  if (!isOnServer && ::stat64(job.name.c_str(), &status) == 0 &&
      (!S_ISREG(status.st_mode) || status.st_size > 0)) {
    throw Trouble{"there is a file " + job.name + " already\nName one that is not there, or empty"};
  }
  Input input(job.signals, job.other);
  ProgressLine line(job.signals, "loading " + job.shown);
  if (isOnServer) {
    loadServer(serverOf(job), input, line);
  } else {
    loadFile(job.name, input, line);
  }
  return 0;
}

void print(const Job& job, const std::string& text) {
  Output output(job.signals, "");
  output.line(text);
  output.finish();
}

std::string leftOf(std::uint64_t objects, std::uint64_t dropped) {
  return counted(objects) + ", " + std::to_string(dropped) + " were dropped";
}

int compactServer(const Job& job) {
  Dropped result;
  {
    ProgressLine line(job.signals, "compacting " + job.shown);
    const auto store = opened(job);
    // The one that has it open is this program.
    const auto isAlone = [&job] { return serverStatistics(serverOf(job)).sessions <= 1; };
    result = dropUnreachable(*store, isAlone, line);
  }
  print(job, job.shown + " has " + leftOf(result.objects, result.dropped));
  return 0;
}

int compact(const Job& job) {
  if (isServerUrl(job.name)) return compactServer(job);
  requireThere(job.name);
  Compacted result;
  {
    ProgressLine line(job.signals, "compacting " + job.name);
    result = compactFile(optionsOf(job), references, progressOf(line));
  }
  print(job, job.name + " has " + leftOf(result.objects, result.dropped) + "; " +
                 std::to_string(result.bytes) + " bytes, before " +
                 std::to_string(result.bytesBefore));
  return 0;
}

// Asks for the password of a new database's users. Answers their rows.
std::vector<Write> newUsers(const Job& job) {
  constexpr std::string_view prefix = "login denied: ";
  MemoryStore empty([](auto&&...) {});
  const Lease lease(empty);
  Passwords passwords;
  try {
    const std::string password =
        newPassword(job.signals, job.passwordFile, "SystemUser and DataCurator");
    return writesOf(empty, lease.version, creators("SystemUser", password, passwords));
  } catch (const Failure& failure) {
    if (!failure.message.starts_with(prefix)) throw;
    throw Trouble{failure.message.substr(prefix.size())};
  }
}

int createFile(const Job& job) {
  FileOptions options = optionsOf(job);
  options.create = true;
  const auto store = openFileStore(options);
  if (store->statistics().version != 0) {
    throw Trouble{"there is a database " + job.name + " already\nName a file that is not there"};
  }
  const Lease lease(*store);
  const Changes changes{.base = lease.version, .reads = {}, .writes = newUsers(job)};
  job.signals.check();
  store->commit(changes);
  return 0;
}

int createServer(const Job& job) {
  // Where none can be made nobody is asked for a password, and nothing stays open while one is.
  { const NewServerStore tried(serverOf(job)); }
  const std::vector<Write> users = newUsers(job);
  NewServerStore made(serverOf(job));
  made.add(users);
  job.signals.check();
  made.finish(firstFreeId);
  return 0;
}

int create(const Job& job) {
  return isServerUrl(job.name) ? createServer(job) : createFile(job);
}

// Whether others have the file open; nothing when that cannot be told.
std::optional<bool> isInUse(const Job& job) {
  OpenFile file(optionsOf(job));
  if (!file.open()) return std::nullopt;
  try {
    file.checkWritable();
    const bool isAlone = file.locks().tryLock(FileLocks::use, false);
    if (isAlone) file.locks().tryLock(FileLocks::use, true);
    return !isAlone;
  } catch (const Failure&) {
    return std::nullopt;
  }
}

std::string usersOf(Store& store) {
  const Lease lease(store);
  std::string users;
  for (const std::string& name : userNames(store, lease.version)) {
    users += (users.empty() ? "" : ", ") + name;
  }
  return users;
}

void showCounts(Output& output, const StoreStatistics& statistics, const std::string& users) {
  output.line("objects   " + std::to_string(statistics.objects));
  output.line("rows      " + std::to_string(statistics.rows));
  output.line("bytes     " + std::to_string(statistics.bytes));
  output.line("version   " + std::to_string(statistics.version));
  output.line("users     " + users);
}

int showServer(const Job& job) {
  // Before this program is one of those that have it open.
  const ServerStatistics statistics = serverStatistics(serverOf(job));
  const std::string users = usersOf(*opened(job));
  Output output(job.signals, "");
  showCounts(output, statistics.store, users);
  output.line("oldest    " + std::to_string(statistics.oldest));
  output.line("sessions  " + std::to_string(statistics.sessions));
  output.line("conflicts " + std::to_string(statistics.conflicts));
  output.finish();
  return 0;
}

int showStatistics(const Job& job) {
  if (isServerUrl(job.name)) return showServer(job);
  requireThere(job.name);
  const std::optional<bool> inUse = isInUse(job);
  const auto store = opened(job);
  const StoreStatistics statistics = store->statistics();
  const std::string users = usersOf(*store);
  Output output(job.signals, "");
  showCounts(output, statistics, users);
  output.line(std::string("in use    ") + (!inUse   ? "not known"
                                           : *inUse ? "by others"
                                                    : "by nobody"));
  output.finish();
  return 0;
}

struct Command {
  std::string_view name;
  int (*run)(const Job& job);
  bool hasOther = false;
  bool hasPassword = false;
  bool hasDamaged = false;
};
constexpr Command commands[] = {
    {"check", check},     {"dump", dumpAll, true, false, true}, {"load", loadAll, true},
    {"compact", compact}, {"create", create, false, true},      {"stat", showStatistics},
};

[[noreturn]] void misused(const std::string& what) {
  throw Trouble{what + "\nSee povzelstore --help", usageStatus};
}

int show(const Signals& signals, std::string_view text) {
  Output output(signals, "");
  output.line(text.substr(0, text.find_last_not_of('\n') + 1));
  output.finish();
  return 0;
}

std::string orStandard(const char* name) {
  return std::string_view(name) == "-" ? "" : name;
}

int runCommand(std::span<char*> words, Job job) {
  if (words.empty()) misused("no command is given");
  const std::string name = words[0];
  const auto* const command = std::ranges::find(commands, name, &Command::name);
  if (command == std::end(commands)) misused("there is no command " + name);
  if (words.size() < 2 || words[1][0] == '\0') misused(name + " needs the NAME of a database");
  if (words.size() > (command->hasOther ? 3U : 2U)) {
    misused("there is nothing for " + name + " to do with " + words.back());
  }
  if (!job.passwordFile.empty() && !command->hasPassword) misused(name + " needs no password");
  if (job.skipDamaged && !command->hasDamaged) misused(name + " cannot skip what is damaged");
  job.name = words[1];
  job.shown = isServerUrl(job.name) ? shownUrl(job.name) : job.name;
  if (isServerUrl(job.name) && hasPassword(job.name)) {
    throw Trouble{
        "a password in a URL can be seen by others, in the list of processes\n"
        "Put it into ~/.pgpass or the file that PGPASSFILE names, or into a service file",
        usageStatus};
  }
  if (words.size() > 2) job.other = orStandard(words[2]);
  return command->run(job);
}

int run(const Signals& signals, int argc, char** argv) {
  static constexpr option options[] = {{"help", no_argument, nullptr, 'h'},
                                       {"password-file", required_argument, nullptr, 'p'},
                                       {"skip-damaged", no_argument, nullptr, 's'},
                                       {"version", no_argument, nullptr, 'v'},
                                       {nullptr, 0, nullptr, 0}};
  Job job{signals, "", "", ""};
  opterr = 0;
  for (int option; (option = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
    switch (option) {
      case 'h':
        return show(signals, usage);
      case 'v':
        return show(signals, POVZEL_VERSION);
      case 'p':
        job.passwordFile = optarg;
        if (job.passwordFile.empty()) misused("no password file is named");
        break;
      case 's':
        job.skipDamaged = true;
        break;
      default:
        misused(std::string("cannot make sense of ") + argv[optind - 1]);
    }
  }
  return runCommand({argv + optind, argv + argc}, job);
}

// What helps, for some errors.
std::string adviceOn(std::int32_t error) {
  switch (error) {
    case ErrStoreBusy:
      return "\nTry again when others have done what they are at";
    case ErrDamaged:
      return "\nSee what is wrong with all of it: povzelstore check NAME";
    case ErrNewerStore:
      return "\nUse the version of povzel that made it, or a later one";
    case ErrReadOnly:
      return "\nSee that you may write the file and its folder, or name the server that takes "
             "writes";
    case ErrInUseElsewhere:
      return "\nEnd the programs that use it";
    default:
      return "";
  }
}

}  // namespace

int main(int argc, char** argv) {
  openStandardStreams();
  const Signals signals;
  try {
    return run(signals, argc, argv);
  } catch (const Interrupted& interrupted) {
    endBy(interrupted.signal);
  } catch (const Trouble& trouble) {
    return complain(trouble.text, trouble.status);
  } catch (const Failure& failure) {
    if (const int signal = signals.come(); signal != 0 && failure.number == ErrHardBreak)
      endBy(signal);
    return complain(failure.message + adviceOn(failure.number), faultStatus);
  } catch (const std::bad_alloc&) {
    return complain("there is not enough memory", faultStatus);
  }
}
