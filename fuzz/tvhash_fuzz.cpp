// Drives a keyed hash table and a std::map with operations read from the input. The first byte
// sets the kind of key; then each operation is one byte and a key of up to 15 bytes.
#include <povzel/tvhash.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>

#include <povzel/utlheap.h>
#include "require.h"

namespace {

using Model = std::map<std::string, TvHashEntry*>;

// What the table takes for a key of those bytes, which are made to fit: cut at a NUL, or filled up
// to whole words.
const char* keyOf(std::string* bytes, long keyType) {
  const auto words = static_cast<std::size_t>(keyType);
  bytes->resize(words == 0 ? std::strlen(bytes->c_str()) : words * sizeof(long));
  const char* key = bytes->c_str();
  if (keyType == 1) std::memcpy(&key, bytes->data(), sizeof(void*));
  return key;
}

void enumerate(TvHashTable* table, Model* model, bool deletes) {
  std::size_t visited = 0;
  TvHashSearch search;
  for (TvHashEntry* entry = TvFirstHashEntry(table, &search); entry != nullptr;
       entry = TvNextHashEntry(&search)) {
    ++visited;
    if (deletes) TvDeleteHashEntry(entry);
  }
  require(visited == model->size());
  if (deletes) model->clear();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const ByteType* data, std::size_t size) {
  if (size == 0) return 0;
  const long keyType = *data % 4;
  const ByteType* const end = data + size;
  TvHashTable table;
  TvInitHashTable(&table, keyType);
  Model model;
  for (++data; data != end;) {
    const ByteType operation = *data++;
    const auto length = std::min<long>(operation % 16, end - data);
    std::string bytes(data, data + length);
    const char* const key = keyOf(&bytes, keyType);
    data += length;
    const auto known = model.find(bytes);
    TvHashEntry* const found = table.findProc(&table, key);
    require(found == (known != model.end() ? known->second : nullptr));
    long isNew = 7;
    if (operation < 32) {
      enumerate(&table, &model, operation < 16);
      UtlFree(TvHashStats(&table));
    } else if (operation < 80 && found != nullptr) {
      TvDeleteHashEntry(found);
      model.erase(known);
    } else if (operation >= 80) {
      TvHashEntry* const entry = table.createProc(&table, key, &isNew);
      require(isNew == (found == nullptr ? 1 : 0) && (found == nullptr || entry == found));
      model[bytes] = entry;
    }
    require(table.numEntries == static_cast<long>(model.size()));
  }
  TvDeleteHashTable(&table);
  return 0;
}
