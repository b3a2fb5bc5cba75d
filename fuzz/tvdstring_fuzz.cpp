// Drives a dynamic string and a std::string with operations read from the input: each is one byte
// that chooses it and one that gives a length.
#include <povzel/tvdstring.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "require.h"

namespace {

void append(TvDString* ds, std::string* model, const char* text, long length) {
  const std::string piece =
      length < 0 ? std::string(text) : std::string(text, static_cast<std::size_t>(length));
  require(TvDStringAppend(ds, text, length) == ds->string);
  *model += piece;
}

void setLength(TvDString* ds, std::string* model, long length) {
  const std::size_t before = model->size();
  TvDStringSetLength(ds, length);
  model->resize(length < 0 ? 0 : static_cast<std::size_t>(length), '.');
  if (model->size() > before) std::memset(ds->string + before, '.', model->size() - before);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const ByteType* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  TvDString ds;
  TvDStringInit(&ds);
  std::string model;
  for (std::size_t i = 0; i + 1 < size; i += 2) {
    const std::size_t length = data[i + 1];
    switch (data[i] % 8) {
      case 0:
        TvDStringFree(&ds);
        model.clear();
        break;
      case 1:
        setLength(&ds, &model, static_cast<long>(length * 3) - 20);
        break;
      case 2:
        append(&ds, &model, input.c_str() + i, -1);
        break;
      case 3:  // a piece of its own text
        if (model.size() > 4096) break;
        append(&ds, &model, ds.string + std::min(length, model.size()),
               static_cast<long>(model.size() - std::min(length, model.size())));
        break;
      default:
        append(&ds, &model, input.c_str() + i, static_cast<long>(std::min(length, size - i)));
    }
    require(ds.length < ds.spaceAvl && static_cast<std::size_t>(ds.length) == model.size());
    require(std::memcmp(ds.string, model.c_str(), model.size() + 1) == 0);
  }
  TvDStringFree(&ds);
  return 0;
}
