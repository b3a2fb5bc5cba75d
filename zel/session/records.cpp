#include "records.h"

#include <bit>
#include <cstring>

#include "lang/compiler.h"
#include "objmem/classes.h"
#include "objmem/hashed.h"
#include "objmem/values.h"
#include "recordformat.h"

namespace zel {

namespace {

class Writer {
 public:
  Writer(Memory& memory, const IdForFType& idFor) : memory_(memory), idFor_(idFor) {}
  std::string bytes;

  void number(std::uint64_t value) { appendNumber(bytes, value); }
  void text(std::string_view text) {
    number(text.size());
    bytes += text;
  }
  void value(OopType oop) {
    if (oop == NilOop) return tag(Tag::nil);
    if (isBoolean(oop)) return tag(oop == TrueOop ? Tag::trueValue : Tag::falseValue);
    if (isSmallInt(oop)) {
      tag(Tag::smallInteger);
      return number(zigzag(smallIntValue(oop)));
    }
    if (isCharacter(oop)) {
      tag(Tag::character);
      return number(characterCode(oop));
    }
    object(oop);
  }

 private:
  void tag(Tag tag) { bytes += static_cast<char>(tag); }

  void object(OopType oop) {
    const Object& object = memory_.lookAt(oop);
    if (object.classOop == FloatClassOop) {
      tag(Tag::floatNumber);
      bytes.append(object.text());
    } else if (object.classOop == LargeIntegerClass) {
      tag(Tag::largeInteger);
      text(object.text());
    } else if (object.classOop == SymbolClass) {
      tag(Tag::symbol);
      text(object.text());
    } else if (object.classOop == MethodClass && oop >> 2 < Memory::kernelEnd) {
      const OopType owner = object.slots[MethodOwner];
      const OopType selector = object.slots[MethodSelector];
      tag(Tag::kernelMethod);
      number(idFor_(owner));
      bytes += isClassSide(object) ? '\1' : '\0';
      text(bytesOf(memory_, selector));
    } else {
      tag(Tag::reference);
      number(idFor_(oop));
    }
  }

  static bool isClassSide(const Object& method) { return method.extra->routine->classSide; }

  Memory& memory_;
  const IdForFType& idFor_;
};

class Decoder {
 public:
  Decoder(Memory& memory, const Row& row,
          const std::function<OopType(const KernelMethod&)>& kernelMethod)
      : reader(row), memory_(memory), kernelMethod_(kernelMethod) {}
  RowReader reader;

  OopType reference(ObjectId id) { return fixedOop(memory_.learn(id)); }

  OopType value() {
    switch (Tag{reader.byte()}) {
      case Tag::nil:
        return NilOop;
      case Tag::falseValue:
        return FalseOop;
      case Tag::trueValue:
        return TrueOop;
      case Tag::smallInteger:
        return smallInteger();
      case Tag::character:
        return characterOop(static_cast<std::uint32_t>(reader.number()));
      case Tag::floatNumber: {
        std::uint64_t bits = 0;
        std::memcpy(&bits, reader.text(sizeof bits).data(), sizeof bits);
        return memory_.allocateNumber(FloatClassOop, bits);
      }
      case Tag::largeInteger:
        return largeInteger(reader.sizedText());
      case Tag::symbol:
        return symbolOop(memory_, reader.sizedText());
      case Tag::reference:
        return reference(reader.number());
      case Tag::kernelMethod: {
        const OopType owner = reference(reader.number());
        const bool classSide = reader.byte() != 0;
        const OopType selector = symbolOop(memory_, reader.sizedText());
        const OopType method = kernelMethod_({owner, classSide, selector});
        // A version of the library that has it no more.
        return method != 0 ? method : NilOop;
      }
    }
    reader.damaged();
  }

 private:
  OopType smallInteger() {
    const std::int32_t value = fromZigzag(static_cast<std::uint32_t>(reader.number()));
    if (!fitsSmallInt(value)) reader.damaged();
    return smallIntOop(value);
  }
  OopType largeInteger(std::string_view bytes) {
    if (bytes.size() == sizeof(std::uint64_t)) {
      std::uint64_t bits = 0;
      std::memcpy(&bits, bytes.data(), sizeof bits);
      return memory_.allocateNumber(LargeIntegerClass, bits);
    }
    const OopType oop = memory_.allocate(LargeIntegerClass, Impl::bytes, 0, bytes.size(), false);
    Object& object = memory_.at(oop);
    std::copy(bytes.begin(), bytes.end(), object.bytes);
    object.fixedSize = object.invariant = true;
    return oop;
  }

  Memory& memory_;
  const std::function<OopType(const KernelMethod&)>& kernelMethod_;
};

bool isClassSide(const Object& object) {
  return object.classOop == MethodClass && object.extra->routine->classSide;
}

void requireStorable(const Memory& memory, OopType oop) {
  if (memory.at(oop).classOop != ProcessClass) return;
  throw Failure(ErrBadArgumentKind, "a Process cannot be stored", {oop});
}

}  // namespace

std::string encodeObject(Memory& memory, OopType oop, const IdForFType& idFor) {
  requireStorable(memory, oop);
  const bool hashed = isHashed(memory, oop);
  const std::uint32_t identityHash = memory.identityHashOf(oop);
  const Object& object = memory.at(oop);
  const std::uint32_t size = hashed ? object.namedSize : object.size;
  Writer writer(memory, idFor);
  writer.bytes += static_cast<char>(
      static_cast<std::uint8_t>(object.impl) | (object.indexable ? FormIndexable : 0) |
      (object.fixedSize ? FormFixedSize : 0) | (object.invariant ? FormInvariant : 0) |
      (hashed ? FormHashed : 0) | (isClassSide(object) ? FormClassSide : 0));
  writer.number(identityHash);
  writer.number(object.namedSize);
  writer.number(size);
  if (object.holdsBytes()) {
    writer.bytes += object.text();
    return std::move(writer.bytes);
  }
  memory.meter.chargeRead(size * sizeof(OopType));
  for (std::uint32_t i = 0; i < size; ++i) {
    // The activation that ^ in a block returns from has ended when others load it.
    const bool ended = object.classOop == BlockClass && isHomeOfBlock(i);
    writer.value(ended ? smallIntOop(0) : object.slots[i]);
  }
  return std::move(writer.bytes);
}

std::string encodeElements(Memory& memory, std::span<const OopType> slots, bool asked,
                           const IdForFType& idFor) {
  Writer writer(memory, idFor);
  writer.bytes += asked ? '\1' : '\0';
  for (const OopType slot : slots) writer.value(slot);
  return std::move(writer.bytes);
}

void decodeObject(Memory& memory, std::uint32_t index, const Row& row,
                  const std::function<OopType(const KernelMethod&)>& kernelMethod) {
  Decoder decoder(memory, row, kernelMethod);
  RowReader& reader = decoder.reader;
  const std::uint8_t form = reader.byte();
  const auto identityHash = static_cast<std::uint32_t>(reader.number());
  const std::uint64_t named = reader.number();
  const std::uint64_t size = reader.number();
  const auto impl = static_cast<Impl>(form & FormImpl);
  if (named > UINT16_MAX || size > row.bytes.size()) reader.damaged();
  const OopType oop = fixedOop(index);
  memory.placeLoaded(index, decoder.reference(row.classId), impl, static_cast<std::size_t>(named),
                     static_cast<std::size_t>(size), (form & FormIndexable) != 0);
  Object& object = memory.at(oop);
  object.identityHash = identityHash;
  object.fixedSize = (form & FormFixedSize) != 0;
  object.invariant = (form & FormInvariant) != 0;
  if (impl == Impl::bytes) {
    const std::string_view bytes = reader.text(size);
    std::copy(bytes.begin(), bytes.end(), object.bytes);
  } else {
    for (std::uint32_t i = 0; i < size; ++i) object.slots[i] = decoder.value();
  }
  if (!reader.atEnd()) reader.damaged();
  if ((form & FormHashed) != 0) startElements(memory, oop, strideOf(memory, oop));
  if (object.classOop == MethodClass) compileAgain(memory, oop, (form & FormClassSide) != 0);
}

std::vector<OopType> decodeElements(
    Memory& memory, const Row& row,
    const std::function<OopType(const KernelMethod&)>& kernelMethod) {
  Decoder decoder(memory, row, kernelMethod);
  decoder.reader.byte();
  std::vector<OopType> slots;
  while (!decoder.reader.atEnd()) slots.push_back(decoder.value());
  return slots;
}

bool isAsked(const Row& row) {
  return RowReader(row).byte() != 0;
}

void referencesOf(const Row& row, std::vector<ObjectId>& ids) {
  RowReader reader(row);
  if (row.place.part == Place::itself) {
    ids.push_back(row.classId);
    const std::uint8_t form = reader.byte();
    for (int i = 0; i < 3; ++i) reader.number();
    if (static_cast<Impl>(form & FormImpl) == Impl::bytes) return;
  } else {
    reader.byte();
  }
  while (!reader.atEnd()) {
    switch (Tag{reader.byte()}) {
      case Tag::nil:
      case Tag::falseValue:
      case Tag::trueValue:
        break;
      case Tag::smallInteger:
      case Tag::character:
        reader.number();
        break;
      case Tag::floatNumber:
        reader.text(sizeof(double));
        break;
      case Tag::largeInteger:
      case Tag::symbol:
        reader.sizedText();
        break;
      case Tag::reference:
        ids.push_back(reader.number());
        break;
      case Tag::kernelMethod:
        ids.push_back(reader.number());
        reader.byte();
        reader.sizedText();
        break;
      default:
        reader.damaged();
    }
  }
}

}  // namespace zel
