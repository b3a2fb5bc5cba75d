// Stands between the library and the dynamic loader: records what is opened, and lets a fixture
// library answer to any name. Fixture libraries report what happens to them through the same list.
#pragma once

#include <map>
#include <string>
#include <vector>

struct LoaderHooks {
  std::vector<std::string> opens;             // the names of every dlopen, in order
  std::vector<std::string> events;            // "opened old", "ZelShutdown", "closed old", ...
  std::map<std::string, std::string> stands;  // name asked for: file that is opened
  int flags = 0;                              // of the last dlopen
  int errorCalls = 0;                         // calls of dlerror
  bool errorsAreNull = false;                 // dlerror has nothing to say
};

extern LoaderHooks loaderHooks;

// The file of a fixture library by its short name.
std::string fixtureFile(const std::string& name);
