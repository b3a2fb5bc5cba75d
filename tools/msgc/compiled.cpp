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

std::uint32_t hashOf(const std::string& symbol) {
  return static_cast<std::uint32_t>(
      HashStrHash(reinterpret_cast<const ByteType*>(symbol.data()), symbol.size(), 1));
}

void putInteger(std::string* out, std::uint32_t value, const ByteOrder& order) {
  for (const unsigned char significance : order) {
    out->push_back(static_cast<char>(value >> 8 * significance & 0xFF));
  }
}

template <typename Items>
std::uint32_t size32(const Items& items) {
  return static_cast<std::uint32_t>(items.size());
}

// Whether a look-up of the symbol ends at that place of the table.
bool isFoundAt(std::uint32_t place, const ErrUtlBytes& contents, const ErrUtlHdrSType& header,
               const std::string& symbol) {
  std::uint32_t index = 0;
  ErrUtlHashSType slot;
  return errUtlSearch(contents, header, symbol.c_str(), symbol.size(), hashOf(symbol), index,
                      slot) == ErrUtlSearch::found &&
         index == place;
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
  std::vector<ErrUtlHashSType> slots(tabSize);
  std::vector<ErrUtlHashSType*> slotOf;
  for (const Message& message : messages) {
    const std::uint32_t hash = hashOf(message.symbol);
    std::uint32_t index = hash % tabSize;
    while (slots[index].valLoc != 0) index = (index + 1) % tabSize;
    ErrUtlHashSType& slot = slots[index];
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
  for (const ErrUtlHashSType& slot : slots) {
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
  std::vector<ErrUtlHashSType> table;
  std::vector<std::uint32_t> used;  // places in the table
  for (ErrUtlHashSType slot; table.size() < header.tabSize; table.push_back(slot)) {
    if (!errUtlSlotAt(contents, header, size32(table), slot)) {
      faults->add(file, 0, "the file ends within its table, before slot %zu", table.size());
      break;
    }
    if (slot.valLoc != 0) used.push_back(size32(table));
  }
  std::sort(used.begin(), used.end(), [&](std::uint32_t one, std::uint32_t other) {
    return table[one].valLoc < table[other].valLoc;
  });
  std::uint32_t last = 0;
  for (const std::uint32_t place : used) {
    const ErrUtlHashSType& slot = table[place];
    ErrUtlEntrySType entry;
    BoolType syntaxErr = 0;
    if (slot.valLoc == std::exchange(last, slot.valLoc)) {
      faults->add(file, 0, "several slots lead to offset %u", slot.valLoc);
    } else if (!errUtlEntryAt(contents, slot.valLoc, &entry, &syntaxErr) || syntaxErr != 0) {
      faults->add(file, 0, "there is no entry at offset %u", slot.valLoc);
    } else if (slot.hash != hashOf(entry.sym)) {
      faults->add(file, 0, "symbol %s cannot be found by its hash", entry.sym);
    } else if (!isFoundAt(place, contents, header, entry.sym)) {
      faults->add(file, 0, "a look-up does not find symbol %s in its slot", entry.sym);
    } else {
      messages.push_back(messageOf(entry, 0));
    }
  }
  return messages;
}
