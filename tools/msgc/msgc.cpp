// msgc: the message compiler. docs/messages.md shows how to use it.

#include <getopt.h>

#include <cstdio>

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
    "must have the same symbols with the same arguments, as english67.msg has them.\n"
    "Exit status: 0 if all is well, 1 if there are faults, 2 if the command is wrong.\n";

enum class Task { compile, check, dump, help, version };

constexpr ByteOrder usualOrder = {0, 1, 2, 3};

struct Command {
  Task task = Task::compile;
  ByteOrder order = usualOrder;
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

// Names the task; two of them on one line are none.
bool setTask(Command* command, Task task) {
  if (command->task != Task::compile && command->task != task) return false;
  command->task = task;
  return true;
}

// Whether what the task needs is named, and nothing that it does not use.
bool isComplete(const Command& command) {
  if (command.task == Task::compile) return !command.output.empty();
  if (command.order != usualOrder) return false;
  return command.task == Task::check ? command.output.empty() : command.model.empty();
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
        if (!setTask(command, Task::check)) return false;
        break;
      case 'd':
        if (!setTask(command, Task::dump)) return false;
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
        if (!command->output.empty()) return false;
        command->output = optarg;
        break;
      default:
        return false;
    }
  }
  if (optind + 1 != argc) return false;
  command->input = argv[optind];
  return isComplete(*command);
}

// Writes what came of the input, never over what it came from.
void writeOutput(const Command& command, const std::string& bytes, Faults* faults) {
  for (const std::string& from : {command.input, command.model}) {
    if (!isOutputFile(command.output, from)) continue;
    faults->add(shownOutput(command.output), 0, "is %s itself, and is not written over",
                from.c_str());
    return;
  }
  writeBytes(command.output, bytes, faults);
}

void dump(const Command& command, Faults* faults) {
  ByteOrder order;
  std::string lines;
  for (const Message& message : readCompiled(command.input, &order, faults)) {
    lines += entryLines(message);
  }
  if (lines.empty() && !faults->any()) faults->add(command.input, 0, "holds no message");
  if (lines.empty()) return;
  if (order != usualOrder) {
    std::string digits;
    for (const unsigned char significance : order) digits += static_cast<char>('0' + significance);
    lines.insert(0, "# Compiled with --byte-order=" + digits + "\n");
  }
  if (command.output.empty() || !faults->any()) writeOutput(command, lines, faults);
}

void compileOrCheck(const Command& command, Faults* faults) {
  std::vector<Message> messages;
  const bool isRead = readSource(command.input, &messages, faults);
  if (!command.model.empty()) {
    std::vector<Message> model;
    Faults inModel;
    const bool isModelRead = readSource(command.model, &model, &inModel);
    if (inModel.any()) faults->addReported();
    if (isRead && isModelRead) {
      compareWith(messages, command.input, model, command.model, faults);
    }
  }
  if (faults->any() || command.task == Task::check) return;
  const std::string file = compile(messages, command.order);
  if (file.size() > largestFile) {
    faults->add(command.output, 0, "would have %zu bytes, at most %zu are read", file.size(),
                largestFile);
    return;
  }
  writeOutput(command, file, faults);
}

}  // namespace

int main(int argc, char** argv) {
  Command command;
  if (!parseCommand(argc, argv, &command)) {
    std::fputs(usage, stderr);
    return 2;
  }
  if (command.task == Task::help || command.task == Task::version) {
    std::puts(command.task == Task::help ? usage : POVZEL_VERSION);
    return std::fflush(stdout) == 0 ? 0 : 1;
  }
  Faults faults;
  if (command.task == Task::dump) {
    dump(command, &faults);
  } else {
    compileOrCheck(command, &faults);
  }
  return faults.any() ? 1 : 0;
}
