// Catalogue texts in framed boxes.
#pragma once

#include "errmsg.h"
#include "vermsg.h"

// Writes the text of `symbol` with its arguments (see errmsg.h for `kinds`) as framed lines.
template <typename... Arguments>
void catalogueMessage(std::FILE* f, const char* symbol, const char* kinds, Arguments... arguments) {
  ErrMsgStrType text;
  ErrMsgSymToText(symbol, text, sizeof text, kinds, arguments...);
  VerMessage(f, text);
}
