// Object identifiers: how the embedded database encodes values in them, and the fixed ones.
//
// The low bits of an oop say what it is: 11 a small integer of 30 bits, 01110 a character, its
// code above them, 10 and 6 and 38 are nil, false and true, and 01 a reference: an index into the
// object table. Oops 0 and 1 name nothing.
#pragma once

#include <cstdint>

#include <povzel/zeltable.h>

namespace zel {

constexpr OopType NoOop = 1;  // answered where there is no object to answer

constexpr std::int32_t smallIntMax = (1 << 29) - 1;
constexpr std::int32_t smallIntMin = -(1 << 29);

constexpr bool isSmallInt(OopType oop) {
  return (oop & 3) == 3;
}
constexpr bool fitsSmallInt(std::int64_t value) {
  return value >= smallIntMin && value <= smallIntMax;
}
constexpr std::int32_t smallIntValue(OopType oop) {
  return static_cast<std::int32_t>(oop) >> 2;
}
constexpr OopType smallIntOop(std::int32_t value) {
  return static_cast<OopType>(value) << 2 | 3;
}

constexpr std::uint32_t largestCharacter = 0x10FFFF;

constexpr bool isCharacter(OopType oop) {
  return (oop & 31) == 14 && oop <= (largestCharacter << 5 | 14);
}
constexpr std::uint32_t characterCode(OopType oop) {
  return oop >> 5;
}
constexpr OopType characterOop(std::uint32_t code) {
  return code << 5 | 14;
}

constexpr bool isBoolean(OopType oop) {
  return oop == FalseOop || oop == TrueOop;
}
constexpr OopType booleanOop(bool value) {
  return value ? TrueOop : FalseOop;
}
constexpr bool isImmediate(OopType oop) {
  return isSmallInt(oop) || isCharacter(oop) || isBoolean(oop) || oop == NilOop;
}
constexpr bool isReference(OopType oop) {
  return (oop & 3) == 1 && oop != NoOop;
}

constexpr OopType fixedOop(std::uint32_t index) {
  return index << 2 | 1;
}

// Fixed objects beyond those that the client knows. All lie below the first index given out.
constexpr std::uint32_t firstFreeIndex = 1024;
constexpr OopType ObjectClass = fixedOop(256);
constexpr OopType UndefinedObjectClass = fixedOop(257);
constexpr OopType BooleanClass = fixedOop(258);
constexpr OopType MagnitudeClass = fixedOop(259);
constexpr OopType CharacterClass = fixedOop(260);
constexpr OopType NumberClass = fixedOop(262);
constexpr OopType IntegerClass = fixedOop(263);
constexpr OopType SmallIntegerClass = fixedOop(264);
constexpr OopType LargeIntegerClass = fixedOop(265);
constexpr OopType CollectionClass = fixedOop(266);
constexpr OopType SequenceClass = fixedOop(267);
constexpr OopType OrderedCollectionClass = fixedOop(268);
constexpr OopType SetClass = fixedOop(269);
constexpr OopType IdentitySetClass = fixedOop(270);
constexpr OopType DictionaryClass = fixedOop(271);
constexpr OopType ByteArrayClass = fixedOop(272);
constexpr OopType SymbolClass = fixedOop(273);
constexpr OopType ClassClass = fixedOop(274);
constexpr OopType MethodClass = fixedOop(275);
constexpr OopType BlockClass = fixedOop(276);
constexpr OopType ProcessClass = fixedOop(277);
constexpr OopType EnvironmentClass = fixedOop(278);
constexpr OopType ClassHistoryClass = fixedOop(279);
constexpr OopType AssociationClass = fixedOop(280);
constexpr OopType ExceptionClass = fixedOop(281);
constexpr OopType ErrorClass = fixedOop(282);
constexpr OopType SystemClass = fixedOop(283);
constexpr OopType ErrorCategoryClass = fixedOop(284);
constexpr OopType ZeroDivideClass = fixedOop(285);
constexpr OopType MessageNotUnderstoodClass = fixedOop(286);
constexpr OopType WriteStreamClass = fixedOop(290);
constexpr OopType ReadStreamClass = fixedOop(291);
constexpr OopType StreamClass = fixedOop(293);
constexpr OopType ReadWriteStreamClass = fixedOop(294);
constexpr OopType IntervalClass = fixedOop(295);
constexpr OopType BagClass = fixedOop(296);
constexpr OopType SortedCollectionClass = fixedOop(297);
constexpr OopType TranscriptClass = fixedOop(298);
constexpr OopType NotificationClass = fixedOop(320);
constexpr OopType WarningClass = fixedOop(321);
constexpr OopType ExceptionSetClass = fixedOop(322);
constexpr OopType MessageClass = fixedOop(323);
constexpr OopType IdentityDictionaryClass = fixedOop(340);
constexpr OopType GlobalsOop = fixedOop(512);   // Dictionary of symbol to value
constexpr OopType SystemErrCategoryOop = 3613;  // category of every error raised here
static_assert(isReference(SystemErrCategoryOop) && SystemErrCategoryOop >> 2 < firstFreeIndex);

}  // namespace zel
