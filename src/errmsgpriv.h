// How errmsg makes texts: templates expanded with arguments, and the form without a template.
#pragma once

#include <cstdarg>

#include "errutl.h"

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
