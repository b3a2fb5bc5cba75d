// msgc: the message compiler. docs/messages.md shows how to use it.

#include <getopt.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <povzel/errutl.h>
#include "messages.h"

namespace {

constexpr char usage[] =
    "usage: msgc [--byte-order=ORDER] [--like=MODEL] -o COMPILED SOURCE   compile messages\n"
    "       msgc --check [--like=MODEL] SOURCE                           only look for faults\n"
    "       msgc --dump [-o SOURCE] COMPILED                             back to source\n"
    "       msgc --version | --help\n"
    "\n"
    "ORDER is \"little\" (the default), \"big\", or four digits: which byte of an integer, from "
    "the\n"
    "least significant (0) up, stands at each place. MODEL is the source of another language that\n"
    "must have the same symbols with the same numbers of arguments, as english67.msg has them.\n"
    "Exit status: 0 if all is well, 1 if there are faults, 2 if the command is wrong.\n";

// Larger files the library would not read to their end.
constexpr std::size_t largestFile = 64u << 20;

enum class Task { compile, check, dump, help, version };

struct Command {
  Task task = Task::compile;
  ByteOrder order = {0, 1, 2, 3};
  std::string model;
  std::string input;
  std::string output;
};

bool parseByteOrder(const std::string& name, ByteOrder* order) {
  static constexpr unsigned char twoBytes[] = {0, 1};
  const std::string digits = name == "little" ? "0123" : name == "big" ? "3210" : name;
  if (digits.size() != order->size()) return false;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    (*order)[i] = static_cast<unsigned char>(digits[i] - '0');
  }
  return UtlValidateSwizzleTransforms(order->data(), twoBytes) != 0;
}

bool parseCommand(int argc, char** argv, Command* command) {
  static const option options[] = {{"byte-order", required_argument, nullptr, 'b'},
                                   {"check", no_argument, nullptr, 'c'},
                                   {"dump", no_argument, nullptr, 'd'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {"like", required_argument, nullptr, 'l'},
                                   {"output", required_argument, nullptr, 'o'},
                                   {"version", no_argument, nullptr, 'v'},
                                   {nullptr, 0, nullptr, 0}};
  for (int c; (c = getopt_long(argc, argv, "o:", options, nullptr)) != -1;) {
    switch (c) {
      case 'b':
        if (!parseByteOrder(optarg, &command->order)) return false;
        break;
      case 'c':
        command->task = Task::check;
        break;
      case 'd':
        command->task = Task::dump;
        break;
      case 'h':
        command->task = Task::help;
        return true;
      case 'v':
        command->task = Task::version;
        return true;
      case 'l':
        command->model = optarg;
        break;
      case 'o':
        command->output = optarg;
        break;
      default:
        return false;
    }
  }
  if (optind + 1 != argc) return false;
  command->input = argv[optind];
  return command->task != Task::compile || !command->output.empty();
}

struct FreeText {
  void operator()(char* text) const { std::free(text); }
};

// Puts the bytes into a new file that takes the place of `name` when it is complete, or of what
// that links to. What is there and no regular file, such as a device, is written into.
void writeFile(const std::string& name, const std::string& bytes, Faults* faults) {
  const std::unique_ptr<char, FreeText> canonical(realpath(name.c_str(), nullptr));
  const std::string target = canonical ? canonical.get() : name;
  struct stat64 there;
  const bool replaced = stat64(target.c_str(), &there) != 0 || S_ISREG(there.st_mode);
  const std::string unfinished = replaced ? target + ".new" : target;
  FILE* file = std::fopen(unfinished.c_str(), "w");
  bool ok = file != nullptr;
  if (ok) {
    ok = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    ok = std::fclose(file) == 0 && ok;
    ok = ok && (!replaced || std::rename(unfinished.c_str(), target.c_str()) == 0);
  }
  if (ok) return;
  faults->add(name, 0, "cannot be written: %s", std::strerror(errno));
  if (file != nullptr && replaced) std::remove(unfinished.c_str());
}

void dump(const Command& command, Faults* faults) {
  std::string lines;
  for (const Message& message : readCompiled(command.input, faults)) lines += entryLines(message);
  if (command.output.empty()) {
    if (std::fputs(lines.c_str(), stdout) == EOF || std::fflush(stdout) != 0) {
      faults->add("standard output", 0, "cannot be written: %s", std::strerror(errno));
    }
  } else if (!faults->any()) {
    writeFile(command.output, lines, faults);
  }
}

void compileOrCheck(const Command& command, Faults* faults) {
  const std::vector<Message> messages = readSource(command.input, faults);
  if (!command.model.empty()) {
    compareWith(messages, command.input, readSource(command.model, faults), command.model, faults);
  }
  if (faults->any() || command.task == Task::check) return;
  const std::string file = compile(messages, command.order);
  if (file.size() > largestFile) {
    faults->add(command.output, 0, "would have %zu bytes, at most %zu are read", file.size(),
                largestFile);
    return;
  }
  writeFile(command.output, file, faults);
}

}  // namespace

int main(int argc, char** argv) {
  Command command;
  if (!parseCommand(argc, argv, &command)) {
    std::fputs(usage, stderr);
    return 2;
  }
  if (command.task == Task::help || command.task == Task::version) {
    return std::puts(command.task == Task::help ? usage : POVZEL_VERSION) < 0 ? 1 : 0;
  }
  Faults faults;
  if (command.task == Task::dump) {
    dump(command, &faults);
  } else {
    compileOrCheck(command, &faults);
  }
  return faults.any() ? 1 : 0;
}
