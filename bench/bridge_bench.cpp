// What the bridge costs beyond the JNI and library calls that the work cannot do without.
//
// Each native runs beside its floor: a function here that makes those calls alone, and asks for an
// exception nowhere: what could throw says so by its result. Both run in turns, in small batches,
// so that the machine's moods meet both alike; "ratio" is the median over the turns. The interface
// library does nothing.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include <povzel/zelrtl.h>
#include "idlelib.h"
#include "jvm.h"
#include "paired.h"
#include "povzelinterface.h"

namespace {

constexpr jint bufSize = 2 << 20;
constexpr jint preloadSize = 256;
constexpr jint mostObjs = 100000;
constexpr jint distinctReports = 100;
constexpr jint session = 1;
constexpr int turns = 1000;

JNIEnv* env = nullptr;
const ZelRtlJumpSType* zel = nullptr;
ZelErrSType zelErr;

struct FieldIds {
  jfieldID oop, classOop, classHistoryOop, objType, namedSize, indexedSize, isCollection, isString,
      valueType, valueLong, valueBytes, valueLongs;
} fid;

// Java objects that the natives are called with.
jobject result, arrayReport, integerReport, stringReport;
jobjectArray threeReports, manyReports;
jlongArray manyLongs;
jbyteArray manyBytes;  // of the case's size: its elements are copied whole
jstring source, selector, serverName, userName, password;
jthrowable error;

std::vector<OopType> oops(mostObjs);
std::vector<jlong> longs(mostObjs);
std::vector<ByteType> preload(preloadSize);

template <typename T>
T keep(T local) {
  return static_cast<T>(env->NewGlobalRef(local));
}

void require(bool held, const char* what) {
  if (held) return;
  std::fprintf(stderr, "bridge_bench: %s failed\n", what);
  std::exit(1);
}

jobject reportOf(OopType oop) {
  return keep(jvm::newReport("objType=0 oop=" + std::to_string(oop)));
}

// Few enough objects to stay in the cache: what is measured is the bridge, not the memory.
jobjectArray reportsOf(jint count) {
  jobjectArray reports = keep(jvm::newReports(count));
  const jvm::Frame frame(2 * distinctReports);
  jobject distinct[distinctReports];
  for (jobject& report : distinct) {
    report = jvm::newReport("objType=0 oop=" + std::to_string(idle::arrayOop));
  }
  for (jint i = 0; i < count; ++i) {
    env->SetObjectArrayElement(reports, i, distinct[i % distinctReports]);
  }
  return reports;
}

void findFields() {
  jclass cls = env->GetObjectClass(result);
  const auto find = [&](const char* name, const char* signature) {
    return env->GetFieldID(cls, name, signature);
  };
  fid = {find("oop", "J"),          find("classOop", "J"),    find("classHistoryOop", "J"),
         find("objType", "B"),      find("namedSize", "I"),   find("indexedSize", "J"),
         find("isCollection", "Z"), find("isString", "Z"),    find("valueType", "B"),
         find("valueLong", "J"),    find("valueBytes", "[B"), find("valueLongs", "[J")};
}

void start() {
  setenv("TARVOLIN", POVZEL_IDLE, 1);
  env = jvm::start({});
  error = keep(jvm::newException());
  require(Java_com_tarvolin_povzel_PovZelInterface__1initialize(env, nullptr, 0, nullptr, bufSize,
                                                                preloadSize, 0, error) == 32,
          "_initialize");
  zel = rtlPrivZelRtlFuncs;
  result = keep(jvm::newReport());
  findFields();
  arrayReport = reportOf(idle::arrayOop);
  integerReport = reportOf(idle::integerSeven);
  stringReport = reportOf(idle::stringOop);
  threeReports = reportsOf(3);
  manyReports = reportsOf(mostObjs);
  manyLongs = keep(env->NewLongArray(mostObjs));
  source = keep(jvm::newString("3 + 4"));
  selector = keep(jvm::newString("at:put:with:"));
  serverName = keep(jvm::newString("server"));
  userName = keep(jvm::newString("DataCurator"));
  password = keep(jvm::newString("swordfish"));
}

// ---- The floors' common steps ----

bool poll() {
  return zel->ZelErr(&zelErr) != 0;
}

bool selectSession(jint id) {
  zel->ZelSetSessionId(id);
  return !poll();
}

// Every argument that a native is given may be null, and every array shorter than the count.
bool fits(jarray array, jint count) {
  return array != nullptr && env->GetArrayLength(array) >= count;
}

OopType oopOf(jobject report) {
  if (env->GetByteField(report, fid.objType) == -1) return 0;
  return static_cast<OopType>(env->GetLongField(report, fid.oop));
}

void storeOop(jobject report, OopType oop) {
  env->SetLongField(report, fid.oop, oop);
}

jint describeInteger(OopType oop, jobject report) {
  storeOop(report, oop);
  env->SetByteField(report, fid.objType, 3);
  if (poll()) return -1;
  env->SetByteField(report, fid.valueType, 3);
  env->SetLongField(report, fid.valueLong, static_cast<jint>(oop) >> 2);
  return 0;
}

bool saveObject(OopType oop, jobject report) {
  storeOop(report, oop);
  zel->ZelSaveObjs(&oop, 1);
  return !poll();
}

bool describeObject(OopType oop, jobject report, ZelObjInfoSType* info) {
  ArraySizeType fetched = 0;
  if (!saveObject(oop, report)) return false;
  if (zel->ZelFetchObjInfo(oop, 1, preloadSize, info, preload.data(), &fetched) == 0) return false;
  env->SetLongField(report, fid.classOop, info->objClass);
  const OopType history = zel->ZelFetchNamedOop(info->objClass, 12);
  poll();
  env->SetLongField(report, fid.classHistoryOop, history);
  env->SetIntField(report, fid.namedSize, info->namedSize);
  env->SetLongField(report, fid.indexedSize, info->objSize - info->namedSize);
  env->SetByteField(report, fid.objType, static_cast<jbyte>(info->objImpl));
  env->SetBooleanField(report, fid.isCollection, static_cast<jboolean>(info->isIndexable));
  return true;
}

// ---- Floors ----
// Each is what a native might be: called from elsewhere, with a native's arguments.

jint executeStrFloor(JNIEnv*, jclass, jint id, jstring text, jobject report, jthrowable) {
  if (!selectSession(id)) return -1;
  if (report == nullptr || text == nullptr) return -1;
  const char* characters = env->GetStringUTFChars(text, nullptr);
  if (characters == nullptr) return -2;
  const OopType oop = zel->ZelExecuteStr(characters, NilOop);
  if (poll()) return -1;
  const jint status = describeInteger(oop, report);
  env->ReleaseStringUTFChars(text, characters);
  return status;
}

jint performFloor(JNIEnv*, jclass, jint id, jobject to, jstring text, jobjectArray reports,
                  jint count, jobject report, jthrowable) {
  if (!selectSession(id)) return -1;
  if (report == nullptr || to == nullptr || text == nullptr) return -1;
  OopType args[20];
  if (count < 0 || count > 20 || !fits(reports, count)) return -1;
  const OopType receiver = oopOf(to);
  for (jint i = 0; i < count; ++i) {
    jobject argument = env->GetObjectArrayElement(reports, i);
    if (argument == nullptr) return -1;
    args[i] = oopOf(argument);
    env->DeleteLocalRef(argument);
  }
  const char* characters = env->GetStringUTFChars(text, nullptr);
  if (characters == nullptr) return -2;
  const OopType oop =
      zel->ZelPerform(receiver, characters, args, static_cast<ArraySizeType>(count));
  if (poll()) return -1;
  const jint status = describeInteger(oop, report);
  env->ReleaseStringUTFChars(text, characters);
  return status;
}

jint setupIntegerFloor(JNIEnv*, jclass, jint id, jobject report, jthrowable) {
  if (!selectSession(id) || report == nullptr) return -1;
  const auto oop = static_cast<OopType>(env->GetLongField(report, fid.oop));
  return describeInteger(oop, report);
}

jint setupStringFloor(JNIEnv*, jclass, jint id, jobject report, jthrowable) {
  if (!selectSession(id) || report == nullptr) return -1;
  const auto oop = static_cast<OopType>(env->GetLongField(report, fid.oop));
  ZelObjInfoSType info;
  if (!describeObject(oop, report, &info)) return -1;
  if (zel->ZelIsKindOf(oop, StringKindClassOop) == 0) return -1;
  env->SetBooleanField(report, fid.isString, JNI_TRUE);
  if (zel->ZelIsKindOf(oop, DoubleByteStringClassOop) != 0) return -1;
  env->SetByteField(report, fid.valueType, 7);
  jbyteArray bytes = env->NewByteArray(info.objSize);
  if (bytes == nullptr) return -2;
  env->SetByteArrayRegion(bytes, 0, info.objSize, reinterpret_cast<jbyte*>(preload.data()));
  env->SetObjectField(report, fid.valueBytes, bytes);
  return poll() ? -1 : 0;
}

jint setupArrayFloor(JNIEnv*, jclass, jint id, jobject report, jthrowable) {
  if (!selectSession(id) || report == nullptr) return -1;
  const auto oop = static_cast<OopType>(env->GetLongField(report, fid.oop));
  ZelObjInfoSType info;
  if (!describeObject(oop, report, &info)) return -1;
  jlongArray array = env->NewLongArray(info.objSize);
  if (array == nullptr) return -2;
  const void* bytes = preload.data();
  const auto* preloaded = static_cast<const OopType*>(bytes);
  for (jint i = 0; i < info.objSize; ++i) longs[i] = preloaded[i];
  env->SetLongArrayRegion(array, 0, info.objSize, longs.data());
  env->SetObjectField(report, fid.valueLongs, array);
  env->SetByteField(report, fid.valueType, 6);
  return poll() ? -1 : 0;
}

jint loginFloor(JNIEnv*, jclass, jstring server, jstring kellnet, jstring user, jstring secret,
                jstring hostUser, jstring hostSecret, jthrowable) {
  if (server == nullptr || user == nullptr || secret == nullptr) return -1;
  if (kellnet != nullptr || hostUser != nullptr || hostSecret != nullptr) return -1;
  const jstring strings[] = {server, user, secret};
  const char* texts[3];
  for (int i = 0; i < 3; ++i) {
    texts[i] = env->GetStringUTFChars(strings[i], nullptr);
    if (texts[i] == nullptr) return -2;
  }
  zel->ZelSetNet(texts[0], nullptr, nullptr, nullptr);
  if (poll()) return -1;
  if (zel->ZelLogin(texts[1], texts[2]) == 0) return -1;
  const jint id = zel->ZelGetSessionId();
  if (poll()) return -1;
  zel->ZelDirtyObjsInit();
  if (poll()) return -1;
  for (int i = 0; i < 3; ++i) env->ReleaseStringUTFChars(strings[i], texts[i]);
  return id;
}

jint getBytesFloor(JNIEnv*, jclass, jint id, jobject of, jlong start, jint count, jbyteArray bytes,
                   jthrowable) {
  if (!selectSession(id) || start < 1 || of == nullptr || !fits(bytes, count)) return -1;
  const OopType oop = oopOf(of);
  jbyte* elements = env->GetByteArrayElements(bytes, nullptr);
  if (elements == nullptr) return -2;
  const long fetched =
      zel->ZelFetchBytes(oop, static_cast<long>(start), reinterpret_cast<ByteType*>(elements),
                         static_cast<ArraySizeType>(count));
  const bool failed = poll();
  env->ReleaseByteArrayElements(bytes, elements, 0);
  return failed || fetched != count ? -1 : count;
}

jint putBytesFloor(JNIEnv*, jclass, jint id, jobject of, jlong start, jint count, jbyteArray bytes,
                   jthrowable) {
  if (!selectSession(id) || start < 1 || of == nullptr || !fits(bytes, count)) return -1;
  const OopType oop = oopOf(of);
  jbyte* elements = env->GetByteArrayElements(bytes, nullptr);
  if (elements == nullptr) return -2;
  zel->ZelStoreBytesInstanceOf(NilOop, oop, static_cast<long>(start),
                               reinterpret_cast<ByteType*>(elements),
                               static_cast<ArraySizeType>(count));
  env->ReleaseByteArrayElements(bytes, elements, 0);
  return poll() ? -1 : 0;
}

jint getObjsFloor(JNIEnv*, jclass, jint id, jobject of, jlong start, jint count,
                  jobjectArray reports, jthrowable) {
  if (!selectSession(id) || start < 1 || of == nullptr || !fits(reports, count)) return -1;
  const OopType oop = oopOf(of);
  const long fetched = zel->ZelFetchVaryingOops(oop, static_cast<long>(start), oops.data(),
                                                static_cast<ArraySizeType>(count));
  if (poll()) return -1;
  for (jint i = 0; i < fetched; ++i) {
    jobject report = env->GetObjectArrayElement(reports, i);
    if (report == nullptr) return -1;
    if (!saveObject(oops[i], report)) return -1;
    env->DeleteLocalRef(report);
  }
  return fetched;
}

jint putObjsFloor(JNIEnv*, jclass, jint id, jobject of, jlong start, jint count,
                  jobjectArray reports, jthrowable) {
  if (!selectSession(id) || start < 1 || of == nullptr || !fits(reports, count)) return -1;
  const OopType oop = oopOf(of);
  for (jint i = 0; i < count; ++i) {
    jobject report = env->GetObjectArrayElement(reports, i);
    if (report == nullptr) return -1;
    oops[i] = oopOf(report);
    env->DeleteLocalRef(report);
  }
  zel->ZelStoreIdxOops(oop, static_cast<long>(start), oops.data(),
                       static_cast<ArraySizeType>(count));
  return poll() ? -1 : 0;
}

jint releaseOopsFloor(JNIEnv*, jclass, jint id, jlongArray array, jint count, jthrowable) {
  if (!selectSession(id) || !fits(array, count)) return -1;
  env->GetLongArrayRegion(array, 0, count, longs.data());
  for (jint i = 0; i < count; ++i) oops[i] = static_cast<OopType>(longs[i]);
  zel->ZelReleaseOops(oops.data(), static_cast<ArraySizeType>(count));
  return poll() ? -1 : 0;
}

jint changedOopsFloor(JNIEnv*, jclass, jint id, jlongArray array, jint count, jthrowable) {
  if (!selectSession(id) || !fits(array, count)) return -1;
  auto delivered = static_cast<ArraySizeType>(count);
  zel->ZelDirtySaveObjs(oops.data(), &delivered);
  if (poll()) return -1;
  const auto changed = static_cast<jint>(delivered);
  for (jint i = 0; i < changed; ++i) longs[i] = oops[i];
  env->SetLongArrayRegion(array, 0, changed, longs.data());
  return changed;
}

jint isKindOfFloor(JNIEnv*, jclass, jint id, jobject report, jobject cls, jthrowable) {
  if (!selectSession(id) || report == nullptr || cls == nullptr) return -1;
  const OopType obj = oopOf(report);
  const BoolType answer = zel->ZelIsKindOf(obj, oopOf(cls));
  return poll() ? -1 : answer;
}

// ---- Natives beside their floors ----

using RunFType = jint (*)(jint count);

struct Case {
  const char* name;
  jint count;
  RunFType native;
  RunFType floor;
};

#define NATIVE(name) Java_com_tarvolin_povzel_PovZelInterface__1##name

// A native or its floor, of which the compiler knows nothing where it is called.
template <auto function>
auto* unknown() {
  auto* pointer = function;
  benchmark::DoNotOptimize(pointer);
  return pointer;
}

// One call of it.
template <auto function>
jint executed(jint) {
  return unknown<function>()(env, nullptr, session, source, result, error);
}
template <auto function>
jint performed(jint) {
  return unknown<function>()(env, nullptr, session, arrayReport, selector, threeReports, 3, result,
                             error);
}
template <auto function, jobject* report>
jint setUp(jint) {
  return unknown<function>()(env, nullptr, session, *report, error);
}
template <auto function>
jint loggedIn(jint) {
  return unknown<function>()(env, nullptr, serverName, nullptr, userName, password, nullptr,
                             nullptr, error);
}
template <auto function>
jint bytes(jint n) {
  return unknown<function>()(env, nullptr, session, arrayReport, 1, n, manyBytes, error);
}
template <auto function>
jint objs(jint n) {
  return unknown<function>()(env, nullptr, session, arrayReport, 1, n, manyReports, error);
}
template <auto function>
jint oopsOf(jint n) {
  return unknown<function>()(env, nullptr, session, manyLongs, n, error);
}
template <auto function>
jint tested(jint) {
  return unknown<function>()(env, nullptr, session, arrayReport, stringReport, error);
}

constexpr RunFType getObjs = objs<NATIVE(getObjs)>;
constexpr RunFType putObjs = objs<NATIVE(putObjs)>;
constexpr RunFType releaseOops = oopsOf<NATIVE(releaseOops)>;
constexpr RunFType changedOops = oopsOf<NATIVE(changedOops)>;

const Case cases[] = {
    {"executeStr", 1, executed<NATIVE(executeStr)>, executed<executeStrFloor>},
    {"perform/3", 1, performed<NATIVE(perform)>, performed<performFloor>},
    {"setup/integer", 1, setUp<NATIVE(setup), &integerReport>,
     setUp<setupIntegerFloor, &integerReport>},
    {"setup/string200", 1, setUp<NATIVE(setup), &stringReport>,
     setUp<setupStringFloor, &stringReport>},
    {"setup/array50", 1, setUp<NATIVE(setup), &arrayReport>, setUp<setupArrayFloor, &arrayReport>},
    {"login", 1, loggedIn<NATIVE(login)>, loggedIn<loginFloor>},
    {"getBytes", 64, bytes<NATIVE(getBytes)>, bytes<getBytesFloor>},
    {"getBytes", 4096, bytes<NATIVE(getBytes)>, bytes<getBytesFloor>},
    {"getBytes", 1 << 20, bytes<NATIVE(getBytes)>, bytes<getBytesFloor>},
    {"putBytes", 64, bytes<NATIVE(putBytes)>, bytes<putBytesFloor>},
    {"putBytes", 4096, bytes<NATIVE(putBytes)>, bytes<putBytesFloor>},
    {"putBytes", 1 << 20, bytes<NATIVE(putBytes)>, bytes<putBytesFloor>},
    {"getObjs", 1, getObjs, objs<getObjsFloor>},
    {"getObjs", 100, getObjs, objs<getObjsFloor>},
    {"getObjs", 10000, getObjs, objs<getObjsFloor>},
    {"putObjs", 1, putObjs, objs<putObjsFloor>},
    {"putObjs", 100, putObjs, objs<putObjsFloor>},
    {"putObjs", 10000, putObjs, objs<putObjsFloor>},
    {"releaseOops", 1000, releaseOops, oopsOf<releaseOopsFloor>},
    {"changedOops", 1000, changedOops, oopsOf<changedOopsFloor>},
    {"isKindOf", 1, tested<NATIVE(isKindOf)>, tested<isKindOfFloor>},
};

// The thread's own time: a long turn on a busy machine loses the processor now and then.
double threadSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// The stack of each turn lies elsewhere: where the arguments of a call straddle two cache lines, it
// takes a quarter longer.
double secondsOf(RunFType run, jint count, int calls) {
  static unsigned turn = 0;
  benchmark::DoNotOptimize(alloca(16 * (turn++ / 2 * 7 % 64) + 16));
  const jvm::Frame frame(16);
  const double begin = threadSeconds();
  for (int i = 0; i < calls; ++i) benchmark::DoNotOptimize(run(count));
  return threadSeconds() - begin;
}

// Times are per call, or per element where there are several.
void compare(benchmark::State& state, const Case& one, const Case& other, double bound) {
  compareTimed(
      state, [&](int calls) { return secondsOf(one.native, one.count, calls); },
      [&](int calls) { return secondsOf(other.floor, other.count, calls); },
      {.units = static_cast<double>(one.count),
       .otherUnits = static_cast<double>(other.count),
       .bound = bound});
}

// The cost per element of 100,000 against that of 100.
const Case flat[] = {
    {"getObjs", mostObjs, getObjs, getObjs},
    {"putObjs", mostObjs, putObjs, putObjs},
    {"releaseOops", mostObjs, releaseOops, releaseOops},
    {"changedOops", mostObjs, changedOops, changedOops},
};

void registerAll() {
  for (const Case& one : cases) {
    std::string name = one.name;
    if (one.count > 1 || one.native == getObjs || one.native == putObjs) {
      name += "/" + std::to_string(one.count);
    }
    benchmark::RegisterBenchmark(name.c_str(),
                                 [&one](benchmark::State& state) {
                                   manyBytes = env->NewByteArray(one.count);
                                   require(one.native(one.count) == one.floor(one.count), one.name);
                                   compare(state, one, one, 1.10);
                                   env->DeleteLocalRef(manyBytes);
                                 })
        ->UseManualTime()
        ->Iterations(turns);
  }
  for (const Case& large : flat) {
    const std::string name = std::string(large.name) + "/100000_beside_100";
    benchmark::RegisterBenchmark(name.c_str(),
                                 [&large](benchmark::State& state) {
                                   Case small = large;
                                   small.count = 100;
                                   compare(state, large, small, 1.20);
                                 })
        ->UseManualTime()
        ->Iterations(turns);
  }
}

}  // namespace

int main(int argc, char** argv) {
  start();
  registerAll();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
