// Framed output and banners: boxes 79 columns wide in which every program of the product
// identifies itself, heads its logs and reports fatal errors.
//
//   VerLeadingEdge(stderr);
//   VerCenteredMessage(stderr, "Message service");
//   VerDividerLine(stderr);
//   VerMessage(stderr, "Ready for clients.");
//   VerEndEdge(stderr);
//
// A text that is valid UTF-8 as a whole, but for a last character that its end may cut, is counted
// in characters, each of them a column wide; any other text in bytes.
//
// Each function writes to the caller's stream `f`, which must not be null, and reports nothing: the
// stream's own error indicator tells. No state is kept. Sources: vermsg.cpp, verbanner.cpp
// (VerBanner, VerInfo, VerBreatheFireAndThunder).
#pragma once

#include <stdio.h>

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Writes the top edge of a box.
POVZEL_EXPORT void VerLeadingEdge(FILE* f);

// Writes the bottom edge of a box and flushes the stream.
POVZEL_EXPORT void VerEndEdge(FILE* f);

// Writes a line that divides a box.
POVZEL_EXPORT void VerDividerLine(FILE* f);

// Writes `text` as framed lines: a new line character ends a line, and so does the first blank
// met once a line holds 74 characters. A word is never cut: a line of more than 76 characters
// stays open on the right. An empty text gives one empty line.
POVZEL_EXPORT void VerMessage(FILE* f, const char* text);

// Writes `text` centred by blanks before it; a text of more than 74 characters as it is.
POVZEL_EXPORT void VerCenteredMessage(FILE* f, const char* text);

// Opens a box that says which program runs: product, notices (more of them when `flag` is
// non-zero), `pgmname` with the description whose catalogue symbol is `pgmdesc`, and the version
// block with `pgmversion` (null: the product's version). The caller ends the box with VerEndEdge.
// A null `pgmname` writes nothing.
POVZEL_EXPORT void VerBanner(FILE* f, const char* pgmname, const char* pgmdesc,
                             const char* pgmversion, BoolType flag);

// Writes the version block of an open box: `version` (null: the product's version), build
// platform, this machine, process id and date, users, and the date format where it is unusual.
POVZEL_EXPORT void VerInfo(FILE* f, const char* version);

// Writes the box that warns that a program is for the maker's debugging only.
POVZEL_EXPORT void VerBreatheFireAndThunder(FILE* f);

POVZEL_END_C
