// The language: what texts answer, and how wrong ones end.
#include "session_fixture.h"

namespace {

struct Sample {
  const char* source;
  const char* shown;
};

class Language : public ZelSession {
 protected:
  template <std::size_t count>
  void check(const Sample (&samples)[count]) {
    for (const Sample& sample : samples) {
      EXPECT_EQ(sample.shown, show(sample.source)) << sample.source;
    }
  }
};

TEST_F(Language, LiteralsAndMessages) {
  check({
      {"3 + 4", "7"},
      {"", "nil"},
      {"\"nothing\" . . ", "nil"},
      {"1. 2. 3", "3"},
      {"^5. 6", "5"},
      {"2 + 3 * 4", "20"},
      {"2 + (3 * 4)", "14"},
      {"3-4", "-1"},
      {"3 - -4", "7"},
      {"3--4", "7"},
      {"-5 abs", "5"},
      {"16rFF + 2r101", "260"},
      {"1.5e3", "1500.0"},
      {"1e-2", "0.01"},
      {"$a", "$a"},
      {"'it''s'", "'it''s'"},
      {"#foo:bar:", "#foo:bar:"},
      {"#'a b'", "#'a b'"},
      {"#+", "#+"},
      {"#(1 -2 $c 'd' e f: (nil true) #(3) #[7] +)",
       "an Array( 1 -2 $c 'd' #e #f: an Array( nil true ) an Array( 3 ) a ByteArray( 7 ) #+ )"},
      {"#[0 255]", "a ByteArray( 0 255 )"},
      {"{1 + 1. 'x'. {}}", "an Array( 2 'x' an Array( ) )"},
      {"OrderedCollection new add: 1; add: 2; yourself", "an OrderedCollection( 1 2 )"},
      {"3 + 4; * 10", "30"},
      {"| a b | a := b := 2. a + b", "4"},
      {"x := 3. x := x + 1. x", "4"},
      {"nil isNil & true", "true"},
      {"3 max: 4", "4"},
      {"#(1 2) = #(1 2)", "true"},
      {"#a == #a", "true"},
      {"'a' == 'a'", "false"},
      {"1 = 1.0", "true"},
      {"'a'->2", "'a'->2"},
      {"Globals at: #Seven put: 7. Seven", "7"},
  });
}

TEST_F(Language, Control) {
  check({
      {"3 > 2 ifTrue: ['yes'] ifFalse: ['no']", "'yes'"},
      {"3 < 2 ifTrue: ['yes']", "nil"},
      {"b := ['yes']. 3 > 2 ifTrue: b ifFalse: b", "'yes'"},
      {"(3 > 2 and: [2 > 1]) or: [nil foo]", "true"},
      {"nil ifNil: [1] ifNotNil: [:x | x + 1]", "1"},
      {"5 ifNil: [1] ifNotNil: [:x | x + 1]", "6"},
      {"5 ifNotNil: [:x | x]", "5"},
      {"nil ifNotNil: [:x | x]", "nil"},
      {"i := 0. [i < 10] whileTrue: [i := i + 3]. i", "12"},
      {"i := 0. [i := i + 1. i >= 5] whileFalse. i", "5"},
      {"s := 0. 1 to: 10 do: [:i | s := s + i]. s", "55"},
      {"s := 0. 10 to: 1 by: -3 do: [:i | s := s + i]. s", "22"},
      {"s := 0. n := 2. 1 to: 9 by: n do: [:i | s := s + i]. s", "25"},
      {"s := ''. 3 timesRepeat: [s := s , 'ab']. s", "'ababab'"},
      {"[:a :b | a * b] value: 3 value: 4", "12"},
      {"[:a :b | | c | c := a. c * b] valueWithArguments: #(3 4)", "12"},
      {"[:x | [:y | x + y]] value: 3", "a Block"},
      {"([:x | [:y | x + y]] value: 3) value: 4", "7"},
      {"f := nil. f := [:n | n < 2 ifTrue: [n] ifFalse: [(f value: n - 1) + (f value: n - 2)]]. "
       "f value: 15",
       "610"},
      {"#(3 1 2) collect: [:x | x * x]", "an Array( 9 1 4 )"},
      {"#(3 1 2) select: [:x | x > 1]", "an Array( 3 2 )"},
      {"#(3 1 2) inject: 0 into: [:a :x | a + x]", "6"},
      {"#(3 1 2) detect: [:x | x > 5] ifNone: ['none']", "'none'"},
      {"#(3 1 2) do: [:x | x = 1 ifTrue: [^'found']]. 'not'", "'found'"},
      {"(1 to: 5) sum", "15"},
      {"3 perform: #+ with: 4", "7"},
      {"3 perform: #between:and: withArguments: #(1 5)", "true"},
      {"[1 / 0] on: ZeroDivide do: [:e | e messageText]", "'division by zero'"},
      {"[nil foo] on: Error do: [:e | e number]", "2010"},
      {"[Error signal: 'x'. 3] on: Error do: [:e | e messageText , '!']", "'x!'"},
      {"[[1 / 0] on: MessageNotUnderstood do: [1]] on: Error do: [2]", "2"},
      {"[[1 / 0] on: Error do: [:e | e signal]] on: ZeroDivide do: [:e | e messageText]",
       "'division by zero'"},
      {"[Error signal: 'x'] on: Error do: 7", "error 2094: a block is expected"},
  });
}

TEST_F(Language, Objects) {
  check({
      {"3 class", "SmallInteger"},
      {"3 class class", "Class"},
      {"(2 raisedTo: 40) class", "LargeInteger"},
      {"536870911 + 1", "536870912"},
      {"1000000000 * 1000000000", "1000000000000000000"},
      {"7 // -2", "-4"},
      {"7 \\\\ -2", "-1"},
      {"7 quo: -2", "-3"},
      {"7 rem: -2", "1"},
      {"6 / 3", "2"},
      {"7 / 2", "3.5"},
      {"2 sqrt squared rounded", "2"},
      {"255 printString: 16", "'FF'"},
      {"10 factorial", "3628800"},
      {"12 gcd: 18", "6"},
      {"1 bitShift: 40", "1099511627776"},
      {"'abc' , 'def'", "'abcdef'"},
      {"'abc' reversed asUppercase", "'CBA'"},
      {"'a b  c' subStrings: ' '", "an Array( 'a' 'b' 'c' )"},
      {"'hello' indexOfString: 'll'", "3"},
      {"'hello' copyFrom: 2 to: 4", "'ell'"},
      {"'hello' select: [:c | c > $g]", "'hllo'"},
      {"'42' asNumber + '1.5' asNumber", "43.5"},
      {"'abc' asSymbol == #abc", "true"},
      {"'abc' < 'abd'", "true"},
      {"'h\xC3\xA9' asDoubleByteString size", "2"},
      {"'h\xC3\xA9' asDoubleByteString asString size", "3"},
      {"('ab' asDoubleByteString at: 2 put: (Character value: 8364); yourself) size", "2"},
      {"#(5 3 9 1) copy sort", "an Array( 1 3 5 9 )"},
      {"#('b' 'a') asSortedArray: [:a :b | a < b]", "an Array( 'a' 'b' )"},
      {"(Set withAll: #(1 2 2 1.0)) size", "2"},
      {"s := Set new. 1 to: 50 do: [:i | s add: i \\\\ 7]. s remove: 3. s size", "6"},
      {"d := Dictionary new. d at: 'k' put: 1. d at: 'k' put: 2. d at: #j put: 3. d at: 'k'", "2"},
      {"d := Dictionary new. 1 to: 9 do: [:i | d at: i put: i * i]. d removeKey: 3. d values sum",
       "276"},
      {"d := Dictionary new. d at: 5 ifAbsent: ['none']", "'none'"},
      {"(DateTime year: 2012 dayOfYear: 60 milliseconds: 3600000) printString",
       "'2012-060 01:00:00.000'"},
      {"(Array new: 3) size", "3"},
      {"'abc' isKindOf: CharacterCollection", "true"},
      {"String superclass name", "'CharacterCollection'"},
      {"(Object subclass: 'Account' instVarNames: #('balance')) name", "'Account'"},
      {"Account compile: 'add: x balance := (balance ifNil: [0]) + x'. "
       "Account compile: 'balance ^balance'. a := Account new. a add: 5; add: 7. a balance",
       "12"},
      {"Account compileClassMethod: 'rich ^self new add: 1000; yourself'. Account rich balance",
       "1000"},
      {"(Account subclass: 'Savings' instVarNames: #(rate)) compile: 'add: x ^super add: x * 2'. "
       "b := Savings new. b add: 4. b balance",
       "8"},
      {"b isKindOf: Account", "true"},
      {"b printString", "'a Savings'"},
      {"Savings instVarNames", "an Array( #balance #rate )"},
      {"[:x | x printString] value: 3", "'3'"},
  });
}

TEST_F(Language, WrongTextsEndAsErrors) {
  check({
      {"3 +", "error 2501: line 1, column 4: an expression is expected"},
      {"\n (3", "error 2501: line 2, column 4: ) is expected"},
      {"'abc", "error 2501: line 1, column 1: the string is not closed"},
      {"[:x", "error 2501: line 1, column 4: | after the parameters is expected"},
      {"99999999999999999999", "error 2501: line 1, column 1: the integer has more than 64 bits"},
      {"self := 3", "error 2501: self cannot be assigned to"},
      {"[:x | x := 1]", "error 2501: the argument x cannot be assigned to"},
      {"\x01", "error 2501: line 1, column 1: the character with code 1 has no meaning here"},
      {"nil foo", "error 2010: nil does not understand #foo"},
      {"unknown", "error 2189: unknown is not defined"},
      {"Array := 3", "error 2506: Array is a global: use Globals at: put: to change it"},
      {"1 / 0", "error 2504: division by zero"},
      {"(2 raisedTo: 62) * 2", "error 2505: the result has more than 64 bits"},
      {"#(1 2) copy at: 3", "error 2004: index 3 is not between 1 and 2"},
      {"3 + 'a'", "error 2094: a number is expected, not a String"},
      {"3 ifTrue: [4]", "error 2211: a SmallInteger is used where true or false is expected"},
      {"[:x | x] value", "error 2005: the block takes 1 arguments, not 0"},
      {"Error signal: 'mine'", "error 2503: mine"},
      {"Error new signal: 'mine' number: 77", "error 77: mine"},
      {"#foo at: 1 put: $x", "error 2506: the object cannot be changed"},
      {"#(1) detect: [:x | x > 1]", "error 2015: no element was found"},
      {"DateTime year: 2011 dayOfYear: 366 milliseconds: 0",
       "error 2161: year 2011 has no day 366"},
      {"SmallInteger new", "error 2094: instances of SmallInteger cannot be made so"},
      {"Object subclass: 'lower'",
       "error 2094: 'lower' is no class name: a capital letter first, then letters, digits and _, "
       "at most 64"},
      {"Array new: -1", "error 2004: -1 is not between 0 and 67108864"},
      {"Array new: 60000000", "error 2208: an object may have at most 67108864 bytes"},
  });
}

}  // namespace
