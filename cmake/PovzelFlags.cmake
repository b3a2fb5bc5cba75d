# Compiler and linker settings for everything native.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_FLAGS_RELWITHDEBINFO "-O2 -g")
set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O2 -g")

# Doubles are computed in SSE registers, never with x87 excess precision. Callers may align the
# stack to 4 bytes only, so entry points realign it.
add_compile_options($<$<COMPILE_LANGUAGE:C,CXX>:-msse2> $<$<COMPILE_LANGUAGE:C,CXX>:-mfpmath=sse>
                    $<$<COMPILE_LANGUAGE:C,CXX>:-mstackrealign>)
add_compile_definitions(_GNU_SOURCE)
add_compile_options(
  $<$<COMPILE_LANGUAGE:C,CXX>:-Wall> $<$<COMPILE_LANGUAGE:C,CXX>:-Wextra>
  $<$<COMPILE_LANGUAGE:C,CXX>:-Werror> $<$<COMPILE_LANGUAGE:C,CXX>:-Wshadow>
  $<$<COMPILE_LANGUAGE:C,CXX>:-Wcast-align> $<$<COMPILE_LANGUAGE:C,CXX>:-Wundef>
  $<$<COMPILE_LANGUAGE:C,CXX>:-Wformat-security> $<$<COMPILE_LANGUAGE:C,CXX>:-Wvla>
  # Texts are cut to their buffers on purpose, everywhere.
  $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-format-truncation>
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast> $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
  $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual> $<$<COMPILE_LANGUAGE:CXX>:-Wextra-semi>)
add_link_options(-Wl,-z,noexecstack -Wl,-z,relro -Wl,-z,now)

if(POVZEL_SANITIZE)
  add_compile_options(-fsanitize=${POVZEL_SANITIZE} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  # Instrumented code of the standard library looks uninitialized to GCC.
  add_compile_options($<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-maybe-uninitialized>)
  add_link_options(-fsanitize=${POVZEL_SANITIZE})
  add_compile_definitions(POVZEL_SANITIZE)
endif()
