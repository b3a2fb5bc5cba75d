#include "methods.h"

#include "lang/compiler.h"
#include "objmem/hashed.h"
#include "objmem/values.h"
#include "sources.h"

namespace zel {

namespace {

constexpr std::string_view ofClassItself = " class";

// Takes the text up to the mark, and the mark.
std::string_view takeUntil(std::string_view& text, std::string_view mark) {
  const std::size_t at = text.find(mark);
  if (at == std::string_view::npos) throw Failure(ErrInternal, "the kernel's text is cut");
  const std::string_view taken = text.substr(0, at);
  text.remove_prefix(at + mark.size());
  return taken;
}

}  // namespace

void compileKernelFile(Memory& memory, std::string_view file) {
  while (file.find(" >> ") != std::string_view::npos) {
    std::string_view owner = takeUntil(file, " >> ");
    owner.remove_prefix(owner.rfind('\n') + 1);  // at the file's start: 0
    const bool classSide = owner.ends_with(ofClassItself);
    if (classSide) owner.remove_suffix(ofClassItself.size());
    const std::string_view header = takeUntil(file, " [\n");
    const std::string_view body = takeUntil(file, "\n]\n");
    const OopType classOop = dictionaryAt(memory, GlobalsOop, symbolOop(memory, owner));
    compileMethod(memory, classOop, std::string(header).append("\n").append(body), classSide, true);
  }
}

void compileKernel(Memory& memory) {
  for (const std::string_view file : kernelSources) compileKernelFile(memory, file);
}

}  // namespace zel
