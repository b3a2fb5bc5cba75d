// Messages as the compiler holds them: read from a source file, checked, written, read back.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <povzel/errutl.h>

struct Message {
  std::string symbol;
  std::vector<int> order;  // the numerals of the argument order list
  std::string text;
  unsigned long line;  // last line of its entry in the source
  int expectedArgs;    // the largest numeral
};

inline Message messageOf(const ErrUtlEntrySType& entry, unsigned long line) {
  return {entry.sym,
          {entry.argOrder, entry.argOrder + entry.argListSize},
          entry.buf,
          line,
          entry.expectedArgCount};
}

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

// Larger files the library would not read to their end.
constexpr std::size_t largestFile = 64u << 20;

// Reads a file, a pipe or a device to its end. False, with the fault reported, if that fails.
bool readBytes(const std::string& name, std::string* bytes, Faults* faults);

// Outputs go by their name; an empty one is standard output's.

// Whether the output is a regular file, and the one that the name `other` leads to.
bool isOutputFile(const std::string& output, const std::string& other);

// The name that users are shown.
std::string shownOutput(const std::string& output);

// Writes the file that `name` leads to. A regular file is replaced at once and keeps its rights;
// pipes and devices are written into.
void writeBytes(const std::string& name, const std::string& bytes, Faults* faults);

// The bytes as a stream to read, while this lives.
struct Stream {
  explicit Stream(std::string* bytes) : file(fmemopen(bytes->data(), bytes->size(), "r")) {}
  ~Stream() { std::fclose(file); }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  std::FILE* const file;
};

// Reads a source file, reporting every line that is not an entry or is not what the library would
// show. False if there is nothing to compare or compile.
bool readSource(const std::string& file, std::vector<Message>* messages, Faults* faults);

// Reports where the messages of `file` do not fit the program that those of `model` are for.
void compareWith(const std::vector<Message>& messages, const std::string& file,
                 const std::vector<Message>& model, const std::string& modelFile, Faults* faults);

// The entry as lines of a source file.
std::string entryLines(const Message& message);

// The compiled file for these messages.
std::string compile(const std::vector<Message>& messages, const ByteOrder& order);

// Reads a compiled file's messages, in the order of their entries, and its byte order.
std::vector<Message> readCompiled(const std::string& file, ByteOrder* order, Faults* faults);
