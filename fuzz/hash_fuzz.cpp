// Drives the open hash table and a model of it with operations read from the input: the first
// byte sets how records collide and whether the table copies them, then each byte is one
// operation on one of 64 records.
#include <povzel/hash.h>

#include <bitset>
#include <cstring>
#include <string>

#include <povzel/utlheap.h>
#include "require.h"

namespace {

constexpr unsigned records = 64;
unsigned modulus;

unsigned int recordHash(const void* record) {
  return *static_cast<const ByteType*>(record) % modulus * 0x01000001U;
}

BoolType recordsEqual(const void* probe, const void* stored) {
  return *static_cast<const ByteType*>(probe) == *static_cast<const ByteType*>(stored) ? 1 : 0;
}

// Visits every record once, removing those that `removes` selects.
void enumerate(HashTableSType* table, std::bitset<records>* model, unsigned removes) {
  std::bitset<records> seen;
  for (VoidPtrType* at = nullptr; HashTableEnumerate(table, &at), at != nullptr;) {
    const ByteType key = *static_cast<const ByteType*>(*at);
    require(!seen[key] && (*model)[key]);
    seen[key] = true;
    if (removes == 0 || key % 7 != removes) continue;
    require(HashTableRemove(table, at) != 0 && *at == nullptr);
    model->reset(key);
    seen[key] = false;
  }
  require(seen == *model);
}

void checkStringHashes(const ByteType* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string untilNul = text.c_str();
  const auto* bytes = reinterpret_cast<const ByteType*>(untilNul.data());
  require(HashCStrHash(text.c_str()) ==
          static_cast<unsigned>(HashStrHash(bytes, untilNul.size(), 1)));
  require(HashStrHash(data, size, 0) >> 24 == 0 && HashDbStrHash(data, size, 0) >> 24 == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const ByteType* data, std::size_t size) {
  checkStringHashes(data, size);
  if (size == 0) return 0;
  static ByteType keys[records];
  for (unsigned i = 0; i < records; ++i) keys[i] = static_cast<ByteType>(i);
  modulus = 1 + data[0] % 64;

  HashTableSType table;
  HashTableInit(&table, data[0] & 0x80, 1, recordHash, recordsEqual);
  std::bitset<records> model;
  for (std::size_t i = 1; i < size; ++i) {
    const ByteType key = data[i] % records;
    VoidPtrType* const slot = HashTableLookup(&table, &keys[key]);
    require(slot != nullptr && (*slot != nullptr) == model[key]);
    switch (data[i] / records) {
      case 0:
      case 1:
        require(HashTableInsert(&table, slot, &keys[key]) != static_cast<BoolType>(model[key]));
        model.set(key);
        break;
      case 2:
        require(HashTableRemove(&table, slot) == static_cast<BoolType>(model[key]));
        model.reset(key);
        break;
      default:
        if (key == 63) {
          HashTableClear(&table);
          model.reset();
        }
        enumerate(&table, &model, key % 7);
    }
    require(table.numEntries == static_cast<long>(model.count()));
  }
  HashTableClear(&table);
  UtlFree(table.table);
  return 0;
}
