// Messages as the compiler holds them: read from a source file, checked, written, read back.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

struct Message {
  std::string symbol;
  std::vector<int> order;  // the numerals of the argument order list
  std::string text;
  unsigned long line;  // last line of its entry in the source
  int expectedArgs;    // the largest numeral
};

// Counts faults and reports each on standard error.
class Faults {
 public:
  [[gnu::format(printf, 4, 5)]] void add(const std::string& file, unsigned long line,
                                         const char* format, ...);
  void addReported() { ++count_; }
  bool any() const { return count_ != 0; }

 private:
  int count_ = 0;
};

using ByteOrder = std::array<unsigned char, 4>;  // the significance of each byte of an integer

// Reads a source file, reporting every line that is not an entry or is not what the library would
// show.
std::vector<Message> readSource(const std::string& file, Faults* faults);

// Reports where the messages of `file` do not fit the program that those of `model` are for.
void compareWith(const std::vector<Message>& messages, const std::string& file,
                 const std::vector<Message>& model, const std::string& modelFile, Faults* faults);

// The entry as lines of a source file.
std::string entryLines(const Message& message);

// The compiled file for these messages.
std::string compile(const std::vector<Message>& messages, const ByteOrder& order);

// Reads a compiled file's messages, in the order of their entries.
std::vector<Message> readCompiled(const std::string& file, Faults* faults);
