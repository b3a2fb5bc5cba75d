// Drives the open hash table and a model of it with operations read from the input: the first
// byte sets how records collide and whether the table copies them, then each byte is one
// operation on one of 64 records.
#include <povzel/hash.h>

#include <bitset>

#include <povzel/utlheap.h>
#include "require.h"

namespace {

// A record is its key. `modulus` sets how many of them share a home; the first home is the last
// slot of the first table, where probes go round its end.
constexpr unsigned count = 64;
ByteType records[count];
unsigned modulus;

unsigned int recordHash(const void* record) {
  return *static_cast<const ByteType*>(record) % modulus * 0x01000001U + 36;
}

BoolType recordsEqual(const void* probe, const void* stored) {
  return *static_cast<const ByteType*>(probe) == *static_cast<const ByteType*>(stored) ? 1 : 0;
}

// Visits every record once, removing those that `removes` selects.
void enumerate(HashTableSType* table, std::bitset<count>* model, unsigned removes) {
  std::bitset<count> unseen = *model;
  for (VoidPtrType* at = nullptr; HashTableEnumerate(table, &at), at != nullptr;) {
    const ByteType key = *static_cast<const ByteType*>(*at);
    require(unseen[key]);
    unseen.reset(key);
    if (removes == 0 || key % 7 != removes) continue;
    require(HashTableRemove(table, at) != 0 && *at == nullptr);
    model->reset(key);
  }
  require(unseen.none());
  for (unsigned key = 0; key < count; ++key) {
    require((*HashTableLookup(table, &records[key]) != nullptr) == (*model)[key]);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const ByteType* data, std::size_t size) {
  if (size == 0) return 0;
  for (unsigned i = 0; i < count; ++i) records[i] = static_cast<ByteType>(i);
  modulus = 1 + data[0] % 64;

  HashTableSType table;
  HashTableInit(&table, data[0] & 0x80, 1, recordHash, recordsEqual);
  std::bitset<count> model;
  for (std::size_t i = 1; i < size; ++i) {
    const ByteType key = data[i] % count;
    VoidPtrType* const slot = HashTableLookup(&table, &records[key]);
    require(slot != nullptr && (*slot != nullptr) == model[key]);
    const unsigned operation = data[i] / count;
    if (operation < 2) {
      // Another record's look-up between that of this one and its insert.
      if (operation == 1) HashTableLookup(&table, &records[data[i - 1] % count]);
      require((HashTableInsert(&table, slot, &records[key]) != 0) != model[key]);
      model.set(key);
    } else if (operation == 2) {
      require((HashTableRemove(&table, slot) != 0) == model[key]);
      model.reset(key);
    } else {
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
