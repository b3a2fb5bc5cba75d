// The banners of vermsg.h: the programs' own, and the warning of debugging aids.

#include <unistd.h>

#include <cstring>

#include <povzel/errmsg.h>
#include <povzel/hostprocess.h>
#include <povzel/hostsystem.h>
#include <povzel/hosttime.h>
#include <povzel/hostusers.h>
#include <povzel/version.h>
#include "hostunix/internal.h"
#include "internal.h"
#include "messages/internal.h"

namespace {

constexpr const char* noticeLines[] = {
    "Object database interface for Java programs.",
    "All rights reserved.",
};
constexpr const char* furtherNoticeLines[] = {
    "This program is licensed to the owner of this installation.",
    "It may be copied for backup only.",
};

constexpr char debuggingHeading[] = "*** WARNING: DEBUGGING USE ONLY ***";
constexpr const char* debuggingLines[] = {
    "The program that is about to run is a debugging aid. It is to be used only",
    "by the maker's own personnel, and only to find faults. It works below every",
    "check that protects your data, and can damage a database beyond repair.",
    "Any other use of it voids all warranties on the maker's programs that are",
    "affected by it. If you are not sure that you should go on, stop here.",
};
static_assert(sizeof debuggingLines / sizeof debuggingLines[0] == 5);

constexpr char usualDateFormat[] = "%m/%d/%Y %r";
constexpr char nameNotKnown[] = "???";

constexpr std::size_t lineWidth = 75;  // columns between the edges of a framed line

// Writes the text of `symbol` with its arguments in lines that keep their right edge as far as
// their words allow: a line is broken at the last blank that fits, where VerMessage would take the
// next.
template <typename... Arguments>
void infoMessage(FILE* f, const char* symbol, const char* kinds, Arguments... arguments) {
  ErrMsgStrType text;
  ErrMsgSymToText(symbol, text, sizeof text, kinds, arguments...);
  const char* const textEnd = text + std::strlen(text);
  const bool isWide = utlIsWide(text, static_cast<std::size_t>(textEnd - text));
  for (char* line = text;;) {
    const auto left = static_cast<std::size_t>(textEnd - line);
    const std::size_t full = utlBytes(line, left, lineWidth, isWide);
    if (full == left) break;
    void* end = std::memchr(line, '\n', full + 1);
    if (end == nullptr) end = memrchr(line, ' ', full + 1);
    if (end == nullptr) break;
    line = static_cast<char*>(end);
    *line++ = '\n';
  }
  VerMessage(f, text);
}

// The real, effective and login users of the process.
void userMessage(FILE* f) {
  char realName[40];
  const char* name = HostGetUserName();
  if (std::strcmp(name, "FORGED USER") == 0) name = nameNotKnown;
  std::snprintf(realName, sizeof realName, "%s", name);

  const UserEntry effective = hostUserWithId(geteuid());
  char effectiveName[256];
  std::snprintf(effectiveName, sizeof effectiveName, "%s",
                effective ? effective->pw_name : nameNotKnown);

  const long realId = static_cast<long>(getuid());
  const long effectiveId = static_cast<long>(geteuid());
  int loginId = -1;
  char loginName[40];
  if (HostGetLoginUserInfo(&loginId, loginName, sizeof loginName)) {
    infoMessage(f, "version.uids2", "sdsdsd", realName, realId, effectiveName, effectiveId,
                loginName, static_cast<long>(loginId));
  } else {
    infoMessage(f, "version.uids", "sdsd", realName, realId, effectiveName, effectiveId);
  }
}

}  // namespace

void VerBanner(FILE* f, const char* pgmname, const char* pgmdesc, const char* pgmversion,
               BoolType flag) {
  if (pgmname == nullptr) return;
  VerLeadingEdge(f);
  ErrMsgStrType text;
  ErrMsgSymToText("version.name", text, sizeof text, nullptr);
  VerCenteredMessage(f, text);
  for (const char* notice : noticeLines) VerCenteredMessage(f, notice);
  if (flag != 0) {
    for (const char* notice : furtherNoticeLines) VerCenteredMessage(f, notice);
  }
  VerDividerLine(f);
  ErrMsgSymToText(pgmdesc, text, sizeof text, nullptr);
  verCatalogueMessage(f, "version.program", "ss", pgmname, text);
  VerInfo(f, pgmversion);
}

void VerInfo(FILE* f, const char* version) {
  infoMessage(f, "version.version", "s", version != nullptr ? version : VerTVVersion());
  infoMessage(f, "version.builtfor", "s", VerBuildPlatform);

  char system[128];
  HostGetSystemName(system, sizeof system);
  infoMessage(f, "version.runningon", "dss", HostGetCpuCount(), system,
              HostGetSystemInfo()->cpuMisc);

  ZelCTimeStringType date;
  utlCtimeOfNow(&date);
  PidType processId = 0;
  if (HostGetProcessId(&processId)) {
    infoMessage(f, "version.piddate", "ds", static_cast<long>(processId), date.msg);
  } else {
    infoMessage(f, "version.date", "s", date.msg);
  }
  userMessage(f);

  const char* format = HostDateTimeFormat();
  if (std::strcmp(format, usualDateFormat) != 0) {
    infoMessage(f, "version.dateformat", "s", format);
  }
}

void VerBreatheFireAndThunder(FILE* f) {
  VerLeadingEdge(f);
  VerCenteredMessage(f, debuggingHeading);
  VerMessage(f, "");
  for (const char* line : debuggingLines) VerMessage(f, line);
  VerEndEdge(f);
}
