// Writing compiled files and reading them back.
//
// Header and table come first, then the key strings of symbols that share their hash with another
// one, then the entries in the order of the source.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unordered_map>
#include <utility>

#include <povzel/errutl.h>
#include <povzel/hash.h>
#include "messages.h"
#include "messages/internal.h"

namespace {

constexpr std::size_t longestLine = 2047;
constexpr std::uint32_t smallestTable = 64;

struct Slot {
  std::uint32_t hash = 0;
  std::uint32_t keyLoc = 0;
  std::uint32_t valLoc = 0;
};

std::uint32_t hashOf(const std::string& symbol) {
  return static_cast<std::uint32_t>(
      HashStrHash(reinterpret_cast<const ByteType*>(symbol.data()), symbol.size(), 1));
}

void putInteger(std::string* out, std::uint32_t value, const ByteOrder& order) {
  for (const unsigned char significance : order) {
    out->push_back(static_cast<char>(value >> 8 * significance & 0xFF));
  }
}

std::uint32_t size32(const std::string& bytes) {
  return static_cast<std::uint32_t>(bytes.size());
}

// Whether a look-up of the symbol ends at that place of a table, of which the file holds `table`.
bool isFoundAt(std::uint32_t place, const std::vector<Slot>& table, std::uint32_t tabSize,
               const ErrUtlBytes& contents, const std::string& symbol) {
  const std::uint32_t hash = hashOf(symbol);
  const std::size_t size = symbol.size() + 1;
  for (std::uint32_t index = hash % tabSize;; index = (index + 1) % tabSize) {
    if (index >= table.size() || table[index].valLoc == 0) return false;
    const Slot& slot = table[index];
    if (slot.hash == hash) {
      if (slot.keyLoc == 0) return index == place;
      if (!contents.holds(slot.keyLoc, size)) return false;
      const void* key = contents.data + slot.keyLoc;
      if (std::memcmp(key, symbol.c_str(), size) == 0) return index == place;
    }
    if (index == place) return false;
  }
}

std::string orderList(const std::vector<int>& order) {
  std::string list;
  for (const int numeral : order) list += (list.empty() ? "(" : " ") + std::to_string(numeral);
  return list.empty() ? list : list + ")";
}

}  // namespace

std::string entryLines(const Message& message) {
  const std::string list = orderList(message.order);
  const std::size_t length = message.symbol.size() + list.size() + 1 + message.text.size();
  std::string lines = message.symbol;
  const bool hasRoom = length + 2 <= longestLine;
  if (hasRoom && !list.empty()) lines += ' ';
  lines += list;
  if (hasRoom) lines += ' ';
  lines += ':' + message.text;
  // A backslash that ends the text must not continue the line: an empty line continues it instead.
  if (!message.text.empty() && message.text.back() == '\\') lines += "\\\n";
  return lines + '\n';
}

std::string compile(const std::vector<Message>& messages, const ByteOrder& order) {
  std::uint32_t tabSize = smallestTable;
  while (tabSize < 2 * messages.size()) tabSize *= 2;
  std::unordered_map<std::uint32_t, int> symbolsOf;
  for (const Message& message : messages) ++symbolsOf[hashOf(message.symbol)];

  const auto keysBegin = static_cast<std::uint32_t>(sizeof(ErrUtlHdrSType)) +
                         tabSize * static_cast<std::uint32_t>(sizeof(ErrUtlHashSType));
  std::string keys;
  std::string entries;
  std::vector<Slot> slots(tabSize);
  std::vector<Slot*> slotOf;
  for (const Message& message : messages) {
    const std::uint32_t hash = hashOf(message.symbol);
    std::uint32_t index = hash % tabSize;
    while (slots[index].valLoc != 0) index = (index + 1) % tabSize;
    Slot& slot = slots[index];
    slot = {hash, 0, 1};
    if (symbolsOf[hash] > 1) {
      slot.keyLoc = keysBegin + size32(keys);
      keys += message.symbol + '\0';
    }
    slotOf.push_back(&slot);
  }
  const std::uint32_t textBegin = keysBegin + size32(keys);
  for (std::size_t i = 0; i < messages.size(); ++i) {
    slotOf[i]->valLoc = textBegin + size32(entries);
    entries += entryLines(messages[i]);
  }

  std::string file(reinterpret_cast<const char*>(ErrUtlGetMagic()), sizeof magicArray);
  file.append(order.begin(), order.end());
  for (const std::uint32_t value : {1u, tabSize, textBegin}) putInteger(&file, value, order);
  for (const Slot& slot : slots) {
    for (const std::uint32_t value : {slot.hash, slot.keyLoc, slot.valLoc}) {
      putInteger(&file, value, order);
    }
  }
  return file + keys + entries;
}

std::vector<Message> readCompiled(const std::string& file, ByteOrder* order, Faults* faults) {
  std::vector<Message> messages;
  std::string bytes;
  if (!readBytes(file, &bytes, faults)) return messages;
  ErrUtlHdrSType header;
  if (!ErrUtlReadHdr(Stream(&bytes).file, &header)) {
    faults->add(file, 0, "is not a compiled file that can be used");
    return messages;
  }
  std::copy(header.transform, header.transform + order->size(), order->begin());
  const ErrUtlBytes contents{reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
                             file.c_str()};
  std::vector<Slot> table;
  std::vector<std::uint32_t> used;  // places in the table
  for (std::uint32_t i = 0; i < header.tabSize; ++i) {
    const std::uint64_t at = sizeof header + std::uint64_t{sizeof(ErrUtlHashSType)} * i;
    if (!contents.holds(at, sizeof(ErrUtlHashSType))) {
      faults->add(file, 0, "the file ends within its table, before slot %u", i);
      break;
    }
    const auto integer = [&](int place) {
      return errUtlDecode(contents.data + at + 4 * place, header.transform);
    };
    table.push_back({integer(0), integer(1), integer(2)});
    if (integer(2) != 0) used.push_back(i);
  }
  std::sort(used.begin(), used.end(), [&](std::uint32_t one, std::uint32_t other) {
    return table[one].valLoc < table[other].valLoc;
  });
  std::uint32_t last = 0;
  for (const std::uint32_t place : used) {
    const Slot& slot = table[place];
    ErrUtlEntrySType entry;
    BoolType syntaxErr = 0;
    if (slot.valLoc == std::exchange(last, slot.valLoc)) {
      faults->add(file, 0, "several slots lead to offset %u", slot.valLoc);
    } else if (!errUtlEntryAt(contents, slot.valLoc, &entry, &syntaxErr) || syntaxErr != 0) {
      faults->add(file, 0, "there is no entry at offset %u", slot.valLoc);
    } else if (slot.hash != hashOf(entry.sym)) {
      faults->add(file, 0, "symbol %s cannot be found by its hash", entry.sym);
    } else if (!isFoundAt(place, table, header.tabSize, contents, entry.sym)) {
      faults->add(file, 0, "a look-up does not find symbol %s in its slot", entry.sym);
    } else {
      messages.push_back(messageOf(entry, 0));
    }
  }
  return messages;
}
