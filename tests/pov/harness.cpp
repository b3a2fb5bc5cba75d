#include "harness.h"

#include <cstdio>
#include <cstdlib>
#include <iomanip>
#include <sstream>
#include <tuple>
#include <type_traits>

namespace harness {

std::string unescaped(const std::string& text) {
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool escape = text.compare(i, 2, "\\x") == 0;
    bytes += escape ? static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16)) : text[i];
    if (escape) i += 3;
  }
  return bytes;
}

namespace {

// The argument that the next word names.
template <typename T>
T argument(const Context& c, std::istream& words) {
  const bool isText = (words >> std::ws).peek() == '\'';
  std::string word;
  words >> std::quoted(word, '\'', '^');
  if constexpr (std::is_integral_v<T>) {
    return static_cast<T>(std::stoll(word));
  } else {
    if (isText) return static_cast<T>(static_cast<jobject>(jvm::newString(unescaped(word))));
    return word == "null" ? nullptr : static_cast<T>(c.named.at(word));
  }
}

template <typename... Args>
jint invoke(jint (*native)(JNIEnv*, jclass, Args...), Context& c, std::istream& words) {
  const std::tuple<Args...> arguments{argument<Args>(c, words)...};
  return std::apply([&](Args... given) { return c.run(native, given...); }, arguments);
}

template <auto native>
jint invoke(Context& c, std::istream& words) {
  return invoke(native, c, words);
}

#define ENTRY(name) std::pair(#name, &invoke<&NATIVE(name)>)

const std::map<std::string, jint (*)(Context&, std::istream&)> natives = {
    ENTRY(login),        ENTRY(logout),
    ENTRY(setup),        ENTRY(executeStr),
    ENTRY(executeObj),   ENTRY(perform),
    ENTRY(continue),     ENTRY(getBytes),
    ENTRY(getObjs),      ENTRY(getNamedObjs),
    ENTRY(putBytes),     ENTRY(putObjs),
    ENTRY(putNamedObjs), ENTRY(removeFromExportSet),
    ENTRY(releaseOops),  ENTRY(changedOops),
    ENTRY(isKindOf)};

// One word of what a scenario is given.
void give(Context& c, const std::string& what, const std::string& value) {
  recorder::StateSType& state = recorder::state;
  if (c.named.contains(what)) {
    const bool isNew = value.starts_with("value=");
    jvm::set(c.named.at(what),
             isNew ? "objType=-1 valueType=" + value.substr(6) : unescaped(value));
  } else if (what == "failing") {
    state.failName = value;
    state.failAt = 1;
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

Output::Output(std::string& whatWasFlushed, std::string& everything)
    : flushed(whatWasFlushed), all(everything) {
  std::fflush(stdout);
  stdout = open_memstream(&text, &size);
}

Output::~Output() {
  flushed.assign(text, size);
  std::fclose(stdout);
  all.assign(text, size);
  stdout = before;
  std::free(text);
}

void initialize(jint debugFlag) {
  jvm::start({"-Xcheck:jni", "-Xint"});  // a compiler would use memory of its own
  recorder::install();
  clear();
  Context context;
  auto* const error = static_cast<jthrowable>(context.named["error"]);
  const jint status =
      context.run(NATIVE(initialize), 0, nullptr, bufferBytes, preloadBytes, debugFlag, error);
  if (status == 32) return;
  std::fprintf(stderr, "_initialize: %d %s\n", status, context.shown("error").c_str());
  std::_Exit(1);
}

void clear() {
  recorder::state = {};
  jnitable::state = {};
}

Context::Context() {
  jobjectArray array = jvm::newReports(5);
  jobjectArray both = jvm::newReports(2);
  named = {{"result", jvm::newReport()},
           {"object", jvm::newReport("objType=0 oop=4716")},
           {"other", jvm::newReport("objType=0 oop=4720")},
           {"both", both},
           {"array", array},
           {"longs", jvm::newLongs(10)},
           {"bytes", jvm::newBytes("0123456789")},
           {"error", jvm::newException()}};
  env->SetObjectArrayElement(both, 0, named["object"]);
  env->SetObjectArrayElement(both, 1, named["other"]);
  for (int i = 4; i >= 0; --i) {
    jobject made = jvm::newReport("objType=0 oop=" + std::to_string(8000 + 4 * i));
    env->SetObjectArrayElement(array, i, made);
    if (i == 1) named["element"] = made;
  }
}

jint Context::call(const std::string& text) {
  const std::string native = text.substr(0, text.find(' '));
  const char* const session = native == "login" ? "" : "7";
  std::istringstream words(session + text.substr(native.size()) + " error");
  return natives.at(native)(*this, words);
}

std::string Context::changes() const {
  std::string all;
  for (const auto& [name, unchanged] : {std::pair{"result", ""},
                                        {"both", "[4716,4720]"},
                                        {"bytes", "<0123456789>"},
                                        {"array", "[8000,8004,8008,8012,8016]"},
                                        {"longs", "[-77,-76,-75,-74,-73,-72,-71,-70,-69,-68]"}}) {
    const std::string now = shown(name);
    if (now != unchanged) all += (all.empty() ? "" : "; ") + now;
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

void ScenarioSType::arrange(Context& c) const {
  std::istringstream words(given);
  for (std::string word; words >> word;) {
    const std::size_t end = word.find_first_of(".=");
    give(c, word.substr(0, end), word.substr(end + 1));
  }
}

}  // namespace harness
