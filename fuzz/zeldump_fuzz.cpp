// Reads arbitrary text as lines of dumps: a line that is one tells of a row, which has a line of
// its own that tells of the same row.
#include <string>

#include "require.h"
#include "tool/dumpline.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    try {
      const zel::Row row = zel::rowOf(line);
      const std::string own = zel::lineOf(row);
      const zel::Row again = zel::rowOf(own);
      require(again.place == row.place && again.classId == row.classId && again.bytes == row.bytes);
      require(zel::lineOf(again) == own);
    } catch (const zel::LineFault& fault) {
      require(fault.column > 0 && fault.column <= line.size() + 1 && !fault.expected.empty());
    }
  }
  return 0;
}
