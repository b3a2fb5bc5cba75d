#include "harness.h"

#include <cstdio>
#include <cstdlib>
#include <iomanip>
#include <sstream>
#include <tuple>
#include <type_traits>
#include <utility>

#include "misaligned.h"

namespace harness {

namespace {

// The argument that the next word names.
template <typename T>
T argument(const Context& c, std::istream& words) {
  std::string word;
  words >> std::quoted(word, '\'', '^');
  if constexpr (std::is_integral_v<T>) {
    return static_cast<T>(std::stoll(word));
  } else {
    const auto found = c.named.find(word);
    return static_cast<T>(found != c.named.end() ? found->second : jvm::newString(word));
  }
}

// Calls a native, observed.
template <typename... Args>
jint invoke(jint (*native)(JNIEnv*, jclass, Args...), Context& c, std::istream& words) {
  const std::tuple<JNIEnv*, jclass, Args...> arguments{c.env, nullptr, argument<Args>(c, words)...};
  const jnitable::Watch watch(c.env);
  char* text = nullptr;
  std::size_t size = 0;
  FILE* const before = std::exchange(stdout, open_memstream(&text, &size));
  const jint status = std::apply(misaligned(c.bytesOff, native), arguments);
  c.flushed.assign(text, size);
  std::fclose(stdout);
  c.printed.assign(text, size);
  stdout = before;
  std::free(text);
  return status;
}

template <auto native>
jint invoke(Context& c, std::istream& words) {
  return invoke(native, c, words);
}

#define ENTRY(name) std::pair(#name, &invoke<&Java_com_tarvolin_povzel_PovZelInterface__1##name>)
#define SUPPORT(name) std::pair(#name, &invoke<&Java_com_tarvolin_povzel_PovZelSupport_##name>)

const std::map<std::string, jint (*)(Context&, std::istream&)> natives = {
    ENTRY(initialize),  ENTRY(login),       ENTRY(logout),       ENTRY(setup),
    ENTRY(executeStr),  ENTRY(executeObj),  ENTRY(perform),      ENTRY(continue),
    ENTRY(getBytes),    ENTRY(getObjs),     ENTRY(getNamedObjs), ENTRY(isKindOf),
    ENTRY(putBytes),    ENTRY(putObjs),     ENTRY(putNamedObjs), ENTRY(removeFromExportSet),
    ENTRY(releaseOops), ENTRY(changedOops), SUPPORT(commit),     SUPPORT(abort)};

// One word of what a scenario is given.
void give(Context& c, const std::string& what, const std::string& value) {
  recorder::StateSType& state = recorder::state;
  if (c.named.contains(what)) {
    const bool isNew = value.starts_with("value=");
    jvm::set(c.named.at(what), isNew ? "objType=-1 valueType=" + value.substr(6) : value);
  } else if (what == "body") {
    state.body = value;
  } else if (what == "oops") {
    std::istringstream oops(value);
    for (std::string oop; std::getline(oops, oop, ',');) state.oops.push_back(std::stoul(oop));
  } else if (what == "hole") {
    auto* const array = static_cast<jobjectArray>(c.named.at("array"));
    c.env->SetObjectArrayElement(array, std::stoi(value), nullptr);
  } else {
    state.results[what] = std::stod(value);
  }
}

}  // namespace

void initialize(jint debugFlag) {
  recorder::install();
  Context().call("initialize 0 null 1000 256 " + std::to_string(debugFlag));
}

void clear() {
  recorder::state = {};
  jnitable::state = {};
}

Context::Context() {
  named = {{"null", nullptr},
           {"result", jvm::newReport()},
           {"both", jvm::newReports(2)},
           {"array", jvm::newReports(5)},
           {"longs", jvm::newLongs(10)},
           {"bytes", jvm::newBytes("0123456789")},
           {"error", jvm::newException()}};
  const auto place = [this](const char* array, int index, int oop) {
    jobject report = jvm::newReport("objType=0 oop=" + std::to_string(oop));
    env->SetObjectArrayElement(static_cast<jobjectArray>(named[array]), index, report);
    return report;
  };
  named["object"] = place("both", 0, 4716);
  named["other"] = place("both", 1, 4720);
  for (int i = 0; i < 5; ++i) place("array", i, 8000 + 4 * i);
  named["element"] = place("array", 1, 8004);
}

jint Context::call(const std::string& text) {
  const std::string native = text.substr(0, text.find(' '));
  const bool hasSession = native != "login" && native != "initialize";
  std::istringstream words((hasSession ? "7" : "") + text.substr(native.size()) + " error");
  return natives.at(native)(*this, words);
}

std::string Context::changes() const {
  const Context untouched;
  std::string all;
  for (const char* name : {"result", "both", "bytes", "array", "longs"}) {
    if (shown(name) == untouched.shown(name)) continue;
    all += (all.empty() ? "" : "; ") + shown(name);
  }
  return all;
}

std::string generic(const std::string& message) {
  return "number=2318 message=" + message +
         " category=10 context=10 fatal=false argCount=0 args=[]";
}

std::string libraryError() {
  return "number=2101 message=something failed category=231169 context=777 fatal=false argCount=3 "
         "args=[11,4294967295,13]";
}

jint ScenarioSType::run(Context& c) const {
  std::istringstream words(given);
  for (std::string word; words >> word;) {
    const std::size_t end = word.find_first_of(".=");
    give(c, word.substr(0, end), word.substr(end + 1));
  }
  return c.call(call);
}

}  // namespace harness
