// What the sources of the message catalogue share.
//
//   errutl.cpp          finds, opens and checks the message file
//   errutlparse.cpp     reads its entries
//   errmsg.cpp          looks symbols up
//   errmsgtext.cpp      expands templates
//   errmsgnumbers.cpp   error numbers and their symbols
//   errmsgreport.cpp    reports of the database's error record
//   vermsg.cpp          texts in boxes
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include <povzel/errmsg.h>
#include <povzel/errutl.h>
#include <povzel/vermsg.h>

// Reading (errutl.cpp, errutlparse.cpp)

// Finds the file that ErrUtlInit is to open. This may itself ask for error texts.
void errUtlFindFile(const char* fileName, HostFnameStrType& name);

// Opens it. This does not.
bool errUtlOpen(BoolType isCompiled, const HostFnameStrType& name);

struct ErrUtlBytes {
  const unsigned char* data;
  std::size_t size;

  bool holds(std::uint64_t offset, std::size_t length) const {
    return offset <= size && length <= size - offset;
  }
};

// The contents of the open file; null data if there is no file or it cannot be read. They stay
// until the file is closed. Nothing beyond the first 64 MB is read, and only of regular files.
ErrUtlBytes errUtlContents();

// ErrUtlNextSym in lookup mode, for the entry at `offset` of `contents`.
bool errUtlEntryAt(const ErrUtlBytes& contents, std::uint32_t offset, ErrUtlEntrySType* entry,
                   BoolType* syntaxErr);

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

// Boxes

// Writes the text of `symbol` with its arguments (see errmsg.h for `kinds`) as framed lines.
template <typename... Arguments>
void verCatalogueMessage(std::FILE* f, const char* symbol, const char* kinds,
                         Arguments... arguments) {
  ErrMsgStrType text;
  ErrMsgSymToText(symbol, text, sizeof text, kinds, arguments...);
  VerMessage(f, text);
}
