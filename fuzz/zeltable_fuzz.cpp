// Drives the embedded database's table with two sessions: texts that build on each other, commits,
// aborts, breaks, stores, releases and logouts in any order, in a memory that fills again and
// again. Every end but a crash, a hang or a leak is a good one.
#include <string>

#include "table/frame.h"
#include "zel.h"

namespace {

const ZelRtlJumpSType* table = ZelGetRtlTable();

constexpr const char* texts[] = {
    "x := OrderedCollection new",
    "1 to: 500 do: [:i | x add: i printString , 'abc'; addFirst: {i. x}]",
    "x removeFirst. x removeLast. x reversed size",
    "s := ''. 1 to: 400 do: [:i | s := s , 'abc'. x add: s]. s at: 1 put: $Q",
    "d := Dictionary new. x do: [:e | d at: e put: e]. d removeKey: 'abc'",
    "Globals at: #G put: x",
    "G add: [:k | ^k]. (G at: G size) value: 3",
    "Object subclass: 'C' instVarNames: #(a b). C compile: 'a: x a := x. b := {a. b}'",
    "c := C new. 1 to: 100 do: [:i | c a: i]. c",
    "[nil foo] on: Error do: [:e | e signal: 'again']",
    "[x add: (String new: 5000)] repeat",
    "[[x add: {1}] repeat] on: Error do: [:e | e messageText]",
    "[[x add: {1}] repeat] ensure: [x removeFirst. [nil foo] ensure: [x add: [:k | ^k]]]",
    ("[[nil foo: x] ensure: [^x size foo]] on: Error do: [:e | [e retryUsing: [x last value: e]] "
     "ifCurtailed: [e pass. e resume: 3]]"),
    "System suspend: x",
    "f := nil. f := [:n | n = 0 ifTrue: [0] ifFalse: [(f value: n - 1) + 1.5]]. f value: 300",
    "x asSet = x asSet. x = x copy",
    "x sort: [:p :q | p size <= q size]",
    "x := nil. d := nil. s := nil. System collectGarbage",
    "nil perform: #perform:with: with: #yourself",
    "C compile: 'bad ^'",
    "System commit",
    "System abort",
    ("blocks := (1 to: 20) collect: [:i | | t | t := i * 0.5. [t := t * 2.0 + 1.0]]. "
     "blocks do: [:b | b value]"),
};

OopType last = NilOop;
OopType context = NilOop;

void settle(OopType result) {
  ZelErrSType error;
  if (table->ZelErr(&error) != 0) {
    context = error.context;
    if (error.argCount > 0) last = error.args[0];
  } else if (result != zel::NoOop) {
    last = result;
  }
}

void act(std::uint8_t action, std::uint8_t argument) {
  const OopType both[] = {last, context};
  ByteType bytes[32] = "forty-two";
  OopType oops[8] = {last, 7, NilOop, last, 11, 31, last, 10};
  ZelObjInfoSType info;
  ArraySizeType count = 8;
  switch (action % 16) {
    case 0:
      return table->ZelSetSessionId(1 + argument % 2);
    case 1:
      return table->ZelSaveObjs(both, 2);
    case 2:
      return table->ZelReleaseOops(both, 2);
    case 3:
      return settle(table->ZelContinueWith(context, 1, 0, nullptr));
    case 4:
      return settle(table->ZelContinueWith(context, last, 0, nullptr));
    case 5:
      return settle(table->ZelPerform(last, "printString", nullptr, 0));
    case 6:
      return table->ZelStoreBytesInstanceOf(NilOop, last, argument, bytes, argument % 32);
    case 7:
      return table->ZelStoreIdxOops(last, argument, oops, argument % 8);
    case 8:
      table->ZelFetchObjInfo(last, argument, sizeof bytes, &info, bytes, &count);
      return;
    case 9:
      table->ZelFetchVaryingOops(last, argument, oops, 8);
      return;
    case 10:
      table->ZelDirtySaveObjs(oops, &count);
      return;
    case 11:
      reinterpret_cast<BoolType (*)()>(table->ZelCommit)();
      return;
    case 12:
      return table->ZelAbort();
    case 13:
      zel::library().database->memory.setLimit((3U + argument % 8) << 19);
      return;
    case 14:
      zel::library().database->memory.meter.limit = 50U << argument % 12;
      return;
    default:
      if (argument % 16 != 0) return settle(table->ZelNewOop(last));
      table->ZelLogout();
      table->ZelLogin("SystemUser", "swordfish");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  table->ZelInit();
  for (int i = 0; i < 2; ++i) {
    table->ZelLogin("SystemUser", "swordfish");
    table->ZelDirtyObjsInit();
  }
  zel::Database& database = *zel::library().database;
  database.memory.setLimit(4U << 20);
  database.memory.meter.limit = 20'000;
  database.machine.mostFrames = 500;
  last = context = NilOop;
  for (std::size_t i = 0; i + 1 < size && i < 200; i += 2) {
    if (data[i] >= 128) {
      settle(table->ZelExecuteStr(texts[data[i + 1] % std::size(texts)], NilOop));
    } else {
      act(data[i], data[i + 1]);
    }
  }
  table->ZelShutdown();
  return 0;
}
