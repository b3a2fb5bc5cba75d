// What sessions see of each other, what commits, and what conflicts.
#include <map>
#include <random>

#include "histories.h"
#include "session_fixture.h"

namespace {

// Fails in its so manyeth call from now on, or does something else; never while that is 0.
class FailingStore : public ::zel::Store {
 public:
  explicit FailingStore(std::unique_ptr<::zel::Store> kept) : kept_(std::move(kept)) {}
  int left = 0;
  bool isUnknown = false;  // what becomes of commits
  std::function<void()> instead;

  ::zel::Version lease() override { return called().lease(); }
  void giveUp(::zel::Version version) noexcept override { kept_->giveUp(version); }
  void read(::zel::Version at, std::span<const ::zel::ObjectId> ids,
            const ::zel::TakeRow& take) override {
    called().read(at, ids, take);
  }
  void scan(::zel::Version at, ::zel::ObjectId first, ::zel::ObjectId end,
            const ::zel::TakeRow& take) override {
    called().scan(at, first, end, take);
  }
  std::vector<::zel::Place> changedSince(::zel::Version from, ::zel::Version to) override {
    return called().changedSince(from, to);
  }
  ::zel::ObjectId newIds(std::uint32_t count) override { return called().newIds(count); }
  ::zel::Outcome commit(const ::zel::Changes& changes) override {
    const ::zel::Outcome outcome = called().commit(changes);
    if (isUnknown) throw ::zel::Failure(::zel::ErrOutcomeUnknown, "unknown");
    return outcome;
  }
  ::zel::StoreStatistics statistics() override { return called().statistics(); }
  void backUp(const std::string& file, const ::zel::Progress& progress) override {
    called().backUp(file, progress);
  }

 private:
  ::zel::Store& called() {
    if (left != 0 && --left == 0) {
      if (!instead) throw ::zel::Failure(::zel::ErrStoreBusy, "failed");
      instead();
    }
    return *kept_;
  }
  std::unique_ptr<::zel::Store> kept_;
};

class Transactions : public ZelSession {
 protected:
  void SetUp() override {
    ZelSession::SetUp();
    login('A');
  }

  void login(char name) {
    if (name == 'A') {
      ids[name] = zel->ZelGetSessionId();
      return;
    }
    ASSERT_NE(0, zel->ZelLogin("DataCurator", "swordfish"));
    ids[name] = zel->ZelGetSessionId();
  }

  std::string in(char name, const std::string& source) {
    if (!ids.contains(name)) login(name);
    zel->ZelSetSessionId(ids[name]);
    return show(source);
  }

  // Carries a conversation out: lines of a session's letter and a text, with what it answers behind
  // ==>, where that is to be compared; `ok` and `no` are a commit that succeeds or conflicts.
  void play(const std::string& conversation) {
    std::istringstream lines(conversation);
    for (std::string line; std::getline(lines, line);) {
      const std::size_t first = line.find_first_not_of(' ');
      if (first == std::string::npos) continue;
      const std::size_t arrow = line.find(" ==> ");
      std::string text = line.substr(first + 2, arrow - first - 2);
      std::string expected = arrow != std::string::npos ? line.substr(arrow + 5) : "";
      if (text == "ok" || text == "no") {
        expected = text == "ok" ? "true"
                                : "error 2513: another session has changed what this "
                                  "transaction has read or written: abort, and do it again";
        text = "System commit";
      }
      const std::string answer = in(line[first], text);
      if (expected.empty() && answer.starts_with("error")) expected = "no error";
      if (!expected.empty()) {
        EXPECT_EQ(expected, answer) << line << "\nin\n" << conversation;
      }
    }
    for (const auto& [name, id] : ids) in(name, "System abort. nil");
  }

  std::map<char, ZelSessionIdType> ids;
};

TEST_F(Transactions, SeeCommittedStatesWhole) {
  play(R"(A Globals at: #X put: (Array with: 1 with: 'one')
          A Object subclass: #Mine instVarNames: #(v)
          A Mine compile: 'v ^v'. Mine compile: 'v: x v := x'. Mine compileClassMethod: 'two ^2'
          A Integer compile: 'twice ^self + self'
          B Globals includesKey: #X ==> false
          B Mine ==> error 2189: Mine is not defined
          B 4 twice ==> error 2010: a SmallInteger does not understand #twice
          A ok
          B X ==> error 2189: X is not defined
          B System abort
          B X ==> an Array( 1 'one' )
          B {Mine new v: 3; v. Mine two. 4 twice} ==> an Array( 3 2 8 )
          B X at: 1 put: 2
          B Integer compile: 'twice ^self * 2 + 1'. 4 twice ==> 9
          A {X at: 1. 4 twice} ==> an Array( 1 8 )
          B System abort. {X at: 1. 4 twice} ==> an Array( 1 8 ))");
  play(R"(A Globals at: #O put: OrderedCollection new
          A ok
          B O add: 3; add: 4
          A O asArray ==> an Array( )
          B ok
          A O asArray ==> an Array( )
          A System refresh
          A O asArray ==> an Array( 3 4 ))");
  // New objects keep their contents; nothing refers to them in the store.
  play(R"(A x := OrderedCollection new. x add: 1. System abort. x asArray ==> an Array( 1 )
          A Globals at: #N put: x. System abort. Globals includesKey: #N ==> false
          A x add: 2. Globals at: #N put: x
          A ok
          B N asArray ==> an Array( 1 2 )
          A x add: 3. System abort. N asArray ==> an Array( 1 2 )
          A x == N ==> true)");
}

TEST_F(Transactions, ConflictsAreWhatWasReadOrWritten) {
  in('A',
     "p := Array new: 3. Globals at: #P put: p; at: #P0 put: p; at: #Q put: (Array new: 3); at: #D "
     "put: Dictionary "
     "new; at: #S put: Set new; at: #I put: IdentitySet new; at: #B put: Bag new. D at: 0 put: "
     "0. Object subclass: #C. System commit");
  struct Row {
    const char* first;   // in A, which commits first
    const char* second;  // in B
    bool conflicts;
  };
  const Row rows[] = {
      {"P at: 1 put: 5", "P at: 1 put: 6", true},
      {"P at: 1 put: 5", "P at: 2 put: 6", true},
      {"P at: 1 put: 5", "Q at: 2 put: 6", false},
      {"P at: 1 put: 5", "Q at: 2 put: (P at: 3)", true},
      {"P at: 1 put: 5", "Q at: 2 put: P", false},
      {"P at: 1 put: 5", "P at: 1", false},
      {"P at: 1 put: 5", "Q at: 1 put: P copy", true},
      {"P at: 1 put: 5", "Q at: 1 put: P printString", true},
      {"P at: 1 put: 5", "Q at: 1 put: P = Q", true},
      {"D at: 1 put: 1", "D at: 2 put: 1", false},
      {"D at: 1 put: 1", "D at: 1 put: 1", true},
      {"D at: 1 put: 1", "D at: 1.0 put: 1", true},
      {"D at: 'a' put: 1", "D at: #a put: 1", true},
      {"D at: 1 put: 1", "Q at: 1 put: (D at: 1 ifAbsent: [0])", true},
      {"D at: 1 put: 1", "Q at: 1 put: (D at: 2 ifAbsent: [0])", false},
      {"D at: 1 put: 1", "Q at: 1 put: (D includesKey: 1)", true},
      {"D at: 1 put: 1", "Q at: 1 put: D size", true},
      {"D at: 1 put: 1", "Q at: 1 put: D keys", true},
      {"D at: 1 put: 1", "Q at: 1 put: D values", true},
      {"D at: 1 put: 1", "Q at: 1 put: D isEmpty", true},
      {"D at: 1 put: 1", "D keysAndValuesDo: [:k :v | Q at: 1 put: v]", true},
      {"D at: 1 put: 1", "Q at: 1 put: D printString", true},
      {"D at: 1 put: 1", "Q at: 1 put: D copy", true},
      {"D at: 1 put: 1", "Q at: 1 put: D = Q", false},
      {"D at: 1 put: 1", "Q at: 1 put: D = Dictionary new", true},
      {"D at: 1 put: 1", "Q at: 1 put: D hash", true},
      {"D removeKey: 0", "D at: 0 put: 4", true},
      {"D removeKey: 0", "D at: 5 put: 4", false},
      {"S add: 1", "S add: 2", false},
      {"S add: 1", "S add: 1", true},
      {"S add: 1", "Q at: 1 put: (S includes: 1)", true},
      {"S add: 1", "Q at: 1 put: (S includes: 3)", false},
      {"S add: 1", "S do: [:e | Q at: 1 put: e]. Q at: 2 put: 1", true},
      {"S add: 1", "Q at: 1 put: S asArray", true},
      {"S add: 1", "Q at: 1 put: (S select: [:e | false])", true},
      {"I add: P", "I add: Q", false},
      {"I add: P", "I add: P", true},
      {"Globals at: #G1 put: 1", "Globals at: #G2 put: 1", false},
      {"Globals at: #G1 put: 1", "Globals at: #G1 put: 1", true},
      {"Globals at: #P put: Q", "Q at: 1 put: (P at: 1)", false},  // a text's global is code
      {"Globals at: #G3 put: 1", "Q at: 1 put: (Globals includesKey: #G3)", true},
      {"C compile: 'a ^1'", "C compile: 'b ^1'", false},
      {"C compile: 'a ^1'", "C compile: 'a ^2'", true},
      {"C compile: 'a ^1'", "Q at: 1 put: C new printString", false},
      {"Object compile: 'a ^1'", "Object compile: 'b ^1'", false},
      {"Object subclass: #E1", "Object subclass: #E2", false},
      {"Object subclass: #E1", "Object subclass: #E1", true},
  };
  for (const Row& row : rows) {
    for (const char name : {'A', 'B'}) in(name, "System abort");
    in('A',
       "P at: 1 put: nil. Q at: 1 put: nil. D keys do: [:k | D removeKey: k]. D at: 0 put: 0. "
       "S asArray do: [:e | S remove: e]. I asArray do: [:e | I remove: e]. Globals at: #P "
       "put: P0. System commit");
    in('B', "System abort");
    const std::string first = in('A', row.first);
    const std::string second = in('B', std::string(row.second) + ". nil");
    EXPECT_EQ("true", in('A', "System commit")) << row.first << first;
    EXPECT_EQ(row.conflicts ? "error 2513" : "true", in('B', "System commit").substr(0, 10))
        << row.first << " // " << row.second << " " << second;
    if (!row.conflicts) continue;
    EXPECT_EQ("error 2513", in('B', "System commit").substr(0, 10)) << row.second;
    EXPECT_EQ("true", in('B', "System abort. " + std::string(row.second) + ". System commit"));
  }
  // Write skew.
  play(R"(A P at: 1 put: 1. Q at: 1 put: 1. System commit
          B System abort. (P at: 1) = 1 ifTrue: [Q at: 1 put: 0]
          A (Q at: 1) = 1 ifTrue: [P at: 1 put: 0]
          A ok
          B no
          B [System commit] on: Error do: [:e | {e number. e arguments size. e arguments first == P}] ==> an Array( 2513 1 true )
          B System abort. (P at: 1) + (Q at: 1) ==> 1)");
}

TEST_F(Transactions, MergeWhatDoesNotConflict) {
  play(R"(A Globals at: #D put: Dictionary new; at: #S put: Set new. D at: 1 put: #one. S add: 9
          A ok
          B D at: 2 put: #two. S add: 7
          A D at: 3 put: #three. D removeKey: 1. S remove: 9
          B ok
          A ok
          A {D keys asSortedCollection asArray. S asArray} ==> an Array( an Array( 2 3 ) an Array( 7 ) )
          B System abort. {D keys asSortedCollection asArray. S asArray} ==> an Array( an Array( 2 3 ) an Array( 7 ) )
          A D at: 3 put: nil
          B D at: 3 ==> #three
          A System abort. D at: 3 ==> #three)");
  // Keys with a hash and an equality of the program's.
  play(R"(A Object subclass: #K instVarNames: #(n)
          A K compile: 'n ^n'. K compile: 'n: x n := x'. K compile: '= x ^(x isKindOf: K) and: [n = x n]'. K compile: 'hash ^n hash'
          A Globals at: #D put: Dictionary new. D at: (K new n: 1; yourself) put: 10
          A ok
          B System abort. D at: (K new n: 1; yourself) ==> 10
          B D at: (K new n: 2; yourself) put: 20
          A D at: (K new n: 3; yourself) put: 30
          A ok
          B ok
          B D values asSortedCollection asArray ==> an Array( 10 20 30 )
          A K compile: 'hash ^n hash + 1'
          A (1 to: 3) collect: [:n | D at: (K new n: n; yourself) ifAbsent: [0]] ==> an Array( 10 20 30 )
          A System refresh ==> error 2521: the session has changes that are not committed: commit or abort them first
          A ok
          A D at: (K new n: 1; yourself) put: 11
          A ok
          B System abort. D at: (K new n: 1; yourself) ==> 11)");
  // Sets by identity, of objects and values alike, in all sessions.
  play(
      R"(A o := Object new. Globals at: #O put: o; at: #I put: (IdentitySet new add: o; add: #sym; add: 5; yourself)
          A ok
          B System abort. {I includes: O. I includes: #sym. I includes: 5. I includes: Object new} ==> an Array( true true true false )
          B I remove: O
          B ok
          A System abort. {I includes: O. I size} ==> an Array( false 2 ))");
}

TEST_F(Transactions, KeepEveryKindOfObject) {
  play(
      R"(A Globals at: #W put: OrderedCollection new. W add: 'aü€'; add: $€; add: 2.5; add: (2 raisedTo: 80); add: -7; add: (2 raisedTo: 40); add: nil; add: true; add: #sym; add: Float nan
          A W add: #(1 $a 'x' #(2)); add: (1 to: 3); add: (3->4); add: #(3 1 2) asSortedCollection; add: (#(3 1 2) asSortedCollection: [:a :b | a > b]); add: #(1 1 2) asBag; add: (ByteArray new: 3); add: Object; add: [:a | a + 1]; add: Globals; add: (Float infinity)
          A W add: (ReadStream on: #(1 2)); add: (Error new messageText: 'm'; yourself); add: (Object methodAt: 'isNil'); add: W
          A t := W printString. W at: 3 put: 2.5. W size ==> 25
          A ok
          B (W copyFrom: 1 to: 9) asArray ==> an Array( 'aü€' $€ 2.5 1208925819614629174706176 -7 1099511627776 nil true #sym )
          B (W copyFrom: 10 to: 18) asArray ==> an Array( Float nan an Array( 1 $a 'x' an Array( 2 ) ) an Interval( 1 2 3 ) 3->4 a SortedCollection( 1 2 3 ) a SortedCollection( 3 2 1 ) a Bag( 1 1 2 ) a ByteArray( 0 0 0 ) Object )
          B {(W at: 19) value: 4. (W at: 20) == Globals. W at: 21. (W at: 22) next. (W at: 23) messageText. (W at: 24) source isNil. (W at: 25) == W. (W at: 11) isInvariant. (W at: 1) isInvariant} ==> an Array( 5 true Float infinity 1 'm' false true true true )
          B ((W at: 15) add: 2; yourself) asArray ==> an Array( 3 2 2 1 )
          B (W at: 14) add: 0. W at: 1 put: (W at: 1), 'x'. #sym == (W at: 9) ==> true
          B ok
          A System abort. {(W at: 14) first. W at: 1} ==> an Array( 0 'aü€x' ))");
  play(
      R"(A Globals at: #R put: (Array new: 1). [R at: 1 put: 1. nil foo] value ==> error 2010: nil does not understand #foo
          A System suspend: 3 ==> error 2502: the program is suspended)");
  // What the kernel has is the same in all sessions.
  play(R"(B 3 ==> 3
          A Globals at: #Z put: {Bag instVarNames. Object classHistory. Array methodAt: 'do:'}
          A ok
          B System abort. {(Z at: 1) == Bag instVarNames. (Z at: 2) == Object classHistory. Z printString size} ==> an Array( true true 74 ))");
  // A block goes on with its own variables, in the session that runs it.
  play(R"(A | n | n := 0. Globals at: #Count put: [n := n + 1]. Count value ==> 1
          A ok
          A Count value ==> 2
          B Count value ==> 2
          B Count value ==> 3
          B ok
          A Count value ==> 3
          A no
          A System abort. Count value ==> 4)");
}

TEST_F(Transactions, BeginWithTheirFirstAccessWhereverOneEnded) {
  play(R"(A Globals at: #X put: (Array with: 1)
          A ok
          B X at: 1 ==> 1
          A X at: 1 put: 2
          A ok
          B {X at: 1. System commit. X at: 1} ==> an Array( 1 true 2 ))");
}

// Elements stay where they are looked for when `=` or `hash` are defined after they came.
TEST_F(Transactions, FindElementsByMethodsThatAreNew) {
  play(R"(A Object subclass: #P instVarNames: #(n). P compile: 'n ^n'. P compile: 'n: x n := x'
          A Globals at: #S put: Set new; at: #T put: Set new; at: #D put: Dictionary new. T add: (P new n: 6; yourself); add: 3
          A ok
          B T size ==> 2
          A S add: (P new n: 5; yourself). D at: S any put: 7. P compile: 'hash ^n hash'. P compile: '= x ^(x isKindOf: P) and: [n = x n]'
          A {S includes: S any. D at: S any} ==> an Array( true 7 )
          A ok
          B System abort. {S size. S includes: (P new n: 5; yourself). D at: S any} ==> an Array( 1 true 7 )
          B {T includes: (P new n: 6; yourself). T includes: 3. T size} ==> an Array( true true 2 )
          C T add: (P new n: 6; yourself). {T size. T includes: (P new n: 7; yourself)} ==> an Array( 2 false )
          C T add: (P new n: 7; yourself)
          C ok
          B System abort. {T size. T includes: (P new n: 7; yourself). T includes: (P new n: 6; yourself)} ==> an Array( 3 true true )
          A System abort. Globals at: #G1 put: 1
          B Globals at: #G2 put: 2
          B ok
          A ok)");
  // Numbers have no identity of their own in the store.
  play(R"(A Globals at: #I put: IdentitySet new. I add: 1.5; add: (2 raisedTo: 100)
          A ok
          B f := I detect: [:each | each isKindOf: Float]. I remove: f ifAbsent: [nil] ==> 1.5
          B I size ==> 1)");
}

TEST_F(Transactions, RemovedUsersStayRemoved) {
  play(R"(B 3 ==> 3
          A System removeUser: 'DataCurator'
          A ok
          B System changePassword: 'new' ==> error 2015: there is no user DataCurator
          B System needsCommit ==> false
          A System removeUser: 'DataCurator' ==> error 2015: there is no user DataCurator)");
}

TEST_F(Transactions, ExportingIsNoReading) {
  in('A', "Globals at: #X put: (Array new: 1); at: #Q put: (Array new: 1). System commit");
  in('B', "Q at: 1 put: 1");
  const OopType exported = run("X");
  zel->ZelSaveObjs(&exported, 1);
  in('A', "X at: 1 put: 1. System commit");
  EXPECT_EQ("true", in('B', "System commit"));
}

// What was committed stays so, whatever the store fails in after it or a break ends, and before it
// nothing is done.
TEST_F(Transactions, StandFailuresOfTheStore) {
  in('A', "Globals at: #X put: (Array with: 0); at: #Y put: (Array with: 0). System commit");
  in('B', "X at: 1");
  ::zel::Repository& repository = *session().repository;
  auto owned = std::make_unique<FailingStore>(std::move(repository.store));
  FailingStore& failing = *owned;
  repository.store = std::move(owned);
  struct Way {
    int number;
    std::function<void()> instead;
  };
  const Way ways[] = {
      {2514, {}}, {6003, [&] { zel->ZelSoftBreak(); }}, {6004, [&] { zel->ZelHardBreak(); }}};
  for (int call = 1, value = 1; call <= 36; ++call, ++value) {
    const auto& [number, instead] = ways[call % 3];
    failing.instead = {};
    const std::string text = std::to_string(value);
    EXPECT_EQ("true", in('B', "System abort. Y at: 1 put: " + text + ". System commit"));
    in('A', "System abort. X at: 1 put: " + text + "; at: 1 put: " + text);
    zel->ZelSetSessionId(ids['A']);
    failing.left = 1 + call / 3;
    failing.instead = instead;
    const bool committed = run("System commit") == TrueOop;
    failing.left = 0;
    EXPECT_EQ(committed ? 0 : number, errorNumber()) << call;
    if (!committed && !instead) {
      EXPECT_EQ("true", in('A', "System needsCommit")) << call;
    }
    EXPECT_EQ("true", in('A', "System commit")) << call;
    EXPECT_EQ("an Array( " + text + ' ' + text + " )", in('A', "{X at: 1. Y at: 1}")) << call;
    failing.left = 1 + call / 3;
    in('B', "System abort. {X at: 1. Y at: 1}");
    failing.left = 0;
    EXPECT_EQ("an Array( " + text + ' ' + text + " )", in('B', "System abort. {X at: 1. Y at: 1}"));
  }
}

// Who has made a database without knowing it is no stranger there.
TEST_F(Transactions, GoOnWhereTheFirstCommitWasUnknown) {
  ::zel::Repository& repository = *session().repository;
  auto owned = std::make_unique<FailingStore>(std::move(repository.store));
  FailingStore& failing = *owned;
  repository.store = std::move(owned);
  session().workspace->found({{"SystemUser", "$6$"}, {"DataCurator", "$6$"}});
  failing.isUnknown = true;
  EXPECT_EQ("error 2520: unknown", show("Globals at: #F put: 1. System commit"));
  failing.isUnknown = false;
  EXPECT_EQ("true", show("System abort. F = 1 and: [Globals at: #F put: 2. System commit]"));
}

// Another version of the library need not have the methods that blocks in the store belong to.
TEST_F(Transactions, NameBlocksOfMethodsThatAreGone) {
  in('A', "Globals at: #Block put: #() asSortedCollection sortBlock. System commit");
  ::zel::Store& store = *session().repository->store;
  const ::zel::Lease lease(store);
  ::zel::Changes changes{lease.version, {}, {}};
  store.scan(lease.version, ::zel::firstFreeId, UINT64_MAX, [&](const ::zel::Row& row) {
    std::string bytes = row.bytes;
    const std::size_t at = bytes.find("sortBlock");
    if (at == std::string::npos) return;
    bytes[at] = 'x';
    changes.writes.push_back({row.place, row.classId, bytes, false});
  });
  ASSERT_NE(0, store.commit(changes).version);
  for (const char* text : {"Block value: 1 value: 2", "Block numArgs", "#(2 1) sort: Block"}) {
    EXPECT_EQ(
        "error 2509: the block belongs to a method that this version of the library does not have",
        in('B', text));
  }
}

// Of what does not fit into the memory, what was not changed makes room wherever some is needed.
TEST_F(Transactions, ReadMoreThanTheMemoryHolds) {
  session().memory.setLimit(8U << 20);
  in('A',
     "Globals at: #C put: OrderedCollection new. 1 to: 400 do: [:i | C add: OrderedCollection "
     "new. 1 to: 100 do: [:j | C last add: (Array with: i with: j with: (String new: 200))]. i "
     "\\\\ 20 = 0 ifTrue: [System commit]]. Globals at: #B put: (Array with: [:a | a first]). "
     "System commit");
  const char* counts[] = {
      "e first > 0",
      "e last size = 200",
      "e = e copy",
      "(e = #(1)) not",
      "e hash >= 0",
      "(e perform: #first) > 0",
      "e printString size > 9",
      "((B at: 1) value: e) > 0",
      "([:a :b :c | a > 0] valueWithArguments: e)",
      "([e foo. 1] on: Error do: [:x | 0]) = 0",
  };
  for (const char* count : counts) {
    EXPECT_EQ("40000", in('A', "| n | n := 0. C do: [:c | c do: [:e | " + std::string(count) +
                                   " ifTrue: [n := n + 1]]]. n"))
        << count;
  }
}

// The same object has the same oop in all sessions, and changes are told as the view has them.
TEST_F(Transactions, ClientsSeeOneObject) {
  const OopType mine = (in('A', "Globals at: #X put: (Array with: 1). System commit"), run("X"));
  in('B', "nil");
  EXPECT_EQ(mine, run("X"));
  zel->ZelDirtyObjsInit();
  zel->ZelSaveObjs(&mine, 1);
  in('B', "X at: 1");
  in('A', "X at: 1 put: 2. System commit");
  zel->ZelSetSessionId(ids['B']);
  const auto changed = [&] {
    OopType oops[4];
    ArraySizeType count = 4;
    zel->ZelDirtySaveObjs(oops, &count);
    return static_cast<int>(count);
  };
  EXPECT_EQ(0, changed());
  in('B', "System refresh");
  EXPECT_EQ(1, changed());
  EXPECT_EQ("2", in('B', "X at: 1"));
}

// Random transactions of four sessions: what committed has a serial order, the order of commits.
TEST_F(Transactions, HaveASerialOrder) {
  in('A', std::string(makeGlobals) + ". System commit");
  std::mt19937 random(7);
  const auto roll = [&](unsigned n) { return static_cast<int>(random() % n); };
  std::map<char, std::vector<Step>> open;
  std::vector<std::vector<Step>> committed;
  int conflicts = 0;
  for (int turn = 0; turn < 3000; ++turn) {
    const char name = static_cast<char>('A' + roll(4));
    const int kind = roll(10);
    if (kind < 7) {
      const std::string source = randomStep(random);
      open[name].push_back({source, in(name, source)});
    } else if (kind == 7) {
      in(name, "System abort");
      open[name].clear();
    } else if (in(name, "System needsCommit") == "false") {
      // One that only read has its place before others.
      EXPECT_EQ("true", in(name, "System commit"));
      open[name].clear();
    } else if (in(name, "System commit") == "true") {
      committed.push_back(std::move(open[name]));
      open[name].clear();
    } else {
      ++conflicts;
      in(name, "System abort");
      open[name].clear();
    }
  }
  EXPECT_GT(conflicts, 50);
  EXPECT_GT(committed.size(), 200U);
  const std::string end =
      in('A', "System abort. {V. D keys asSortedCollection asArray. S asSortedCollection asArray}");
  // Once more, one after the other, in a database of its own.
  zel->ZelShutdown();
  ids.clear();
  Transactions::SetUp();
  in('A', std::string(makeGlobals) + ". System commit");
  for (const std::vector<Step>& transaction : committed) {
    for (const Step& step : transaction) EXPECT_EQ(step.answer, in('A', step.text)) << step.text;
  }
  EXPECT_EQ(end, in('A', "{V. D keys asSortedCollection asArray. S asSortedCollection asArray}"));
}

}  // namespace
