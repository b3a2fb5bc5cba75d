// One list of the calls that the bridge makes, to the JVM and to the interface library, in order.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <povzel/zeltable.h>

namespace calls {

extern std::vector<std::string> all;  // "ZelSetSessionId(7)", "SetLongField(result, oop, 30)", ...
extern bool recording;                // off where a million calls are made

// The calls whose name begins with `prefix`, joined by spaces, and without this list the rest.
std::string joined(const char* prefix = "");

// Appends one argument, or an argument with the count that follows it, to a call's text.
void add(std::string& text, std::int64_t value);
void add(std::string& text, double value);
void add(std::string& text, const char* value);
void add(std::string& text, const OopType* oops, ArraySizeType count);
void add(std::string& text, const ByteType* bytes, ArraySizeType count);
void addRaw(std::string& text, const std::string& value);

}  // namespace calls
