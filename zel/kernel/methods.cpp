#include "methods.h"

namespace zel {

namespace {

constexpr KernelMethod methods[] = {
    // Every object.
    {ObjectClass, "isNil ^false"},
    {ObjectClass, "notNil ^true"},
    {ObjectClass, "yourself ^self"},
    {ObjectClass, "-> value ^Association key: self value: value"},
    {ObjectClass, "ifNil: block ^self"},
    {ObjectClass,
     "ifNotNil: block ^block numArgs = 0 ifTrue: [block value] ifFalse: [block value: self]"},
    {ObjectClass, "ifNil: nilBlock ifNotNil: block ^self ifNotNil: block"},
    {ObjectClass, "ifNotNil: block ifNil: nilBlock ^self ifNotNil: block"},
    {ObjectClass, "isString ^false"},
    {ObjectClass, "isSymbol ^false"},
    {ObjectClass, "isNumber ^false"},
    {ObjectClass, "isClass ^false"},
    {ObjectClass, "subclassResponsibility self error: 'a subclass must answer this message'"},
    {UndefinedObjectClass, "isNil ^true"},
    {UndefinedObjectClass, "notNil ^false"},
    {UndefinedObjectClass, "ifNil: block ^block value"},
    {UndefinedObjectClass, "ifNotNil: block ^self"},
    {UndefinedObjectClass, "ifNil: nilBlock ifNotNil: block ^nilBlock value"},
    {UndefinedObjectClass, "ifNotNil: block ifNil: nilBlock ^nilBlock value"},

    // Booleans, for blocks that are not written out where they are used.
    {BooleanClass, "not self ifTrue: [^false]. ^true"},
    {BooleanClass, "& other self ifTrue: [^other]. ^false"},
    {BooleanClass, "| other self ifTrue: [^true]. ^other"},
    {BooleanClass, "and: block self ifTrue: [^block value]. ^false"},
    {BooleanClass, "or: block self ifTrue: [^true]. ^block value"},
    {BooleanClass, "xor: other ^self ~~ other"},
    {BooleanClass, "ifTrue: block self ifTrue: [^block value]. ^nil"},
    {BooleanClass, "ifFalse: block self ifFalse: [^block value]. ^nil"},
    {BooleanClass, "ifTrue: a ifFalse: b self ifTrue: [^a value]. ^b value"},
    {BooleanClass, "ifFalse: a ifTrue: b self ifTrue: [^b value]. ^a value"},

    // Blocks.
    {BlockClass, "whileTrue [self value] whileTrue"},
    {BlockClass, "whileFalse [self value] whileFalse"},
    {BlockClass, "whileTrue: block [self value] whileTrue: [block value]. ^nil"},
    {BlockClass, "whileFalse: block [self value] whileFalse: [block value]. ^nil"},
    {BlockClass, "repeat [self value] repeat"},

    // Comparison and numbers.
    {MagnitudeClass, "max: other ^self > other ifTrue: [self] ifFalse: [other]"},
    {MagnitudeClass, "min: other ^self < other ifTrue: [self] ifFalse: [other]"},
    {MagnitudeClass, "between: low and: high ^self >= low and: [self <= high]"},
    {MagnitudeClass, "<= other ^(self > other) not"},
    {MagnitudeClass, "> other ^other < self"},
    {MagnitudeClass, ">= other ^(self < other) not"},
    {NumberClass, "isNumber ^true"},
    {NumberClass, "abs ^self < 0 ifTrue: [self negated] ifFalse: [self]"},
    {NumberClass, "negated ^0 - self"},
    {NumberClass, "isZero ^self = 0"},
    {NumberClass, "squared ^self * self"},
    {NumberClass, "sign self > 0 ifTrue: [^1]. self < 0 ifTrue: [^-1]. ^0"},
    {NumberClass,
     "to: last do: block | i | i := self. [i <= last] whileTrue: [block value: i. i := i + 1]"},
    {NumberClass,
     "to: last by: step do: block | i | step = 0 ifTrue: [^self error: 'the step is 0']. "
     "i := self. step > 0 ifTrue: [[i <= last] whileTrue: [block value: i. i := i + step]] "
     "ifFalse: [[i >= last] whileTrue: [block value: i. i := i + step]]"},
    {NumberClass,
     "to: last by: step | result | result := OrderedCollection new. "
     "self to: last by: step do: [:i | result add: i]. ^result asArray"},
    {NumberClass, "to: last ^self to: last by: 1"},
    {IntegerClass, "timesRepeat: block 1 to: self do: [:i | block value]"},
    {IntegerClass, "isInteger ^true"},
    {IntegerClass, "even ^self \\\\ 2 = 0"},
    {IntegerClass, "odd ^self \\\\ 2 = 1"},
    {IntegerClass,
     "factorial | product | self < 0 ifTrue: [^self error: 'a negative number has no factorial']. "
     "product := 1. 2 to: self do: [:i | product := product * i]. ^product"},
    {IntegerClass,
     "gcd: other | a b t | a := self abs. b := other abs. "
     "[b = 0] whileFalse: [t := a \\\\ b. a := b. b := t]. ^a"},
    {ObjectClass, "isInteger ^false"},
    {AssociationClass, "key ^key"},
    {AssociationClass, "value ^value"},
    {AssociationClass, "value: anObject value := anObject"},
    {AssociationClass, "key: aKey value: aValue ^self new setKey: aKey value: aValue", true},
    {AssociationClass, "setKey: aKey value: aValue key := aKey. value := aValue"},
    {AssociationClass, "< other ^key < other key"},

    // Collections.
    {CollectionClass, "isEmpty ^self size = 0"},
    {CollectionClass, "notEmpty ^self size > 0"},
    {CollectionClass,
     "do: block | all | all := self asArray. 1 to: all size do: [:i | block value: (all at: i)]"},
    {CollectionClass,
     "do: block separatedBy: between | first | first := true. "
     "self do: [:each | "
     "first ifTrue: [first := false] ifFalse: [between value]. block value: each]"},
    {CollectionClass,
     "select: block | result | result := OrderedCollection new. "
     "self do: [:each | (block value: each) ifTrue: [result add: each]]. "
     "^self rebuiltFrom: result"},
    {CollectionClass, "reject: block ^self select: [:each | (block value: each) not]"},
    {CollectionClass,
     "collect: block | result | result := OrderedCollection new. "
     "self do: [:each | result add: (block value: each)]. ^self collectedFrom: result"},
    {CollectionClass,
     "detect: block ^self detect: block ifNone: [Error new signal: 'no element was found' number: "
     "2015]"},
    {CollectionClass,
     "detect: block ifNone: none self do: [:each | (block value: each) ifTrue: [^each]]. "
     "^none value"},
    {CollectionClass,
     "inject: start into: block | value | value := start. "
     "self do: [:each | value := block value: value value: each]. ^value"},
    {CollectionClass,
     "anySatisfy: block self do: [:each | (block value: each) ifTrue: [^true]]. ^false"},
    {CollectionClass,
     "allSatisfy: block self do: [:each | (block value: each) ifFalse: [^false]]. ^true"},
    {CollectionClass,
     "count: block | n | n := 0. self do: [:each | (block value: each) ifTrue: [n := n + 1]]. ^n"},
    {CollectionClass, "sum ^self inject: 0 into: [:a :b | a + b]"},
    {CollectionClass, "max ^self inject: self any into: [:a :b | a max: b]"},
    {CollectionClass, "min ^self inject: self any into: [:a :b | a min: b]"},
    {CollectionClass,
     "any self isEmpty ifTrue: [^self error: 'the collection is empty']. ^self asArray at: 1"},
    {CollectionClass,
     "includes: element self do: [:each | each = element ifTrue: [^true]]. ^false"},
    {CollectionClass, "occurrencesOf: element ^self count: [:each | each = element]"},
    {CollectionClass, "addAll: others others asArray do: [:each | self add: each]. ^others"},
    {CollectionClass, "removeAll: others others asArray do: [:each | self remove: each]. ^others"},
    {CollectionClass,
     "remove: element ^self remove: element ifAbsent: [Error new signal: 'the element is not "
     "there' number: 2015]"},
    {CollectionClass, "asSortedArray ^self asArray sort"},
    {CollectionClass, "asSortedArray: block ^self asArray sort: block"},
    {CollectionClass, "rebuiltFrom: elements ^elements asArray"},
    {CollectionClass, "collectedFrom: elements ^elements asArray"},
    {CollectionClass,
     "withAll: elements | result | result := self new. result addAll: elements. ^result", true},
    {SequenceClass, "do: block 1 to: self size do: [:i | block value: (self at: i)]"},
    {SequenceClass,
     "doWithIndex: block 1 to: self size do: [:i | block value: (self at: i) value: i]"},
    {SequenceClass,
     "keysAndValuesDo: block 1 to: self size do: [:i | block value: i value: (self at: i)]"},
    {SequenceClass, "reverseDo: block self size to: 1 by: -1 do: [:i | block value: (self at: i)]"},
    {SequenceClass,
     "with: other do: block "
     "1 to: self size do: [:i | block value: (self at: i) value: (other at: i)]"},
    {SequenceClass,
     "with: other collect: block | result | result := Array new: self size. "
     "1 to: self size do: [:i | "
     "result at: i put: (block value: (self at: i) value: (other at: i))]. ^result"},
    {SequenceClass,
     "at: index ifAbsent: block ^(index between: 1 and: self size) ifTrue: [self at: index] "
     "ifFalse: [block value]"},
    {SequenceClass, "first ^self at: 1"},
    {SequenceClass, "last ^self at: self size"},
    {SequenceClass,
     "indexOf: element 1 to: self size do: [:i | (self at: i) = element ifTrue: [^i]]. ^0"},
    {SequenceClass, "sort ^self sort: [:a :b | a <= b]"},
    {SequenceClass, "sort: block self mergeSort: self copy from: 1 to: self size using: block"},
    {SequenceClass,
     "mergeSort: scratch from: first to: last using: block | middle left right | "
     "first >= last ifTrue: [^self]. middle := first + last // 2. "
     "self mergeSort: scratch from: first to: middle using: block. "
     "self mergeSort: scratch from: middle + 1 to: last using: block. "
     "first to: last do: [:i | scratch at: i put: (self at: i)]. "
     "left := first. right := middle + 1. "
     "first to: last do: [:i | (right > last or: [left <= middle and: "
     "[block value: (scratch at: left) value: (scratch at: right)]]) "
     "ifTrue: [self at: i put: (scratch at: left). left := left + 1] "
     "ifFalse: [self at: i put: (scratch at: right). right := right + 1]]"},
    {ArrayClassOop, "with: a ^(self new: 1) at: 1 put: a; yourself", true},
    {ArrayClassOop, "with: a with: b ^(self new: 2) at: 1 put: a; at: 2 put: b; yourself", true},
    {ArrayClassOop,
     "with: a with: b with: c ^(self new: 3) at: 1 put: a; at: 2 put: b; at: 3 put: c; yourself",
     true},
    {OrderedCollectionClass, "rebuiltFrom: elements ^elements"},
    {OrderedCollectionClass, "collectedFrom: elements ^elements"},
    {OrderedCollectionClass,
     "remove: element ifAbsent: block | i | i := self indexOf: element. "
     "i = 0 ifTrue: [^block value]. self removeAtIndex: i. ^element"},
    {OrderedCollectionClass, "removeFirst ^self removeAtIndex: 1"},
    {OrderedCollectionClass, "removeLast ^self removeAtIndex: self size"},
    {SetClass,
     "remove: element ifAbsent: block ^(self removeIfPresent: element) ifTrue: [element] "
     "ifFalse: [block value]"},
    {SetClass, "rebuiltFrom: elements ^Set withAll: elements"},
    {SetClass, "collectedFrom: elements ^Set withAll: elements"},
    {StringKindClassOop, "rebuiltFrom: elements ^self class withAll: elements"},
    {StringKindClassOop,
     "withAll: elements | result | result := self new: elements size. "
     "1 to: elements size do: [:i | result at: i put: (elements at: i)]. ^result",
     true},
    {StringClassOop, "rebuiltFrom: elements ^String withAll: elements"},
    {StringKindClassOop, "isString ^true"},
    {SymbolClass, "isSymbol ^true"},

    // Dictionaries.
    {DictionaryClass,
     "at: key ^self at: key ifAbsent: [Error new signal: 'the key ' , key printString , ' is not "
     "there' number: 2015]"},
    {DictionaryClass,
     "at: key ifAbsentPut: block ^self at: key ifAbsent: [self at: key put: block value]"},
    {DictionaryClass,
     "at: key ifAbsent: block ^(self includesKey: key) ifTrue: [self valueAt: key] "
     "ifFalse: [block value]"},
    {DictionaryClass,
     "removeKey: key ^self removeKey: key ifAbsent: [Error new signal: 'the key ' , key "
     "printString , ' is not there' number: 2015]"},
    {DictionaryClass,
     "removeKey: key ifAbsent: block | value | (self includesKey: key) ifFalse: [^block value]. "
     "value := self valueAt: key. self removeKeyIfPresent: key. ^value"},
    {DictionaryClass,
     "add: association self at: association key put: association value. ^association"},
    {DictionaryClass, "keysDo: block self keys do: block"},
    {DictionaryClass,
     "keysAndValuesDo: block self keys do: [:key | block value: key value: (self valueAt: key)]"},
    {DictionaryClass, "associations ^self keys collect: [:key | key -> (self valueAt: key)]"},
    {DictionaryClass,
     "select: block | result | result := Dictionary new. "
     "self keysAndValuesDo: [:k :v | (block value: v) ifTrue: [result at: k put: v]]. ^result"},
    {DictionaryClass,
     "collect: block | result | result := Dictionary new. "
     "self keysAndValuesDo: [:k :v | result at: k put: (block value: v)]. ^result"},
    {DictionaryClass, "remove: element ifAbsent: block ^self error: 'use removeKey:'"},
    {DictionaryClass, "addAll: other other keysAndValuesDo: [:k :v | self at: k put: v]. ^other"},

    // Classes and exceptions.
    {ClassClass, "isClass ^true"},
    {ExceptionClass, "messageText ^messageText"},
    {ExceptionClass, "messageText: text messageText := text"},
    {ExceptionClass, "number ^number ifNil: [2503]"},
    {ExceptionClass, "number: anInteger number := anInteger"},
    {ExceptionClass, "arguments ^arguments"},
    {ExceptionClass, "stack ^stack"},
    {ExceptionClass, "signal: text number: anInteger number := anInteger. ^self signal: text"},
};

}  // namespace

std::span<const KernelMethod> kernelMethods() {
  return methods;
}

}  // namespace zel
