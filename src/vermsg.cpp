#include "vermsg.h"

#include <pwd.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "errmsg.h"
#include "hostunix/hostprocess.h"
#include "hostunix/hostsystem.h"
#include "hostunix/hosttime.h"
#include "hostunix/hostusers.h"
#include "utl/utltime.h"
#include "vermsgpriv.h"
#include "version.h"

namespace {

constexpr std::size_t lineWidth = 75;      // characters of text between the edges
constexpr std::size_t breakAfter = 74;     // from here on a blank ends the line
constexpr std::size_t centeredWidth = 74;  // a longer text is not centred

constexpr char blanks[] =
    "                                                                           ";
static_assert(sizeof blanks - 1 == lineWidth);

constexpr char underscores[] =
    "_____________________________________________________________________________";
constexpr char dashes[] =
    "-----------------------------------------------------------------------------";
static_assert(sizeof underscores - 1 == 77 && sizeof dashes - 1 == 77);

void framedLine(FILE* f, const char* text, std::size_t length) {
  fwrite_unlocked("| ", 1, 2, f);
  fwrite_unlocked(text, 1, length, f);
  if (length < lineWidth) fwrite_unlocked(blanks, 1, lineWidth - length, f);
  if (length <= lineWidth) {
    fwrite_unlocked(" |\n", 1, 3, f);
  } else if (length == lineWidth + 1) {
    fwrite_unlocked("|\n", 1, 2, f);
  } else {
    fwrite_unlocked("\n", 1, 1, f);
  }
}

// The first character of `line` that ends it: a new line, a blank late enough, or the terminator.
const char* endOfLine(const char* line) {
  for (const char* next = line;; ++next) {
    if (*next == '\0' || *next == '\n') return next;
    if (*next == ' ' && static_cast<std::size_t>(next - line) >= breakAfter) return next;
  }
}

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

// The real, effective and login users of the process.
void userMessage(FILE* f) {
  char realName[40];
  const char* name = HostGetUserName();
  if (std::strcmp(name, "FORGED USER") == 0) name = nameNotKnown;
  std::snprintf(realName, sizeof realName, "%s", name);

  const struct passwd* effective = getpwuid(geteuid());
  char effectiveName[256];
  std::snprintf(effectiveName, sizeof effectiveName, "%s",
                effective != nullptr ? effective->pw_name : nameNotKnown);

  const long realId = static_cast<long>(getuid());
  const long effectiveId = static_cast<long>(geteuid());
  int loginId = -1;
  char loginName[40];
  if (HostGetLoginUserInfo(&loginId, loginName, sizeof loginName)) {
    catalogueMessage(f, "version.uids2", "sdsdsd", realName, realId, effectiveName, effectiveId,
                     loginName, static_cast<long>(loginId));
  } else {
    catalogueMessage(f, "version.uids", "sdsd", realName, realId, effectiveName, effectiveId);
  }
}

}  // namespace

void VerLeadingEdge(FILE* f) {
  std::fprintf(f, " %s\n", underscores);
}

void VerEndEdge(FILE* f) {
  std::fprintf(f, "|%s|\n", underscores);
  std::fflush(f);
}

void VerDividerLine(FILE* f) {
  std::fprintf(f, "+%s+\n", dashes);
}

void VerMessage(FILE* f, const char* text) {
  flockfile(f);
  for (const char* line = text;;) {
    const char* end = endOfLine(line);
    framedLine(f, line, static_cast<std::size_t>(end - line));
    if (*end == '\0') break;
    line = end + 1;
  }
  funlockfile(f);
}

void VerCenteredMessage(FILE* f, const char* text) {
  const std::size_t length = std::strlen(text);
  if (length > centeredWidth) {
    VerMessage(f, text);
    return;
  }
  char centered[lineWidth + 1];
  std::snprintf(centered, sizeof centered, "%*s%s", static_cast<int>((lineWidth - length) / 2), "",
                text);
  VerMessage(f, centered);
}

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
  catalogueMessage(f, "version.program", "ss", pgmname, text);
  VerInfo(f, pgmversion);
}

void VerInfo(FILE* f, const char* version) {
  catalogueMessage(f, "version.version", "s", version != nullptr ? version : VerTVVersion());
  catalogueMessage(f, "version.builtfor", "s", VerBuildPlatform);

  char system[128];
  HostGetSystemName(system, sizeof system);
  catalogueMessage(f, "version.runningon", "dss", HostGetCpuCount(), system,
                   HostGetSystemInfo()->cpuMisc);

  ZelCTimeStringType date;
  UtlCtime(std::time(nullptr), &date);
  PidType processId = 0;
  if (HostGetProcessId(&processId)) {
    catalogueMessage(f, "version.piddate", "ds", static_cast<long>(processId), date.msg);
  } else {
    catalogueMessage(f, "version.date", "s", date.msg);
  }
  userMessage(f);

  const char* format = HostDateTimeFormat();
  if (std::strcmp(format, usualDateFormat) != 0) {
    catalogueMessage(f, "version.dateformat", "s", format);
  }
}

void VerBreatheFireAndThunder(FILE* f) {
  VerLeadingEdge(f);
  VerCenteredMessage(f, debuggingHeading);
  VerMessage(f, "");
  for (const char* line : debuggingLines) VerMessage(f, line);
  VerEndEdge(f);
}
