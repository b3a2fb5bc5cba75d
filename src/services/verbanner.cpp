// The banners of vermsg.h: the programs' own, and the warning of debugging aids.

#include <unistd.h>

#include <cstring>
#include <string_view>

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
template <typename Write, typename... Arguments>
void infoMessage(Write write, const char* symbol, const char* kinds, Arguments... arguments) {
  ErrMsgStrType text;
  ErrMsgSymToText(symbol, text, sizeof text, kinds, arguments...);
  const char* const textEnd = text + std::strlen(text);
  const bool isWide = utlIsWide(text, static_cast<std::size_t>(textEnd - text));
  for (char* line = text;;) {
    const auto left = static_cast<std::size_t>(textEnd - line);
    const std::size_t full = utlBytes(line, left, lineWidth, isWide);
    if (full == left) break;
    const std::string_view fitting(line, full + 1);
    std::size_t end = fitting.find('\n');
    if (end == fitting.npos) end = fitting.rfind(' ');
    if (end == fitting.npos) break;
    line += end;
    *line++ = '\n';
  }
  write(text);
}

// The lines of the block, in their order, and before each what is asked for it: that may itself say
// something.

void findSystem(VerInfoFacts& facts) {
  facts.cpuCount = HostGetCpuCount();
  HostGetSystemName(facts.system, sizeof facts.system);
  facts.cpuKind = HostGetSystemInfo()->cpuMisc;
}

template <typename Write>
void systemMessages(Write write, const VerInfoFacts& facts, const char* version) {
  infoMessage(write, "version.version", "s", version != nullptr ? version : VerTVVersion());
  infoMessage(write, "version.builtfor", "s", VerBuildPlatform);
  infoMessage(write, "version.runningon", "dss", facts.cpuCount, facts.system, facts.cpuKind);
}

void findDate(VerInfoFacts& facts) {
  utlCtimeOfNow(&facts.date);
  facts.dateFormat = HostDateTimeFormat();
}

template <typename Write>
void dateMessage(Write write, const VerInfoFacts& facts) {
  PidType processId = 0;
  if (HostGetProcessId(&processId)) {
    infoMessage(write, "version.piddate", "ds", static_cast<long>(processId), facts.date.msg);
  } else {
    infoMessage(write, "version.date", "s", facts.date.msg);
  }
}

void findUserName(uid_t uid, char* name, std::size_t size) {
  const UserEntry entry = hostUserWithId(uid);
  std::snprintf(name, size, "%s", entry ? entry->pw_name : nameNotKnown);
}

void findUsers(VerInfoFacts& facts, uid_t realId, uid_t effectiveId) {
  facts.realId = realId;
  facts.effectiveId = effectiveId;
  if (realId == getuid()) {
    const char* name = HostGetUserName();
    if (std::strcmp(name, "FORGED USER") == 0) name = nameNotKnown;
    std::snprintf(facts.realName, sizeof facts.realName, "%s", name);
  } else {
    findUserName(realId, facts.realName, sizeof facts.realName);
  }
  findUserName(effectiveId, facts.effectiveName, sizeof facts.effectiveName);
  facts.hasLoginUser =
      HostGetLoginUserInfo(&facts.loginId, facts.loginName, sizeof facts.loginName) != 0;
}

// The real, effective and login users of the process, and the date's format if it is not the usual.
template <typename Write>
void userMessages(Write write, const VerInfoFacts& facts) {
  const long realId = static_cast<long>(facts.realId);
  const long effectiveId = static_cast<long>(facts.effectiveId);
  if (facts.hasLoginUser) {
    infoMessage(write, "version.uids2", "sdsdsd", facts.realName, realId, facts.effectiveName,
                effectiveId, facts.loginName, static_cast<long>(facts.loginId));
  } else {
    infoMessage(write, "version.uids", "sdsd", facts.realName, realId, facts.effectiveName,
                effectiveId);
  }
  if (std::strcmp(facts.dateFormat, usualDateFormat) != 0) {
    infoMessage(write, "version.dateformat", "s", facts.dateFormat);
  }
}

}  // namespace

void verFindInfo(VerInfoFacts& facts, uid_t realId, uid_t effectiveId) {
  findSystem(facts);
  findDate(facts);
  findUsers(facts, realId, effectiveId);
}

void verSafeInfo(int descriptor, const VerInfoFacts& facts) {
  const auto write = [&](const char* text) { verSafeMessage(descriptor, text); };
  systemMessages(write, facts, nullptr);
  dateMessage(write, facts);
  userMessages(write, facts);
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
  verCatalogueMessage(f, "version.program", "ss", pgmname, text);
  VerInfo(f, pgmversion);
}

void VerInfo(FILE* f, const char* version) {
  const auto write = [&](const char* text) { VerMessage(f, text); };
  VerInfoFacts facts;
  findSystem(facts);
  systemMessages(write, facts, version);
  findDate(facts);
  dateMessage(write, facts);
  findUsers(facts, getuid(), geteuid());
  userMessages(write, facts);
}

void VerBreatheFireAndThunder(FILE* f) {
  VerLeadingEdge(f);
  VerCenteredMessage(f, debuggingHeading);
  VerMessage(f, "");
  for (const char* line : debuggingLines) VerMessage(f, line);
  VerEndEdge(f);
}
