// _initialize: the one way into the bridge.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "frame.h"

namespace bridge {
namespace {

constexpr jint initialized = 32;
constexpr unsigned leastPreloadBytes = 16;
constexpr char oldestVersion[] = "6.3";
constexpr char newestVersion[] = "9.9.999";
constexpr int acceptedProduct = 1;
constexpr const char* productTexts[] = {"", "TV/A", "TV/BB", "TV/CC"};

void traceStart() {
  TRACE("Initialize.");
  TRACE("SIZEOF long = %d\n", static_cast<int>(sizeof(long)));
  TRACE("SiZEOF int = %d\n", static_cast<int>(sizeof(int)));
  TRACE("SIZEOF OopType = %d\n", static_cast<int>(sizeof(OopType)));
  TRACE("SIZEOF jlong = %d\n", static_cast<int>(sizeof(jlong)));
  TRACE("SizeOF jint   = %d\n", static_cast<int>(sizeof(jint)));
  TRACE("SIZEOF jint = %d\n", static_cast<int>(sizeof(jint)));
  TRACE("SizeOF jlong   = %d\n", static_cast<int>(sizeof(jlong)));
}

// Sizes below the least are raised, but a negative one is kept: compared as unsigned it is large.
void setPreloadSize(jint preloadSize) {
  const bool small = static_cast<unsigned>(preloadSize) < leastPreloadBytes;
  PreloadSizeBytes = small ? static_cast<jint>(leastPreloadBytes) : preloadSize;
  PreloadSizeOops = PreloadSizeBytes / 4;
  TRACE("Initialize:  PreloadSize = %d/%d\n", PreloadSizeBytes, PreloadSizeOops);
}

// Looks up the fields of one class. A class that is missing is reported as `classMissing`.
template <std::size_t count>
jint findFields(const char* className, const Field (&fields)[count], const char* classMissing,
                jobject jErrReport) {
  jclass cls = ENV->FindClass(className);
  if (cls == nullptr) {
    ENV->ExceptionClear();
    return refuse(jErrReport, "%s", classMissing);
  }
  const Field* unknown = nullptr;
  for (const Field& field : fields) {
    TRACE("JNI/Initialize:  Setting up FID %s\n", field.name);
    *field.id = ENV->GetFieldID(cls, field.name, field.signature);
    if (*field.id == nullptr) {
      ENV->ExceptionClear();
      unknown = &field;
      break;
    }
  }
  ENV->DeleteLocalRef(cls);
  if (unknown == nullptr) return 0;
  char message[100];
  std::snprintf(message, sizeof message, "JNI/Initialize: Field setup error on %s", unknown->name);
  return refuse(jErrReport, "%s", message);
}

jint loadLibrary(jint useLinked, jobject jErrReport) {
  TRACE("     Ready to ZelRtlLoad: useLinked = %d\n", useLinked);
  char reason[256] = "";
  if (ZelRtlLoad(useLinked == 0 ? 1 : 0, nullptr, reason, sizeof reason) != 0) return 0;
  if (zelError(jErrReport) != 0) return -1;
  char message[300];
  std::snprintf(message, sizeof message, "ZelRtlLoad failure: %s", reason);
  TRACE("     %s", message);
  return refuse(jErrReport, "%s", message);
}

// A product code that has no text prints as an empty one, a missing version likewise.
jint checkProduct(jobject jErrReport) {
  const unsigned char product = rtlPrivZelRtlFuncs->ZelProduct();
  const char* version = rtlPrivZelRtlFuncs->ZelVersion();
  if (version == nullptr) version = "";
  std::printf("[Info] libpovzel: TV/ZEL Product = %s\n",
              product < std::size(productTexts) ? productTexts[product] : "");
  std::printf("[Info] libpovzel: TV/ZEL Version = %s\n", version);
  if (product != acceptedProduct) {
    return refuse(jErrReport, "Incorrect version of libpovzel loaded: wrong TV product");
  }
  if (std::strcmp(version, oldestVersion) < 0 || std::strcmp(version, newestVersion) > 0) {
    return refuse(jErrReport, "Incorrect version of libpovzel: built for %s, running on %s",
                  oldestVersion, version);
  }
  return 0;
}

jint giveAppName(jstring jAppName) {
  if (jAppName == nullptr) return 0;
  const char* appName = sbString(jAppName);
  if (appName == nullptr) return allocationFailure();
  TRACE("     Ready to ZelInitAppName: %s\n", appName);
  rtlPrivZelRtlFuncs->ZelInitAppName(appName, 1);
  return 0;
}

jint startLibrary(jobject jErrReport) {
  TRACE("     Ready to ZelInit..");
  if (rtlPrivZelRtlFuncs->ZelInit() != 0) return 0;
  if (zelError(jErrReport) != 0) return -1;
  return refuse(jErrReport, "ZelInit failure");
}

template <typename Item>
bool allocate(Item** buffer, jint items) {
  const std::uint64_t bytes = sizeof(Item) * static_cast<std::uint64_t>(items);
  if (bytes > SIZE_MAX) return false;
  *buffer = static_cast<Item*>(std::malloc(static_cast<std::size_t>(bytes)));
  return *buffer != nullptr;
}

// The size variables keep what the caller asked for, and bound the transfers. The buffers are made
// large enough for a preload and for one oop even if that is less, or negative.
jint setupBuffers(jint bufSize, jobject jErrReport) {
  TRACE("     Ready to setup buffers");
  BufSizeBytes = bufSize;
  BufSizeOops = bufSize / 4;
  TRACE("Initialize: MaxBufferSize = %d/%d\n", BufSizeBytes, BufSizeOops);
  constexpr jint leastBytes = leastPreloadBytes;
  constexpr jint leastLongs = ZelMaxErrArgs;
  if (!allocate(&byteBuf, std::max({BufSizeBytes, PreloadSizeBytes, leastBytes}))) {
    return refuse(jErrReport, "Problem allocating byte buffer in initialize()");
  }
  if (!allocate(&oopBuf, std::max(BufSizeOops, 1))) {
    return refuse(jErrReport, "Problem allocating oop buffer in initialize()");
  }
  if (!allocate(&longBuf, std::max({BufSizeOops, PreloadSizeOops, leastLongs}))) {
    return refuse(jErrReport, "Problem allocating long buffer in initialize()");
  }
  return 0;
}

// Everything that can fail. Returns 0 once the bridge is ready.
jint prepare(jint useLinked, jstring jAppName, jint bufSize, jint preloadSize, jobject jErrReport) {
  if (preloadSize > bufSize) return refuse(jErrReport, "preloadSize exceeds bufSize");
  setPreloadSize(preloadSize);
  jint status = findFields(reportClass, reportFields, "JNI: Can't find PovZelReport", jErrReport);
  if (status == 0) {
    status =
        findFields(exceptionClass, exceptionFields, "JNI: Can't find PovZelException", jErrReport);
  }
  if (status == 0) status = loadLibrary(useLinked, jErrReport);
  if (status == 0) status = checkProduct(jErrReport);
  if (status == 0) status = giveAppName(jAppName);
  if (status == 0) status = startLibrary(jErrReport);
  if (status == 0) status = setupBuffers(bufSize, jErrReport);
  return status;
}

jint initialize(JNIEnv* env, jint useLinked, jstring jAppName, jint bufSize, jint preloadSize,
                jobject jErrReport) {
  if (PovZelInitialized == 1) {
    TRACE("Already initialized.");
    return initialized;
  }
  ENV = env;
  const jint status = prepare(useLinked, jAppName, bufSize, preloadSize, jErrReport);
  if (status != 0) return status;
  PovZelInitialized = 1;
  std::puts("[Info] libpovzel30 initialization completed.");
  return initialized;
}

}  // namespace
}  // namespace bridge

jint Java_com_tarvolin_povzel_PovZelInterface__1initialize(JNIEnv* env, jclass, jint useLinked,
                                                           jstring jAppName, jint bufSize,
                                                           jint preloadSize, jint debugFlag,
                                                           jthrowable jErrReport) {
  std::puts("[Info] libpovzel30 initializing.");
  if (debugFlag >= 1) bridge::Debug = 1;
  bridge::traceStart();
  return bridge::leave(
      bridge::initialize(env, useLinked, jAppName, bufSize, preloadSize, jErrReport));
}
