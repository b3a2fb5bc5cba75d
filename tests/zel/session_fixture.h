// A test with a session of its own in a fresh database.
#pragma once

#include <regex>

#include "objmem/values.h"
#include "table/frame.h"
#include "tests.h"
#include "zel.h"

class ZelSession : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(0, zel->ZelInit());
    ASSERT_NE(0, zel->ZelLogin("SystemUser", "swordfish"));
    zel->ZelDirtyObjsInit();
  }
  void TearDown() override { zel->ZelShutdown(); }

  ::zel::Session& session() { return *::zel::library().database->current; }

  OopType run(const std::string& source) { return zel->ZelExecuteStr(source.c_str(), NilOop); }

  // What the result says of itself, or "error NUMBER" with the message, but not where it happened.
  std::string show(const std::string& source) { return shown(run(source)); }
  std::string shown(OopType oop) {
    static const std::regex place(R"( \([^()]*line \d+, column \d+\)$)");
    return std::regex_replace(told(oop), place, "");
  }
  // The same with the place.
  std::string told(OopType oop) {
    if (std::string failure = takeError(); !failure.empty()) return failure;
    const OopType text = zel->ZelPerform(oop, "printString", nullptr, 0);
    if (std::string failure = takeError(); !failure.empty()) return failure;
    return std::string(::zel::bytesOf(session().memory, text));
  }

  // The pending error as text, empty if there is none; its record stays in `error`.
  std::string takeError() {
    if (zel->ZelErr(&error) == 0) return "";
    return "error " + std::to_string(error.number) + ": " + error.message;
  }

  // The pending error's number, 0 if there is none.
  int errorNumber() { return zel->ZelErr(&error) != 0 ? error.number : 0; }

  const ZelRtlJumpSType* zel = ZelGetRtlTable();
  ZelErrSType error{};
};
