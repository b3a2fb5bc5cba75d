// The natives that begin and end sessions, and describe an object of one.
#include <iterator>

#include "bridge.h"

using namespace bridge;

namespace {

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

}  // namespace

jint Java_com_tarvolin_povzel_PovZelInterface__1login(JNIEnv* env, jclass, jstring jServerName,
                                                      jstring jKellnetName, jstring jUserName,
                                                      jstring jPassword, jstring jHostUserName,
                                                      jstring jHostPassword,
                                                      jthrowable jErrReport) {
  TRACE("login.");
  return runNative(env, jErrReport, [&]() -> jint {
    const LoginArgument arguments[] = {
        {jServerName, "Login:  NULL serverName argument"},
        {jKellnetName, nullptr},
        {jUserName, "Login:  NULL UserName argument"},
        {jPassword, "Login:  NULL password argument"},
        {jHostUserName, nullptr},
        {jHostPassword, nullptr},
    };
    const char* converted[std::size(arguments)];
    for (std::size_t i = 0; i < std::size(arguments); ++i) {
      const jint status = convertArgument(arguments[i], &converted[i], jErrReport);
      if (status != 0) return status;
    }
    const auto [serverName, kellnetName, userName, password, hostUserName, hostPassword] =
        converted;

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
  });
}

jint Java_com_tarvolin_povzel_PovZelInterface__1logout(JNIEnv* env, jclass, jint sessionId,
                                                       jthrowable jErrReport) {
  TRACE("%d:  Logout session.\n", sessionId);
  return runInSession(env, sessionId, jErrReport, [&]() -> jint {
    rtlPrivZelRtlFuncs->ZelLogout();
    if (errorPending(jErrReport)) return -1;
    [[maybe_unused]] const ZelSessionIdType current = rtlPrivZelRtlFuncs->ZelGetSessionId();
    TRACE("     After Logout: Session ID = %d\n", current);
    TRACE("Logout completed.");
    return 0;
  });
}

jint Java_com_tarvolin_povzel_PovZelInterface__1setup(JNIEnv* env, jclass, jint sessionId,
                                                      jobject result, jthrowable jErrReport) {
  return runInSession(env, sessionId, jErrReport, [&]() -> jint {
    if (result == nullptr) return refuse(jErrReport, "setup(): NULL result argument");
    const auto oop = static_cast<OopType>(ENV->GetLongField(result, oopFid));
    return setupReport(oop, result, jErrReport, 1);
  });
}
