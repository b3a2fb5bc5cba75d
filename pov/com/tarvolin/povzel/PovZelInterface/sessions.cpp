// The natives that begin and end sessions, and describe an object of one.
#include "frame.h"

namespace bridge {
namespace {

constexpr int loginArguments = 6;

struct LoginArgument {
  jstring text;
  const char* nullMessage;  // null if the argument is optional
};

// Converts a login argument. An optional one that is null stays null.
jint convertArgument(const LoginArgument& argument, const char** converted, jobject jErrReport) {
  *converted = nullptr;
  if (argument.text == nullptr) {
    return argument.nullMessage == nullptr ? 0 : refuse(jErrReport, "%s", argument.nullMessage);
  }
  *converted = sbString(argument.text);
  return *converted != nullptr ? 0 : allocationFailure();
}

jint login(const LoginArgument (&arguments)[loginArguments], jobject jErrReport) {
  const char* converted[loginArguments];
  for (int i = 0; i < loginArguments; ++i) {
    const jint status = convertArgument(arguments[i], &converted[i], jErrReport);
    if (status != 0) return status;
  }
  const auto [serverName, kellnetName, userName, password, hostUserName, hostPassword] = converted;

  TRACE("     Connect: server = %s user = %s pass = %s\n", serverName, userName, password);
  TRACE("     Ready to ZelSetNet..");
  rtlPrivZelRtlFuncs->ZelSetNet(serverName, hostUserName, hostPassword, kellnetName);
  if (errorPending(jErrReport)) return -1;

  TRACE("     Ready to ZelLogin..");
  if (rtlPrivZelRtlFuncs->ZelLogin(userName, password) == 0) {
    if (errorPending(jErrReport)) return -1;
    return refuse(jErrReport, "ZelLogin failure: cause unknown");
  }
  TRACE("     Zel_Login OK!");
  const ZelSessionIdType sessionId = rtlPrivZelRtlFuncs->ZelGetSessionId();
  if (errorPending(jErrReport)) return -1;

  TRACE("     Setting up dirty object tracking..");
  rtlPrivZelRtlFuncs->ZelDirtyObjsInit();
  if (errorPending(jErrReport)) return -1;
  TRACE("Login completed session = %d.\n", sessionId);
  return sessionId;
}

jint logout(jobject jErrReport) {
  rtlPrivZelRtlFuncs->ZelLogout();
  if (errorPending(jErrReport)) return -1;
  [[maybe_unused]] const ZelSessionIdType current = rtlPrivZelRtlFuncs->ZelGetSessionId();
  TRACE("     After Logout: Session ID = %d\n", current);
  return 0;
}

jint setup(jobject result, jobject jErrReport) {
  if (result == nullptr) return refuse(jErrReport, "setup(): NULL result argument");
  const auto oop = static_cast<OopType>(ENV->GetLongField(result, oopFid));
  return describeResult(oop, result, jErrReport);
}

}  // namespace
}  // namespace bridge

jint Java_com_tarvolin_povzel_PovZelInterface__1login(JNIEnv* env, jclass, jstring jServerName,
                                                      jstring jKellnetName, jstring jUserName,
                                                      jstring jPassword, jstring jHostUserName,
                                                      jstring jHostPassword,
                                                      jthrowable jErrReport) {
  TRACE("login.");
  return bridge::runNative(nullptr, env, jErrReport, [&] {
    return bridge::login({{jServerName, "Login:  NULL serverName argument"},
                          {jKellnetName, nullptr},
                          {jUserName, "Login:  NULL UserName argument"},
                          {jPassword, "Login:  NULL password argument"},
                          {jHostUserName, nullptr},
                          {jHostPassword, nullptr}},
                         jErrReport);
  });
}

jint Java_com_tarvolin_povzel_PovZelInterface__1logout(JNIEnv* env, jclass, jint sessionId,
                                                       jthrowable jErrReport) {
  return bridge::runInSession({"  Logout session.", "Logout"}, env, sessionId, jErrReport,
                              [&] { return bridge::logout(jErrReport); });
}

jint Java_com_tarvolin_povzel_PovZelInterface__1setup(JNIEnv* env, jclass, jint sessionId,
                                                      jobject result, jthrowable jErrReport) {
  return bridge::runInSession({}, env, sessionId, jErrReport,
                              [&] { return bridge::setup(result, jErrReport); });
}
