# Writes OUTPUT, a header with the text of the FILES.
set(text "#pragma once\n\n#include <string_view>\n\nnamespace zel {\n\n")
string(APPEND text "inline constexpr std::string_view kernelSources[] = {\n")
foreach(file ${FILES})
  file(READ ${file} source)
  string(APPEND text "R\"zel(${source})zel\",\n")
endforeach()
string(APPEND text "};\n\n}  // namespace zel\n")
file(WRITE ${OUTPUT} "${text}")
