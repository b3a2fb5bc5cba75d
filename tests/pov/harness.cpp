#include "harness.h"

#include <cstdio>
#include <cstdlib>

namespace harness {
namespace {

constexpr std::int64_t untouched = -77;
constexpr const char* numberFields[] = {"oop",        "classOop",    "classHistoryOop", "objType",
                                        "namedSize",  "indexedSize", "isCollection",    "isString",
                                        "isDBString", "valueType",   "valueInt1",       "valueInt2",
                                        "valueLong"};

jobject freshReport() {
  jobject report = jvm::newReport();
  for (const char* field : numberFields) {
    if (std::string(field).compare(0, 2, "is") != 0) jvm::setNumber(report, field, untouched);
  }
  jvm::setReal(report, "valueDouble", untouched);
  return report;
}

std::string list(const std::vector<jlong>& values) {
  std::string text;
  for (const jlong value : values) text += (text.empty() ? "" : ",") + std::to_string(value);
  return "[" + text + "]";
}

std::string shownBytes(const std::string& bytes) {
  std::string text = "(";
  calls::add(text, reinterpret_cast<const ByteType*>(bytes.data()), bytes.size());
  return text.substr(1);
}

}  // namespace

Output::Output() : before(stdout) {
  std::fflush(stdout);
  cookie_io_functions_t functions{};
  functions.write = &Output::write;
  mine = fopencookie(this, "w", functions);
  std::setvbuf(mine, nullptr, _IOFBF, std::size_t{1} << 20);
  stdout = mine;
}

Output::~Output() {
  stdout = before;
  std::fclose(mine);
}

std::string Output::all() {
  std::fflush(mine);
  return text;
}

ssize_t Output::write(void* self, const char* bytes, std::size_t size) {
  static_cast<Output*>(self)->text.append(bytes, size);
  return static_cast<ssize_t>(size);
}

void initialize(jint debugFlag) {
  JNIEnv* const env = jvm::start();
  recorder::install();
  recorder::reset();
  const jvm::Frame frame(64);
  jthrowable error = jvm::newException();
  jint status = 0;
  {
    const Output output;
    const jnitable::Watch watch(env);
    status =
        NATIVE(initialize)(env, nullptr, 0, nullptr, bufferBytes, preloadBytes, debugFlag, error);
  }
  if (status == 32) return;
  std::fprintf(stderr, "_initialize: %d %s\n", status, errorText(error).c_str());
  std::_Exit(1);
}

Context::Context() {
  result = freshReport();
  object = existing(freshReport(), 4716);
  other = existing(freshReport(), 4720);
  error = jvm::newException();
  jvm::setNumber(error, "number", untouched);
  array = jvm::newReports(5);
  for (int i = 0; i < 5; ++i) {
    element[i] = existing(freshReport(), 8000 + 4 * i);
    env->SetObjectArrayElement(array, i, element[i]);
  }
  longs = jvm::newLongs(std::vector<jlong>(10, untouched));
  bytes = jvm::newBytes("0123456789");
  jnitable::forgetNames();
  jnitable::name(result, "result");
  jnitable::name(error, "error");
}

jobject Context::existing(jobject report, std::int64_t oop) {
  jvm::setNumber(report, "objType", 0);
  jvm::setNumber(report, "oop", oop);
  return report;
}

jobject Context::value(jobject report, int valueType, std::int64_t valueLong) {
  jvm::setNumber(report, "objType", -1);
  jvm::setNumber(report, "valueType", valueType);
  jvm::setNumber(report, "valueLong", valueLong);
  return report;
}

jobject Context::textValue(jobject report, int valueType, const std::u16string& text) {
  jvm::setObject(report, "valueString", jvm::newString(text));
  return value(report, valueType);
}

std::string written(jobject report) {
  std::string text;
  for (const char* field : numberFields) {
    const std::int64_t value = jvm::number(report, field);
    const bool isFlag = std::string(field).compare(0, 2, "is") == 0;
    if (value != (isFlag ? 0 : untouched)) text += field + ("=" + std::to_string(value)) + " ";
  }
  if (jvm::real(report, "valueDouble") != untouched) {
    char digits[40];
    std::snprintf(digits, sizeof digits, "valueDouble=%g ", jvm::real(report, "valueDouble"));
    text += digits;
  }
  if (!jvm::isNull(report, "valueBytes")) {
    text += "valueBytes=" + shownBytes(jvm::bytes(report, "valueBytes")) + " ";
  }
  if (!jvm::isNull(report, "valueLongs")) {
    text += "valueLongs=" + list(jvm::longs(report, "valueLongs")) + " ";
  }
  if (!text.empty()) text.pop_back();
  return text;
}

std::string outcome(Context& context) {
  std::string text = written(context.result);
  const auto add = [&text](const std::string& part, const std::string& unchanged) {
    if (part != unchanged) text += (text.empty() ? "" : "; ") + part;
  };
  add("object=" + std::to_string(jvm::number(context.object, "oop")), "object=4716");
  add("other=" + std::to_string(jvm::number(context.other, "oop")), "other=4720");
  add(jvm::elements(context.bytes), "0123456789");
  std::string elements;
  for (int i = 0; i < 5; ++i) {
    jobject element = context.env->GetObjectArrayElement(context.array, i);
    elements += i == 0 ? "" : " ";
    elements += element != nullptr ? std::to_string(jvm::number(element, "oop")) : "null";
    context.env->DeleteLocalRef(element);
  }
  add(elements, "8000 8004 8008 8012 8016");
  add(list(jvm::elements(context.longs)), list(std::vector<jlong>(10, untouched)));
  return text;
}

std::string errorText(jthrowable error) {
  const std::int64_t number = jvm::number(error, "number");
  if (number == untouched) return "";
  std::string text = std::to_string(number) + " '" + jvm::text(error, "message") + "'";
  for (const char* field : {"category", "context", "fatal", "argCount"}) {
    text += " " + std::to_string(jvm::number(error, field));
  }
  return text + " " + (jvm::isNull(error, "args") ? "(null)" : list(jvm::longs(error, "args")));
}

std::string generic(const std::string& message) {
  return "2318 '" + message + "' 10 10 0 0 []";
}

std::string libraryError() {
  return "2101 'something failed' 231169 777 0 3 [11,4294967295,13]";
}

std::string libraryCalls() {
  return calls::joined("Zel");
}

}  // namespace harness
