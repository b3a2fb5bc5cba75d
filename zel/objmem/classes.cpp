#include "classes.h"

#include <algorithm>

#include "errors/failure.h"
#include "hashed.h"
#include "names.h"
#include "session/changes.h"
#include "values.h"

namespace zel {

namespace {

constexpr std::uint32_t asPointers = static_cast<std::uint32_t>(Impl::pointers);
constexpr std::uint32_t asBytes = static_cast<std::uint32_t>(Impl::bytes);
constexpr std::uint32_t asSet = static_cast<std::uint32_t>(Impl::set);
constexpr std::uint32_t asSpecial = static_cast<std::uint32_t>(Impl::special) | FormatNotCreatable;
constexpr std::uint32_t indexedPointers = asPointers | FormatIndexable;
constexpr std::uint32_t growingBytes = asBytes | FormatIndexable;
constexpr std::uint32_t fixedBytes = asBytes | FormatFixedSize | FormatNotCreatable;
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
    {LargeIntegerClass, "LargeInteger", IntegerClass, fixedBytes | FormatInvariant},
    {FloatClassOop, "Float", NumberClass, fixedBytes},
    {DateTimeClassOop, "DateTime", MagnitudeClass,
     asPointers | FormatNotCreatable | FormatInvariant, "year dayOfYear milliseconds timeZone"},
    {CollectionClass, "Collection", ObjectClass, asPointers},
    {SequenceClass, "SequenceableCollection", CollectionClass, indexedPointers},
    {ArrayClassOop, "Array", SequenceClass, indexedPointers},
    {OrderedCollectionClass, "OrderedCollection", SequenceClass, indexedPointers},
    {ByteArrayClass, "ByteArray", SequenceClass, growingBytes},
    {StringKindClassOop, "CharacterCollection", SequenceClass, growingBytes},
    {StringClassOop, "String", StringKindClassOop, growingBytes},
    {SymbolClass, "Symbol", StringClassOop, growingBytes | FormatNotCreatable | FormatInvariant},
    {DoubleByteStringClassOop, "DoubleByteString", StringKindClassOop, growingBytes},
    {SetClass, "Set", CollectionClass, asSet | FormatIndexable},
    {IdentitySetClass, "IdentitySet", SetClass, asSet | FormatIndexable},
    {DictionaryClass, "Dictionary", CollectionClass, indexedPointers},
    {AssociationClass, "Association", MagnitudeClass, asPointers, "key value"},
    {ClassClass, "Class", ObjectClass, internal,
     "superclass format instVarCount instVarNames category comment methods classMethods "
     "classVariables timeStamp name classHistory"},
    {ClassHistoryClass, "ClassHistory", ArrayClassOop, indexedPointers | FormatNotCreatable},
    {MethodClass, "CompiledMethod", ObjectClass, internal, "selector owner source"},
    {BlockClass, "Block", ObjectClass, internal, "environment receiver method number home"},
    {EnvironmentClass, "Environment", ObjectClass, internal | FormatIndexable},
    {ProcessClass, "Process", ObjectClass, internal},
    {ExceptionClass, "Exception", ObjectClass, asPointers, "messageText number arguments stack"},
    {ErrorClass, "Error", ExceptionClass, asPointers},
    {ZeroDivideClass, "ZeroDivide", ErrorClass, asPointers},
    {MessageNotUnderstoodClass, "MessageNotUnderstood", ErrorClass, asPointers},
    {SystemClass, "System", ObjectClass, internal},
    {ErrorCategoryClass, "ErrorCategory", ObjectClass, internal},
};

std::vector<std::string> wordsOf(std::string_view text) {
  std::vector<std::string> words;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(' '), text.size());
    if (end > 0) words.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return words;
}

OopType slotOf(OopType classOop, ClassSlot slot) {
  return findObject(classOop)->slots[slot - 1];
}

OopType symbolArray(const std::vector<std::string>& names, const std::vector<OopType>& inherited) {
  std::vector<OopType> all = inherited;
  for (const std::string& name : names) all.push_back(symbolOop(name));
  return arrayOop(all);
}

// Fills the slots of a class object that exists.
void describeClass(OopType oop, std::string_view name, OopType superclass, std::uint32_t format,
                   const std::vector<std::string>& instVarNames) {
  std::vector<OopType> inherited;
  if (superclass != NilOop) {
    inherited = findObject(slotOf(superclass, ClassInstVarNames))->slots;
  }
  const OopType names = symbolArray(instVarNames, inherited);
  const OopType methods = allocate(DictionaryClass, Impl::pointers, 0, 0, true);
  const OopType classMethods = allocate(DictionaryClass, Impl::pointers, 0, 0, true);
  const OopType symbol = symbolOop(name);
  std::vector<OopType>& slots = findObject(oop)->slots;
  slots.assign(classSlotCount, NilOop);
  slots[ClassSuperclass - 1] = superclass;
  slots[ClassFormat - 1] = smallIntOop(static_cast<std::int32_t>(format));
  slots[ClassInstVarCount - 1] =
      smallIntOop(static_cast<std::int32_t>(findObject(names)->slots.size()));
  slots[ClassInstVarNames - 1] = names;
  slots[ClassMethods - 1] = methods;
  slots[ClassClassMethods - 1] = classMethods;
  slots[ClassName - 1] = symbol;
  // What the interpreter relies on, nobody else changes.
  for (const OopType part : {oop, names, methods, classMethods}) {
    findObject(part)->invariant = true;
  }
}

// Appends the class to its history: that of the class it replaces, or a new one.
void recordInHistory(OopType oop, OopType replaced) {
  OopType history = 0;
  if (replaced != 0) {
    history = slotOf(replaced, ClassHistory);
    const ChangeOfInvariant change(history);
    Object& versions = *findObject(history);
    resizeBody(versions, versions.slots.size() + 1);
    versions.slots.back() = oop;
  } else {
    history = allocate(ClassHistoryClass, Impl::pointers, 0, 1, true);
    findObject(history)->slots[0] = oop;
    findObject(history)->invariant = true;
  }
  findObject(oop)->slots[ClassHistory - 1] = history;
}

bool isClassName(std::string_view name) {
  return isName(name) && isUppercase(name[0]) && name.size() <= 64;
}

void requireVariableNames(const std::vector<std::string>& names,
                          const std::vector<OopType>& inherited) {
  for (const std::string& name : names) {
    if (!isName(name)) throw Failure(ErrBadArgumentKind, "'" + name + "' is no variable name");
    const bool twice = std::count(names.begin(), names.end(), name) > 1 ||
                       std::count(inherited.begin(), inherited.end(), symbolOop(name)) > 0;
    if (twice) throw Failure(ErrBadArgumentKind, "'" + name + "' is named twice");
  }
}

}  // namespace

void bootstrapClasses() {
  for (const ClassSpec& entry : classSpecs) {
    allocateFixed(entry.oop, ClassClass, Impl::pointers, classSlotCount, false);
  }
  allocateFixed(GlobalsOop, DictionaryClass, Impl::pointers, 0, true);
  allocateFixed(SystemErrCategoryOop, ErrorCategoryClass, Impl::pointers, 0, false).invariant =
      true;
  for (const ClassSpec& entry : classSpecs) {
    describeClass(entry.oop, entry.name, entry.superclass, entry.format,
                  wordsOf(entry.instVarNames));
    recordInHistory(entry.oop, 0);
    dictionaryPut(GlobalsOop, symbolOop(entry.name), entry.oop);
  }
  dictionaryPut(GlobalsOop, symbolOop("Globals"), GlobalsOop);
}

bool isClass(OopType oop) {
  const Object* object = findObject(oop);
  return object != nullptr && object->classOop == ClassClass;
}

OopType classOf(OopType oop) {
  if (isSmallInt(oop)) return SmallIntegerClass;
  if (const Object* object = findObject(oop)) return object->classOop;
  if (isBoolean(oop)) return BooleanClass;
  if (isCharacter(oop)) return CharacterClass;
  return UndefinedObjectClass;
}

OopType superclassOf(OopType classOop) {
  return slotOf(classOop, ClassSuperclass);
}

std::uint32_t formatOf(OopType classOop) {
  return static_cast<std::uint32_t>(smallIntValue(slotOf(classOop, ClassFormat)));
}

std::string nameOf(OopType classOop) {
  return std::string(bytesOf(slotOf(classOop, ClassName)));
}

bool inheritsFrom(OopType classOop, OopType ancestor) {
  for (OopType at = classOop; at != NilOop; at = superclassOf(at)) {
    if (at == ancestor) return true;
  }
  return false;
}

bool isKindOf(OopType oop, OopType classOop) {
  return inheritsFrom(classOf(oop), classOop);
}

OopType newInstance(OopType classOop, std::size_t indexed) {
  if (!isClass(classOop)) throw Failure(ErrBadArgumentKind, "a class is expected", {classOop});
  const std::uint32_t format = formatOf(classOop);
  if ((format & FormatNotCreatable) != 0) {
    throw Failure(ErrBadArgumentKind, "instances of " + nameOf(classOop) + " cannot be made so",
                  {classOop});
  }
  const bool indexable = (format & FormatIndexable) != 0;
  if (indexed != 0 && !indexable) {
    throw Failure(ErrBadArgumentKind, nameOf(classOop) + " has no indexed part", {classOop});
  }
  const auto named = static_cast<std::size_t>(smallIntValue(slotOf(classOop, ClassInstVarCount)));
  const OopType oop =
      allocate(classOop, static_cast<Impl>(format & FormatImpl), named, indexed, indexable);
  findObject(oop)->invariant = (format & FormatInvariant) != 0;
  return oop;
}

OopType makeSubclass(OopType superclass, std::string_view name,
                     const std::vector<std::string>& instVarNames) {
  if (!isClass(superclass)) throw Failure(ErrBadArgumentKind, "a class is expected", {superclass});
  if (!isClassName(name)) {
    throw Failure(
        ErrBadArgumentKind,
        "'" + std::string(name) +
            "' is no class name: a capital letter first, then letters, digits and _, at most 64");
  }
  const std::uint32_t format = formatOf(superclass);
  if ((format & FormatNotCreatable) != 0) {
    throw Failure(ErrBadArgumentKind, nameOf(superclass) + " cannot have subclasses", {superclass});
  }
  const bool holdsBytes = (format & FormatImpl) == asBytes;
  if (holdsBytes && !instVarNames.empty()) {
    throw Failure(ErrBadArgumentKind, "byte objects have no named instance variables",
                  {superclass});
  }
  requireVariableNames(instVarNames, findObject(slotOf(superclass, ClassInstVarNames))->slots);
  const OopType symbol = symbolOop(name);
  const OopType known = dictionaryAt(GlobalsOop, symbol);
  if (known != 0 && (!isClass(known) || known >> 2 < firstFreeIndex)) {
    throw Failure(ErrBadArgumentKind, "the name " + std::string(name) + " is taken", {known});
  }
  prepareWrite(GlobalsOop);
  const OopType oop = allocate(ClassClass, Impl::pointers, classSlotCount, 0, false);
  describeClass(oop, name, superclass, format, instVarNames);
  recordInHistory(oop, known);
  dictionaryPut(GlobalsOop, symbol, oop);
  return oop;
}

}  // namespace zel
