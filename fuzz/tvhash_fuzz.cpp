// Drives a keyed hash table and a std::map with operations read from the input. The first byte
// sets the kind of key; then each operation is one byte and a key of up to 15 bytes.
#include <povzel/tvhash.h>

#include <cstring>
#include <map>
#include <string>

#include <povzel/utlheap.h>
#include "require.h"

namespace {

using Model = std::map<std::string, TvHashEntry*>;

// The input's bytes as a key of the table: cut at a NUL, or filled up to whole words.
class Key {
 public:
  Key(long keyType, const ByteType* data, std::size_t size)
      : keyType_(keyType), bytes_(reinterpret_cast<const char*>(data), size) {
    if (keyType == 0) {
      bytes_ = bytes_.c_str();
    } else {
      bytes_.resize(static_cast<std::size_t>(keyType) * sizeof(long));
    }
  }

  const std::string& bytes() const { return bytes_; }

  const char* pointer() const {
    if (keyType_ != 1) return bytes_.c_str();
    const char* word;
    std::memcpy(&word, bytes_.data(), sizeof word);
    return word;
  }

 private:
  long keyType_;
  std::string bytes_;
};

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
    const auto left = static_cast<std::size_t>(end - data);
    const std::size_t length = operation % 16U < left ? operation % 16U : left;
    const Key key(keyType, data, length);
    data += length;
    const auto known = model.find(key.bytes());
    TvHashEntry* const found = table.findProc(&table, key.pointer());
    require(found == (known != model.end() ? known->second : nullptr));
    long isNew = 7;
    switch (operation / 16) {
      case 0:
        enumerate(&table, &model, true);
        break;
      case 1:
        enumerate(&table, &model, false);
        UtlFree(TvHashStats(&table));
        break;
      case 2:
      case 3:
      case 4:
        if (found == nullptr) break;
        TvDeleteHashEntry(found);
        model.erase(known);
        break;
      default:
        TvHashEntry* const entry = table.createProc(&table, key.pointer(), &isNew);
        require(isNew == (found == nullptr ? 1 : 0) && (found == nullptr || entry == found));
        model[key.bytes()] = entry;
    }
    require(table.numEntries == static_cast<long>(model.size()));
  }
  TvDeleteHashTable(&table);
  return 0;
}
