#include "calls.h"

#include <cstdio>
#include <cstring>

namespace calls {
namespace {

constexpr ArraySizeType mostShown = 64;

}  // namespace

std::vector<std::string> all;
bool recording = true;

std::string joined(const char* prefix) {
  std::string text;
  for (const std::string& call : all) {
    if (call.compare(0, std::strlen(prefix), prefix) != 0) continue;
    if (!text.empty()) text += ' ';
    text += call;
  }
  return text;
}

void addRaw(std::string& text, const std::string& value) {
  if (text.back() != '(') text += ',';
  text += value;
}

void add(std::string& text, std::int64_t value) {
  addRaw(text, std::to_string(value));
}

void add(std::string& text, double value) {
  char digits[32];
  std::snprintf(digits, sizeof digits, "%g", value);
  addRaw(text, digits);
}

void add(std::string& text, const char* value) {
  addRaw(text, value != nullptr ? "'" + std::string(value) + "'" : "null");
}

void add(std::string& text, const OopType* oops, ArraySizeType count) {
  std::string list = count > mostShown ? std::to_string(count) : "";
  for (ArraySizeType i = 0; count <= mostShown && i < count; ++i) {
    list += (i == 0 ? "" : ",") + std::to_string(oops[i]);
  }
  addRaw(text, "[" + list + "]");
}

void add(std::string& text, const ByteType* bytes, ArraySizeType count) {
  if (count > mostShown) return addRaw(text, "<" + std::to_string(count) + ">");
  std::string shown;
  for (ArraySizeType i = 0; i < count; ++i) {
    char code[8];
    const bool plain = bytes[i] >= 0x20 && bytes[i] < 0x7f;
    std::snprintf(code, sizeof code, plain ? "%c" : "\\x%02x", bytes[i]);
    shown += code;
  }
  addRaw(text, "<" + shown + ">");
}

}  // namespace calls
