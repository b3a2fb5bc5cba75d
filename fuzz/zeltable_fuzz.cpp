// Drives the embedded database's table with two sessions: texts that build on each other, commits,
// aborts, stores, releases and logouts in any order, in a memory that fills again and again, while
// breaks come and allocations fail. Afterwards both sessions answer, what they kept is there, and
// when they have gone so has all that they made.
#include <cstring>
#include <span>
#include <utility>

#include "objmem/classes.h"
#include "objmem/values.h"
#include "require.h"
#include "table/frame.h"
#include "zel.h"

namespace {

const ZelRtlJumpSType* table = ZelGetRtlTable();
constexpr std::uint64_t stepLimit = 20'000;

// What befalls the next table call, told by the number of its allocations, so that an input does
// the same each time: one of them fails, or all from there on, or a break is made that reaches the
// running program after some steps.
enum class Trouble : std::uint8_t { failure, failures, softBreak, hardBreak, none };
Trouble trouble = Trouble::none;
unsigned allocationsBefore = 0;
std::int32_t stepsBefore = 0;

// Whether this allocation fails.
bool strikes() {
  if (trouble == Trouble::none) return false;
  if (allocationsBefore != 0) return --allocationsBefore, false;
  const Trouble now = trouble;
  if (now == Trouble::failures) return true;
  trouble = Trouble::none;
  if (now == Trouble::failure) return true;
  const ZelUntypedFType slot =
      now == Trouble::softBreak ? table->ZelSoftBreak : table->ZelHardBreak;
  reinterpret_cast<BoolType (*)()>(slot)();
  zel::Session* session = zel::library().database->current;
  if (session == nullptr) return false;
  zel::Meter& meter = session->memory.meter;
  meter.hurry();
  meter.countdown = stepsBefore;
  return false;
}

}  // namespace

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_aligned_alloc(std::size_t alignment, std::size_t size);
void* __wrap_malloc(std::size_t size) {
  return strikes() ? nullptr : __real_malloc(size);
}
void* __wrap_aligned_alloc(std::size_t alignment, std::size_t size) {
  return strikes() ? nullptr : __real_aligned_alloc(alignment, size);
}
}

void* operator new(std::size_t size) {
  void* block = std::malloc(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return std::malloc(size);
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  std::free(block);
}

namespace {

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
    "[x add: 3. [x add: 1] ensure: [x removeLast]] ensure: [x do: [:e | e printString]]",
    "C compile: '= o ^o class == C and: [nil foo. a = o a]'; compile: 'hash x ifNil: [nil foo]. "
    "^7'",
    "d := Dictionary new. 1 to: 40 do: [:i | d at: (C new a: i) put: i]. d printString",
    ("w := WriteStream on: String new. 1 to: 300 do: [:i | w print: i; nextPutAll: 'äbc'; nextPut: "
     "(Character value: i)]. s := w contents. s asSymbol. s at: 7 put: $€. s asDoubleByteString"),
    "Transcript show: s. x asBag. (x collect: [:e | e printString]) asSortedCollection asArray",
    "x := (1 to: 300) asOrderedCollection. x addAll: x; removeFirst; addFirst: #(1 2) copy",
};

struct Party {
  ZelSessionIdType id = 0;
  OopType kept = NilOop;
};
Party parties[2];
Party* party = parties;
OopType both[] = {NilOop, NilOop};
OopType& last = both[0];
OopType& context = both[1];
OopType oops[] = {31, 7, NilOop, 27, 11, 31, 6, 10};
constexpr ByteType bytes[32] = "forty-two";
OopType foundOops[8];
ByteType foundBytes[32];
ZelObjInfoSType info;
ArraySizeType count = 8;

zel::Memory& memory() {
  return zel::library().database->current->memory;
}

// Takes the error that waits, if one does; answers its number.
std::int32_t takeError() {
  ZelErrSType error;
  if (table->ZelErr(&error) == 0) return 0;
  require(error.number > 0 && error.category == zel::SystemErrCategoryOop);
  require(std::memchr(error.message, 0, sizeof error.message) != nullptr);
  require(error.argCount >= 0 && error.argCount <= ZelMaxErrArgs);
  // A call that was given an oop that names nothing may say so.
  for (const OopType oop : std::span(error.args, static_cast<std::size_t>(error.argCount))) {
    require(zel::isImmediate(oop) || memory().find(oop) != nullptr || oop == last ||
            oop == context);
  }
  require(error.context == NilOop || zel::isKindOf(memory(), error.context, zel::ProcessClass));
  context = error.context;
  if (error.argCount > 0) last = error.args[0];
  return error.number;
}

void settle(OopType result) {
  if (takeError() == 0 && result != zel::NoOop) last = result;
}

// Undisturbed and with a sound limit.
OopType execute(const char* text) {
  const std::uint64_t limit = std::exchange(memory().meter.limit, stepLimit);
  const OopType result = table->ZelExecuteStr(text, NilOop);
  memory().meter.limit = limit;
  return result;
}

void logIn() {
  if (table->ZelLogin("SystemUser", "swordfish") == 0) {
    require(trouble != Trouble::none || takeError() == zel::ErrNoMemory);
    trouble = Trouble::none;
    require(table->ZelLogin("SystemUser", "swordfish") != 0);
  }
  trouble = Trouble::none;
  table->ZelDirtyObjsInit();
  *party = {table->ZelGetSessionId(), execute("K := {'kept'. 1.5}")};
  // What others hold may leave no room for it.
  if (party->kept == zel::NoOop) require(takeError() == zel::ErrNoMemory);
  table->ZelSaveObjs(&party->kept, 1);
}

constexpr void (*actions[])(std::uint8_t argument) = {
    [](std::uint8_t which) { table->ZelSetSessionId((party = &parties[which % 2])->id); },
    [](std::uint8_t) { table->ZelSaveObjs(both, 2); },
    [](std::uint8_t) { table->ZelReleaseOops(both, 2); },
    [](std::uint8_t) { settle(table->ZelContinueWith(context, 1, 0, nullptr)); },
    [](std::uint8_t) { settle(table->ZelContinueWith(context, last, 0, nullptr)); },
    [](std::uint8_t) { settle(table->ZelPerform(last, "printString", nullptr, 0)); },
    [](std::uint8_t at) { table->ZelStoreBytesInstanceOf(NilOop, last, at, bytes, at % 32); },
    [](std::uint8_t at) { table->ZelStoreIdxOops(oops[0] = last, at, oops, at % 8); },
    [](std::uint8_t at) { table->ZelFetchObjInfo(last, at, 32, &info, foundBytes, &count); },
    [](std::uint8_t at) { table->ZelFetchVaryingOops(last, at, foundOops, 8); },
    [](std::uint8_t) { table->ZelDirtySaveObjs(foundOops, &(count = 8)); },
    [](std::uint8_t) { reinterpret_cast<BoolType (*)()>(table->ZelCommit)(); },
    [](std::uint8_t) { table->ZelAbort(); },
    [](std::uint8_t) { settle(table->ZelExecute(last, NilOop)); },
    [](std::uint8_t size) { memory().meter.limit = 50U << size % 12; },
    [](std::uint8_t kind) {
      if (kind % 16 != 0) return settle(table->ZelNewOop(last));
      table->ZelLogout();
      if (table->ZelGetSessionId() == 0) logIn();
    },
};

// Forgets what sessions have made common. Answers what is left without any session: objects of the
// store, and bytes of what stands for them.
std::pair<std::uint64_t, std::size_t> withoutSessions() {
  require(table->ZelLogin("SystemUser", "swordfish") != 0);
  execute("#(G C) do: [:name | Globals removeKey: name ifAbsent: [nil]]. System commit");
  require(takeError() == 0);
  table->ZelLogout();
  zel::Repository& repository = *zel::library().database->inMemory;
  repository.tidy(true);
  return {repository.store->statistics().objects, repository.identities.bytes()};
}

// Arms what befalls the next call.
void arm(std::uint8_t kind, std::uint8_t argument) {
  trouble = static_cast<Trouble>(kind % 4);
  const bool breaks = trouble >= Trouble::softBreak;
  allocationsBefore = breaks ? argument % 16U : unsigned{argument} << kind / 4 % 8;
  stepsBefore = argument / 16 << kind / 4 % 12;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  // Opening may fail, too; about once in four times.
  if (data[0] % 4 == 0) {
    trouble = Trouble::failures;
    allocationsBefore = data[0] * 64U;
    if (table->ZelInit() == 0) require(takeError() == zel::ErrNoMemory);
    trouble = Trouble::none;
  }
  require(table->ZelInit() != 0);
  const auto before = withoutSessions();
  zel::library().database->memoryLimit = (4U + data[1] % 8) << 19;
  for (Party& each : parties) {
    party = &each;
    logIn();
  }
  memory().meter.limit = stepLimit;
  zel::library().database->current->machine.mostFrames = 500;
  last = context = NilOop;
  bool disturbed = false;
  for (std::size_t i = 2; i + 1 < size && i < 200; i += 2) {
    if (data[i] >= 64 && data[i] < 128) {
      arm(data[i], data[i + 1]);
      disturbed = true;
      continue;
    }
    if (data[i] >= 128) {
      settle(table->ZelExecuteStr(texts[data[i + 1] % std::size(texts)], NilOop));
    } else {
      actions[data[i] % 16](data[i + 1]);
    }
    trouble = Trouble::none;
    takeError();
    if (std::exchange(disturbed, false)) require(execute("3 + 4") == 31);
  }
  trouble = Trouble::none;
  memory().meter.limit = stepLimit;
  for (Party& each : parties) {
    table->ZelSetSessionId(each.id);
    require(execute("3 + 4") == 31);
    if (each.kept != zel::NoOop) {
      require(execute("K") == each.kept);
      const OopType text = table->ZelPerform(each.kept, "printString", nullptr, 0);
      require(text != zel::NoOop && zel::bytesOf(memory(), text) == "an Array( 'kept' 1.5 )");
    }
    table->ZelLogout();
  }
  require(withoutSessions() == before);
  table->ZelShutdown();
  return 0;
}
