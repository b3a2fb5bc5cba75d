// Steps of random transactions over a vector V, a dictionary D and a set S of the database's
// globals.
#pragma once

#include <random>
#include <string>

struct Step {
  std::string text;
  std::string answer;
};

constexpr const char* makeGlobals =
    "Globals at: #V put: (Array new: 8); at: #D put: Dictionary new; at: #S put: Set new. 1 to: 8 "
    "do: "
    "[:i | V at: i put: (OrderedCollection with: 0)]";
constexpr const char* allOfGlobals =
    "{V. D keys asSortedCollection asArray. S asSortedCollection asArray}";

inline std::string randomStep(std::mt19937& random) {
  const auto number = [&] { return std::to_string(1 + random() % 8); };
  switch (random() % 9) {
    case 0:
      return "(V at: " + number() + ") first";
    case 1:
      return "(V at: " + number() + ") at: 1 put: (V at: " + number() + ") first + 1";
    case 2:
      return "D at: " + number() + " ifAbsent: [0]";
    case 3:
      return "D at: " + number() + " put: (V at: " + number() + ") first";
    case 4:
      return "D removeKey: " + number() + " ifAbsent: [0]";
    case 5:
      return "S includes: " + number();
    case 6:
      return "{S add: " + number() + ". S includes: " + number() + "}";
    case 7:
      return "S remove: " + number() + " ifAbsent: [0]";
    default:
      return "{D size. S size. (V inject: 0 into: [:a :b | a + b first])}";
  }
}
