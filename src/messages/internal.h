// What the sources of the message catalogue share.
//
//   errutl.cpp          finds, opens and checks the message file
//   errutlparse.cpp     reads its table and its entries
//   errmsg.cpp          looks symbols up
//   errmsgtext.cpp      expands templates
//   errmsgnumbers.cpp   error numbers and their symbols
//   errmsgreport.cpp    reports of the database's error record
//   vermsg.cpp          texts in boxes
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include <povzel/errmsg.h>
#include <povzel/errutl.h>
#include <povzel/vermsg.h>

// Reading (errutl.cpp, errutlparse.cpp)

// Finds the file that ErrUtlInit is to open. This may itself ask for error texts. Returns false if
// its name is too long; then `name` is what fits of it.
bool errUtlFindFile(const char* fileName, HostFnameStrType& name);

// Opens it, or fails with ENAMETOOLONG; errUtlReopen is to read it. This does not ask.
bool errUtlOpen(BoolType isCompiled, const HostFnameStrType& name, bool isWhole);

// ErrUtlReset(0) for a file whose header was read before. With `keeps` and no descriptor or memory
// to be had for the moment, look-ups go on with what was read.
bool errUtlReopen(bool keeps);

// ErrMsgReset, in that way: the texts that another process is to have are those of the file as it
// is, or else what this one has (errmsg.cpp).
void errMsgRefresh();

struct ErrUtlBytes {
  const unsigned char* data;
  std::size_t size;
  const char* name;  // of the file

  bool holds(std::uint64_t offset, std::size_t length) const {
    return offset <= size && length <= size - offset;
  }
};

// What was read of an open message file, for look-ups. It does not change, but for the cache, while
// somebody holds it.
struct ErrUtlReading {
  ErrUtlBytes contents{};  // null data: it cannot be read
  ErrUtlHdrSType header{};
  mutable std::atomic<std::uint32_t> cachedMessages[64]{};  // slots found, counted from 1
  mutable std::atomic<int> holders{0};
  mutable std::atomic<bool> isDamageTold{false};
  ErrUtlReading* next = nullptr;
};

// Holds what was last read: null if no file is open. Takes no lock, so that look-ups also go on in
// a handler that interrupts whatever its thread is at; a file opened meanwhile leaves it alone.
class ErrUtlHold {
 public:
  ErrUtlHold();
  ~ErrUtlHold() {
    if (reading_ != nullptr) reading_->holders.fetch_sub(1);
  }
  ErrUtlHold(const ErrUtlHold&) = delete;
  ErrUtlHold& operator=(const ErrUtlHold&) = delete;

  const ErrUtlReading* get() const { return reading_; }
  bool isOutdated() const;

 private:
  const ErrUtlReading* reading_;
};

// The contents of the open file, for those who open and close it: null data if there is no file or
// it cannot be read. They stay until the file is closed. Nothing beyond the first 64 MB is read,
// and only of regular files.
ErrUtlBytes errUtlContents();

// Reads one slot of the table of a compiled file with that header. Returns false if it lies beyond
// the file's end.
bool errUtlSlotAt(const ErrUtlBytes& file, const ErrUtlHdrSType& header, std::uint32_t index,
                  ErrUtlHashSType& slot);

// Looks in the table for the symbol of `length` characters and that hash; where it is found,
// `index` and `slot` are its slot's. A slot or a key that is looked at may lie beyond the file's
// end.
enum class ErrUtlSearch { found, absent, slotIsCut, keyIsCut };
ErrUtlSearch errUtlSearch(const ErrUtlBytes& file, const ErrUtlHdrSType& header, const char* symbol,
                          std::size_t length, std::uint32_t hash, std::uint32_t& index,
                          ErrUtlHashSType& slot);

// ErrUtlNextSym in lookup mode, for the entry at `offset` of `contents`. Reports the first fault
// alone; with `isTold` only where that is not set yet, and by errUtlSay.
bool errUtlEntryAt(const ErrUtlBytes& contents, std::uint32_t offset, ErrUtlEntrySType* entry,
                   BoolType* syntaxErr, std::atomic<bool>* isTold = nullptr);

// Writes a line to standard error past its stream, whose lock an interrupted thread may hold.
__attribute__((format(printf, 1, 2))) void errUtlSay(const char* format, ...);
void errUtlSayList(const char* format, va_list arguments);

// The integer stored in 4 bytes of a file with that transform.
std::uint32_t errUtlDecode(const unsigned char* bytes, const unsigned char* transform);

// Texts (errmsgtext.cpp)

// One argument of a request.
struct ErrMsgArg {
  char kind;
  union {
    long number;
    const char* string;
    double real;
  };
};

// The arguments of a request, in the order of its kinds string.
struct ErrMsgArgs {
  std::size_t count = 0;  // as many as there are kinds; only the first ErrUtlMaxArgs are held
  std::size_t held = 0;
  ErrMsgArg arg[ErrUtlMaxArgs];

  void collect(const char* kinds, va_list& arguments);
};

// Puts the entry's text with the arguments inserted into `out`, at most 2047 characters.
void mySprintf(const ErrUtlEntrySType& entry, const ErrMsgArgs& args, ErrMsgStrType& out);

// Puts the form without a catalogue, as far as it fits, into the `size` bytes at `buffer`: symbol
// and arguments in square brackets, before them the raw template in double quotes if there is one.
void desperateErr(const char* symbol, const char* rawTemplate, char* buffer, std::size_t size,
                  const ErrMsgArgs& args);

// Boxes (vermsg.cpp)

// Writes the text of `symbol` with its arguments (see errmsg.h for `kinds`) as framed lines.
template <typename... Arguments>
void verCatalogueMessage(std::FILE* f, const char* symbol, const char* kinds,
                         Arguments... arguments) {
  ErrMsgStrType text;
  ErrMsgSymToText(symbol, text, sizeof text, kinds, arguments...);
  VerMessage(f, text);
}

// The functions of vermsg.h for a descriptor, past the streams. Signal-safe.
void verSafeLeadingEdge(int fd);
void verSafeEndEdge(int fd);
void verSafeMessage(int fd, const char* text);
void verSafeCenteredMessage(int fd, const char* text);

template <typename... Arguments>
void verSafeCatalogueMessage(int fd, const char* symbol, const char* kinds,
                             Arguments... arguments) {
  ErrMsgStrType text;
  ErrMsgSymToText(symbol, text, sizeof text, kinds, arguments...);
  verSafeMessage(fd, text);
}
