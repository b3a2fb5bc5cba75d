#include "classes.h"

#include <algorithm>
#include <span>

#include "clients.h"
#include "hashed.h"
#include "names.h"
#include "values.h"

namespace zel {

namespace {

constexpr std::uint32_t asPointers = static_cast<std::uint32_t>(Impl::pointers);
constexpr std::uint32_t asBytes = static_cast<std::uint32_t>(Impl::bytes);
constexpr std::uint32_t asSet = static_cast<std::uint32_t>(Impl::set);
constexpr std::uint32_t asSpecial = static_cast<std::uint32_t>(Impl::special) | FormatNotCreatable;
constexpr std::uint32_t indexedPointers = asPointers | FormatIndexable;
constexpr std::uint32_t growingBytes = asBytes | FormatIndexable;
constexpr std::uint32_t fixedBytes =
    asBytes | FormatFixedSize | FormatNotCreatable | FormatInvariant;
constexpr std::uint32_t internal = asPointers | FormatNotCreatable | FormatInvariant;

struct ClassSpec {
  OopType oop;
  const char* name;
  OopType superclass;
  std::uint32_t format;
  const char* instVarNames = "";
};

// Superclasses stand before their subclasses.
constexpr ClassSpec classSpecs[] = {
    {ObjectClass, "Object", NilOop, asPointers},
    {UndefinedObjectClass, "UndefinedObject", ObjectClass, asSpecial},
    {BooleanClass, "Boolean", ObjectClass, asSpecial},
    {MagnitudeClass, "Magnitude", ObjectClass, asPointers},
    {CharacterClass, "Character", MagnitudeClass, asSpecial},
    {NumberClass, "Number", MagnitudeClass, internal},
    {IntegerClass, "Integer", NumberClass, internal},
    {SmallIntegerClass, "SmallInteger", IntegerClass, asSpecial},
    {LargeIntegerClass, "LargeInteger", IntegerClass, fixedBytes},
    {FloatClassOop, "Float", NumberClass, fixedBytes},
    {DateTimeClassOop, "DateTime", MagnitudeClass,
     asPointers | FormatNotCreatable | FormatInvariant, "year dayOfYear milliseconds timeZone"},
    {CollectionClass, "Collection", ObjectClass, asPointers},
    {SequenceClass, "SequenceableCollection", CollectionClass, indexedPointers},
    {ArrayClassOop, "Array", SequenceClass, indexedPointers},
    {OrderedCollectionClass, "OrderedCollection", SequenceClass, indexedPointers},
    {SortedCollectionClass, "SortedCollection", OrderedCollectionClass, indexedPointers,
     "sortBlock"},
    {IntervalClass, "Interval", SequenceClass, asPointers, "start step count"},
    {ByteArrayClass, "ByteArray", SequenceClass, growingBytes},
    {StringKindClassOop, "CharacterCollection", SequenceClass, growingBytes},
    {StringClassOop, "String", StringKindClassOop, growingBytes},
    {SymbolClass, "Symbol", StringClassOop, growingBytes | FormatNotCreatable | FormatInvariant},
    {DoubleByteStringClassOop, "DoubleByteString", StringKindClassOop, growingBytes},
    {SetClass, "Set", CollectionClass, asSet | FormatIndexable},
    {IdentitySetClass, "IdentitySet", SetClass, asSet | FormatIndexable},
    {DictionaryClass, "Dictionary", CollectionClass, indexedPointers},
    {BagClass, "Bag", CollectionClass, asPointers, "counts elementCount"},
    {StreamClass, "Stream", ObjectClass, asPointers, "collection position"},
    {ReadStreamClass, "ReadStream", StreamClass, asPointers},
    {WriteStreamClass, "WriteStream", StreamClass, asPointers, "species"},
    {ReadWriteStreamClass, "ReadWriteStream", WriteStreamClass, asPointers},
    {IdentityDictionaryClass, "IdentityDictionary", DictionaryClass, indexedPointers},
    {AssociationClass, "Association", MagnitudeClass, asPointers, "key value"},
    {ClassClass, "Class", ObjectClass, internal,
     "superclass format instVarCount instVarNames category comment methods classMethods "
     "classVariables timeStamp name classHistory"},
    {ClassHistoryClass, "ClassHistory", ArrayClassOop, indexedPointers | FormatNotCreatable},
    {MethodClass, "CompiledMethod", ObjectClass, internal, "selector owner source"},
    {BlockClass, "Block", ObjectClass, internal,
     "environment receiver method number home homeHigh"},
    {EnvironmentClass, "Environment", ObjectClass, internal | FormatIndexable},
    {ProcessClass, "Process", ObjectClass, internal},
    {ExceptionClass, "Exception", ObjectClass, asPointers, "messageText number arguments stack"},
    {ErrorClass, "Error", ExceptionClass, asPointers},
    {ZeroDivideClass, "ZeroDivide", ErrorClass, asPointers},
    {MessageNotUnderstoodClass, "MessageNotUnderstood", ErrorClass, asPointers},
    {NotificationClass, "Notification", ExceptionClass, asPointers},
    {WarningClass, "Warning", NotificationClass, asPointers},
    {ExceptionSetClass, "ExceptionSet", ObjectClass, internal | FormatIndexable},
    {MessageClass, "Message", ObjectClass, asPointers, "selector arguments"},
    {SystemClass, "System", ObjectClass, internal},
    {TranscriptClass, "Transcript", ObjectClass, internal},
    {ErrorCategoryClass, "ErrorCategory", ObjectClass, internal},
};

constexpr bool haveOopsOfTheirOwn(std::span<const ClassSpec> specs) {
  for (std::size_t i = 0; i < specs.size(); ++i) {
    for (std::size_t j = 0; j < i; ++j) {
      if (specs[i].oop == specs[j].oop) return false;
    }
  }
  return true;
}
static_assert(haveOopsOfTheirOwn(classSpecs));

std::vector<std::string> wordsOf(std::string_view text) {
  std::vector<std::string> words;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(' '), text.size());
    if (end > 0) words.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return words;
}

OopType slotOf(const Memory& memory, OopType classOop, ClassSlot slot) {
  return memory.at(classOop).slots[slot - 1];
}

std::vector<OopType> inheritedNames(const Memory& memory, OopType superclass) {
  if (superclass == NilOop) return {};
  const Object& names = memory.at(slotOf(memory, superclass, ClassInstVarNames));
  return {names.slots, names.slots + names.size};
}

// Fills the slots of a class object that exists.
void describeClass(Memory& memory, OopType oop, std::string_view name, OopType superclass,
                   std::uint32_t format, const std::vector<std::string>& instVarNames) {
  std::vector<OopType> all = inheritedNames(memory, superclass);
  for (const std::string& each : instVarNames) all.push_back(symbolOop(memory, each));
  const OopType names = arrayOop(memory, all);
  const OopType methods = memory.allocate(DictionaryClass, Impl::pointers, 0, 0, true);
  const OopType classMethods = memory.allocate(DictionaryClass, Impl::pointers, 0, 0, true);
  const OopType symbol = symbolOop(memory, name);
  OopType* slots = memory.at(oop).slots;
  slots[ClassSuperclass - 1] = superclass;
  slots[ClassFormat - 1] = smallIntOop(static_cast<std::int32_t>(format));
  slots[ClassInstVarCount - 1] = smallIntOop(static_cast<std::int32_t>(all.size()));
  slots[ClassInstVarNames - 1] = names;
  slots[ClassMethods - 1] = methods;
  slots[ClassClassMethods - 1] = classMethods;
  slots[ClassName - 1] = symbol;
  // What the interpreter relies on, nobody else changes.
  for (const OopType part : {oop, names, methods, classMethods}) memory.at(part).invariant = true;
}

// Appends the class to its history: that of the class it replaces, or a new one.
void recordInHistory(Memory& memory, OopType oop, OopType replaced) {
  OopType history = 0;
  if (replaced != 0) {
    history = slotOf(memory, replaced, ClassHistory);
    const ChangeOfInvariant change(memory, history);
    prepareWrite(memory, history);
    const std::uint32_t versions = memory.at(history).size;
    memory.resize(history, versions + 1).slots[versions] = oop;
  } else {
    history = arrayOop(memory, {oop});
    memory.at(history).classOop = ClassHistoryClass;
    memory.at(history).invariant = true;
  }
  memory.at(oop).slots[ClassHistory - 1] = history;
}

bool isClassName(std::string_view name) {
  return isName(name) && isUppercase(name[0]) && name.size() <= 64;
}

void requireVariableNames(Memory& memory, const std::vector<std::string>& names,
                          const std::vector<OopType>& inherited) {
  for (const std::string& name : names) {
    if (!isName(name) || isReserved(name)) {
      throw Failure(ErrBadArgumentKind, "'" + name + "' is no variable name");
    }
    const bool twice = std::count(names.begin(), names.end(), name) > 1 ||
                       std::count(inherited.begin(), inherited.end(), symbolOop(memory, name)) > 0;
    if (twice) throw Failure(ErrBadArgumentKind, "'" + name + "' is named twice");
  }
}

}  // namespace

void bootstrapClasses(Memory& memory) {
  for (const ClassSpec& entry : classSpecs) {
    memory.allocateFixed(entry.oop, ClassClass, Impl::pointers, classSlotCount, false);
  }
  memory.allocateFixed(GlobalsOop, DictionaryClass, Impl::pointers, 0, true);
  memory.allocateFixed(SystemErrCategoryOop, ErrorCategoryClass, Impl::pointers, 0, false)
      .invariant = true;
  for (const ClassSpec& entry : classSpecs) {
    describeClass(memory, entry.oop, entry.name, entry.superclass, entry.format,
                  wordsOf(entry.instVarNames));
    recordInHistory(memory, entry.oop, 0);
    dictionaryPut(memory, GlobalsOop, symbolOop(memory, entry.name), entry.oop);
  }
  dictionaryPut(memory, GlobalsOop, symbolOop(memory, "Globals"), GlobalsOop);
}

void requireChangeableSlot(const Memory& memory, OopType oop, std::size_t slot) {
  constexpr struct {
    OopType classOop;
    const char* why;
  } keepers[] = {
      {BagClass, "a Bag counts its elements itself: use its messages"},
      {SortedCollectionClass, "a SortedCollection places its elements itself: use sortBlock:"},
      {IntervalClass, "an Interval does not change"},
  };
  for (const auto& keeper : keepers) {
    if (!inheritsFrom(memory, classOf(memory, oop), keeper.classOop)) continue;
    const OopType count = slotOf(memory, keeper.classOop, ClassInstVarCount);
    if (slot < static_cast<std::size_t>(smallIntValue(count))) {
      throw Failure(ErrInvariant, keeper.why, {oop});
    }
  }
}

std::string_view kernelClassName(OopType classOop) {
  const auto* const found = std::ranges::find(classSpecs, classOop, &ClassSpec::oop);
  return found != std::end(classSpecs) ? found->name : "";
}

OopType kernelClassNamed(std::string_view name) {
  const auto* const found = std::ranges::find(classSpecs, name, &ClassSpec::name);
  return found != std::end(classSpecs) ? found->oop : 0;
}

bool isClass(const Memory& memory, OopType oop) {
  const Object* object = memory.look(oop);
  return object != nullptr && object->classOop == ClassClass;
}

OopType classOf(const Memory& memory, OopType oop) {
  if (isSmallInt(oop)) return SmallIntegerClass;
  if (const Object* object = memory.look(oop)) return object->classOop;
  if (isBoolean(oop)) return BooleanClass;
  if (isCharacter(oop)) return CharacterClass;
  return UndefinedObjectClass;
}

OopType superclassOf(const Memory& memory, OopType classOop) {
  return slotOf(memory, classOop, ClassSuperclass);
}

std::uint32_t formatOf(const Memory& memory, OopType classOop) {
  return static_cast<std::uint32_t>(smallIntValue(slotOf(memory, classOop, ClassFormat)));
}

std::string nameOf(const Memory& memory, OopType classOop) {
  return std::string(bytesOf(memory, slotOf(memory, classOop, ClassName)));
}

std::string methodName(const Memory& memory, OopType owner, bool classSide,
                       std::string_view selector) {
  std::string name = nameOf(memory, owner);
  if (classSide) name += " class";
  return selector.empty() ? name : name.append(">>").append(selector);
}

std::string withArticle(const std::string& name) {
  const bool vowel = std::string_view("AEIOU").find(name[0]) != std::string_view::npos;
  return (vowel ? "an " : "a ") + name;
}

std::string describe(const Memory& memory, OopType oop) {
  if (isClass(memory, oop)) return "the class " + nameOf(memory, oop);
  if (oop == NilOop) return "nil";
  if (isBoolean(oop)) return oop == TrueOop ? "true" : "false";
  return withArticle(nameOf(memory, classOf(memory, oop)));
}

void wrongKind(const Memory& memory, const std::string& expected, OopType argument) {
  throw Failure(ErrBadArgumentKind, expected + " is expected, not " + describe(memory, argument),
                {argument});
}

bool inheritsFrom(const Memory& memory, OopType classOop, OopType ancestor) {
  for (OopType at = classOop; at != NilOop; at = superclassOf(memory, at)) {
    if (at == ancestor) return true;
  }
  return false;
}

bool isKindOf(const Memory& memory, OopType oop, OopType classOop) {
  return inheritsFrom(memory, classOf(memory, oop), classOop);
}

bool copiesAreChangeable(const Memory& memory, OopType oop) {
  const Object* object = memory.look(oop);
  return object != nullptr && object->classOop != ClassClass &&
         (formatOf(memory, object->classOop) & FormatInvariant) == 0;
}

// Kept beside the memory's lookups, since every element of a collection is asked about.
std::uint8_t findTraits(Memory& memory, OopType oop, OopType key) {
  struct Message {
    const char* selector;
    std::uint8_t traits;
  };
  constexpr Message messages[] = {
      {"=", AsksEquality},
      {"hash", AsksEquality},
      {"printOn:", AsksStream | AsksPrint | AsksDisplay},
      {"printString", AsksPrint | AsksDisplay},
      {"displayString", AsksDisplay},
  };
  const bool classSide = (key & 2) != 0;
  const OopType classOop = memory.lookAt(oop).classOop;
  std::uint8_t traits = 0;
  for (const Message& each : messages) {
    const OopType selector = symbolOop(memory, each.selector);
    const OopType method = lookupMethod(memory, classSide ? oop : classOop, selector, classSide);
    if (method != 0 && memory.at(method).extra->routine->kind == Routine::Kind::code) {
      traits |= each.traits;
    }
  }
  constexpr OopType compared[] = {ArrayClassOop, OrderedCollectionClass, AssociationClass,
                                  DateTimeClassOop};
  for (const OopType each : compared) {
    if (inheritsFrom(memory, classOop, each)) traits |= ByContent;
  }
  memory.knownTraits[(key >> 2) % memory.knownTraits.size()] = {key, memory.lookupEpoch(), traits};
  return traits;
}

OopType newInstance(Memory& memory, OopType classOop, std::size_t indexed) {
  if (!isClass(memory, classOop)) wrongKind(memory, "a class", classOop);
  const std::uint32_t format = formatOf(memory, classOop);
  if ((format & FormatNotCreatable) != 0) {
    throw Failure(ErrBadArgumentKind,
                  "instances of " + nameOf(memory, classOop) + " cannot be made so", {classOop});
  }
  const bool indexable = (format & FormatIndexable) != 0;
  if (indexed != 0 && !indexable) {
    throw Failure(ErrBadArgumentKind, nameOf(memory, classOop) + " has no indexed part",
                  {classOop});
  }
  const auto named =
      static_cast<std::size_t>(smallIntValue(slotOf(memory, classOop, ClassInstVarCount)));
  const OopType oop =
      memory.allocate(classOop, static_cast<Impl>(format & FormatImpl), named, indexed, indexable);
  memory.at(oop).invariant = (format & FormatInvariant) != 0;
  return oop;
}

OopType makeSubclass(Memory& memory, OopType superclass, std::string_view name,
                     const std::vector<std::string>& instVarNames) {
  if (!isClass(memory, superclass)) wrongKind(memory, "a class", superclass);
  if (!isClassName(name)) {
    throw Failure(
        ErrBadArgumentKind,
        "'" + std::string(name) +
            "' is no class name: a capital letter first, then letters, digits and _, at most 64");
  }
  const std::uint32_t format = formatOf(memory, superclass);
  if ((format & FormatNotCreatable) != 0) {
    throw Failure(ErrBadArgumentKind, nameOf(memory, superclass) + " cannot have subclasses",
                  {superclass});
  }
  const bool holdsBytes = (format & FormatImpl) == asBytes;
  if (holdsBytes && !instVarNames.empty()) {
    throw Failure(ErrBadArgumentKind, "byte objects have no named instance variables",
                  {superclass});
  }
  requireVariableNames(memory, instVarNames, inheritedNames(memory, superclass));
  const OopType symbol = symbolOop(memory, name);
  const OopType known = dictionaryAt(memory, GlobalsOop, symbol);
  if (known != 0 && (!isClass(memory, known) || known >> 2 < firstFreeIndex)) {
    throw Failure(ErrBadArgumentKind, "the name " + std::string(name) + " is taken", {known});
  }
  prepareKeyWrite(memory, GlobalsOop, hashOfSymbol(memory, symbol));
  const OopType oop = memory.allocate(ClassClass, Impl::pointers, classSlotCount, 0, false);
  describeClass(memory, oop, name, superclass, format, instVarNames);
  recordInHistory(memory, oop, known);
  dictionaryPut(memory, GlobalsOop, symbol, oop);
  return oop;
}

OopType lookupMethod(Memory& memory, OopType classOop, OopType selector, bool classSide) {
  const ClassSlot slot = classSide ? ClassClassMethods : ClassMethods;
  for (OopType at = classOop; at != NilOop; at = superclassOf(memory, at)) {
    const OopType method = dictionaryAt(memory, slotOf(memory, at, slot), selector);
    if (method != 0) return method;
  }
  return classSide ? lookupMethod(memory, ClassClass, selector, false) : 0;
}

OopType lookupSuper(Memory& memory, OopType classOop, OopType selector, bool classSide) {
  return lookupMethod(memory, superclassOf(memory, classOop), selector, classSide);
}

}  // namespace zel
