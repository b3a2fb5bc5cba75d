# How everything native and Java is compiled, and the few kinds of target that the folders declare.

# Compiler and linker

# A machine's compiler cache is used: what another clone has compiled is not compiled again.
find_program(POVZEL_CCACHE ccache)
mark_as_advanced(POVZEL_CCACHE)
if(POVZEL_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_C_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env CCACHE_BASEDIR=${CMAKE_SOURCE_DIR}
                                CCACHE_NOHASHDIR=1 ${POVZEL_CCACHE})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_C_COMPILER_LAUNCHER})
endif()

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)

# Doubles are computed in SSE registers, never with x87 excess precision. What a caller that aligns
# the stack to 4 bytes only may come to keeps its own frame in order; entry points do more, see
# povzeltypes.h.
add_compile_options("$<$<COMPILE_LANGUAGE:C,CXX>:-msse2;-mfpmath=sse;-mstackrealign>")
# No file of the build names the place where it was built.
add_compile_options("$<$<COMPILE_LANGUAGE:C,CXX,ASM>:-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=>")
add_compile_definitions(_GNU_SOURCE)
add_compile_options(
  "$<$<COMPILE_LANGUAGE:C,CXX>:-Wall;-Wextra;-Wshadow;-Wcast-align;-Wundef;-Wformat-security;-Wvla>"
  "$<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast;-Wnon-virtual-dtor;-Woverloaded-virtual;-Wextra-semi>"
  # Texts are cut to their buffers on purpose, everywhere.
  $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-format-truncation>)
add_link_options(-Wl,-z,noexecstack -Wl,-z,relro -Wl,-z,now)

# What needs no C++ library is linked as C; the sanitizers need one.
set(POVZEL_LINKED_AS C)
if(POVZEL_SANITIZE)
  set(POVZEL_LINKED_AS CXX)
  add_compile_options(-fsanitize=${POVZEL_SANITIZE} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  # Instrumented code of the standard library looks uninitialized to GCC.
  add_compile_options($<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-maybe-uninitialized>)
  add_link_options(-fsanitize=${POVZEL_SANITIZE})
  add_compile_definitions(POVZEL_SANITIZE)
endif()

if(POVZEL_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()

# What tools/setup provides beyond the compiler: i386 libraries unpacked under deps/i386, a JDK to
# compile with, a 32-bit JVM to run in, and the Java libraries of shell and tests.

set(POVZEL_I386 ${CMAKE_SOURCE_DIR}/deps/i386 CACHE PATH "Unpacked i386 packages")
set(POVZEL_I386_LIB ${POVZEL_I386}/usr/lib/i386-linux-gnu)
if(NOT EXISTS ${POVZEL_I386}/usr)
  message(FATAL_ERROR "The i386 packages are not there. Run tools/setup first.")
endif()
set(POVZEL_JRE ${POVZEL_I386}/usr/lib/jvm/java-17-openjdk-i386)
set(POVZEL_JDK /usr/lib/jvm/java-17-openjdk-amd64 CACHE PATH "JDK that compiles the Java sources")
set(POVZEL_JARS /usr/share/java)
set(POVZEL_JAVAC ${POVZEL_JDK}/bin/javac)
set(POVZEL_JAR ${POVZEL_JDK}/bin/jar)
# Short runs: what the second compiler of the virtual machine makes of them comes too late.
set(POVZEL_JVM -J-XX:TieredStopAtLevel=1 -J-XX:+UseSerialGC)
set(POVZEL_JAVA_WERROR)
if(CMAKE_COMPILE_WARNING_AS_ERROR)
  set(POVZEL_JAVA_WERROR -Werror)
endif()

find_package(Threads REQUIRED)

# jni.h is the same for every architecture.
add_library(povzel_jni INTERFACE)
target_include_directories(povzel_jni SYSTEM INTERFACE ${POVZEL_JDK}/include
                                                       ${POVZEL_JDK}/include/linux)

# Include directory of the unpacked packages, and those libraries of theirs that are named.
function(povzel_unpacked name)
  list(TRANSFORM ARGN PREPEND ${POVZEL_I386_LIB}/)
  add_library(${name} INTERFACE)
  target_include_directories(${name} SYSTEM INTERFACE ${POVZEL_I386}/usr/include)
  target_link_libraries(${name} INTERFACE ${ARGN} Threads::Threads)
endfunction()
povzel_unpacked(povzel_gtest libgmock.a libgtest.a)
povzel_unpacked(povzel_benchmark libbenchmark.so)
target_link_options(povzel_benchmark INTERFACE -Wl,-rpath,${POVZEL_I386_LIB})

# povzel_program(NAME DIRECTORY [INTERNALS] SOURCES... [LIBRARIES...]): a program in DIRECTORY of
# the build tree. It links the library as users do, or with INTERNALS the modules' objects.
function(povzel_program name directory)
  cmake_parse_arguments(PARSE_ARGV 2 arg "INTERNALS" "" "SOURCES;LIBRARIES")
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LIBRARIES}
                                        $<IF:$<BOOL:${arg_INTERNALS}>,povzel_objects,povzel30>)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/${directory})
endfunction()

# povzel_test(NAME [JVM] [INTERNALS] SOURCES... [LIBRARIES...]): a GoogleTest program, registered
# with CTest. JVM tests start the 32-bit JVM in their own process; they are left out of sanitizer
# builds.
function(povzel_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "JVM" "" "")
  if(arg_JVM AND POVZEL_SANITIZE)
    return()
  endif()
  povzel_program(${name} tests ${arg_UNPARSED_ARGUMENTS})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests/support)
  target_link_libraries(${name} PRIVATE povzel_gtest povzel_test_main)
  target_precompile_headers(${name} REUSE_FROM povzel_test_main)
  add_test(NAME ${name} COMMAND ${name} --gtest_brief=1)
  set_tests_properties(${name} PROPERTIES TIMEOUT 300)
  if(POVZEL_SANITIZE)
    set_property(TEST ${name} APPEND PROPERTY ENVIRONMENT
                 LSAN_OPTIONS=suppressions=${CMAKE_SOURCE_DIR}/tests/support/leaks.supp)
  endif()
endfunction()

# povzel_bench(NAME [INTERNALS] SOURCES... [LIBRARIES...]): a Google Benchmark program, part of the
# target benchmarks.
function(povzel_bench name)
  povzel_program(${name} bench ${ARGN})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/bench)
  target_link_libraries(${name} PRIVATE povzel_benchmark)
  add_dependencies(benchmarks ${name})
endfunction()

# povzel_java(NAME OUTPUT jar RELEASE version SOURCES... [CLASSPATH jars...] [DEPENDS targets...]
#             [MANIFEST file] [OPTIONS javac options...]): a target of the default build that compiles Java sources
# into one jar. Every lint warning is an error.
function(povzel_java name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "OUTPUT;RELEASE;MANIFEST" "SOURCES;CLASSPATH;DEPENDS;OPTIONS")
  set(sources ${arg_SOURCES})
  list(TRANSFORM sources PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  set(classes ${CMAKE_CURRENT_BINARY_DIR}/${name}.classes)
  # A mention of the jars as files makes a change of one compile this one again.
  set(classpath_options)
  if(arg_CLASSPATH)
    string(REPLACE ";" ":" classpath "${arg_CLASSPATH}")
    set(classpath_options -classpath ${classpath})
  endif()
  set(manifest)
  if(arg_MANIFEST)
    set(manifest --manifest ${CMAKE_CURRENT_SOURCE_DIR}/${arg_MANIFEST})
  endif()
  cmake_path(GET arg_OUTPUT PARENT_PATH directory)
  add_custom_command(
    OUTPUT ${arg_OUTPUT}
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${classes}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${classes} ${directory}
    COMMAND ${POVZEL_JAVAC} ${POVZEL_JVM} --release ${arg_RELEASE} -encoding UTF-8 -g -Xlint:all,-options
            ${POVZEL_JAVA_WERROR} ${arg_OPTIONS} ${classpath_options} -d ${classes} ${sources}
    COMMAND ${CMAKE_SOURCE_DIR}/pov/pack ${POVZEL_JAR} ${classes} ${arg_OUTPUT} ${manifest} ${POVZEL_JVM}
    DEPENDS ${sources} ${arg_MANIFEST} ${arg_CLASSPATH} ${arg_DEPENDS}
    COMMENT "Compiling ${name}"
    VERBATIM)
  add_custom_target(${name} ALL DEPENDS ${arg_OUTPUT})
endfunction()

# povzel_keep_debug(TARGET): copies the debug information of a program or library to build/debug, where
# a debugger finds it by the build id (set debug-file-directory BUILD/debug).
function(povzel_keep_debug name)
  add_custom_command(
    TARGET ${name} POST_BUILD
    COMMAND ${CMAKE_SOURCE_DIR}/tools/keepdebug $<TARGET_FILE:${name}> ${CMAKE_BINARY_DIR}/debug
    VERBATIM)
endfunction()

# Installs from the build tree as part of the build: quietly, and whatever place a packager has set.
set(POVZEL_INSTALL sh -c "unset DESTDIR && exec \"$@\" >install.log" sh
                   ${CMAKE_COMMAND} --install ${CMAKE_BINARY_DIR})

# povzel_installation(DIRECTORY TARGETS...): the target povzel_installation installs the component
# runtime into DIRECTORY, as cmake --install does anywhere else, once the targets are built, and puts
# the JVM of tools/setup beside it.
function(povzel_installation directory)
  set(stamp ${CMAKE_BINARY_DIR}/installation.stamp)
  # The checkout may be moved, and mounted elsewhere.
  file(RELATIVE_PATH jre ${directory} ${POVZEL_JRE})
  set(files)
  foreach(target ${ARGN})
    get_target_property(type ${target} TYPE)
    list(APPEND files ${target})
    if(NOT type STREQUAL UTILITY)
      list(APPEND files $<TARGET_FILE:${target}>)
    endif()
  endforeach()
  add_custom_command(
    OUTPUT ${stamp}
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${directory}
    COMMAND ${POVZEL_INSTALL} --component runtime --prefix ${directory}
    COMMAND ${CMAKE_COMMAND} -E create_symlink ${jre} ${directory}/jre
    COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
    DEPENDS ${files} ${CMAKE_BINARY_DIR}/java/povzel.jar ${POVZEL_SHELL_CLASSES} ${POVZEL_ENGLISH_COMPILED}
            ${CMAKE_SOURCE_DIR}/tools/gstack
            ${CMAKE_SOURCE_DIR}/pov/com/tarvolin/povzel/shell/launcher
    WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
    COMMENT "Installing into ${directory}"
    VERBATIM)
  add_custom_target(povzel_installation ALL DEPENDS ${stamp})
endfunction()
