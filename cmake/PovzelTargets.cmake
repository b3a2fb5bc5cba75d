# The few kinds of target that the folders declare.

# povzel_module(NAME SOURCES...): a module of libpovzel30. Its objects go into the library; tests
# and fuzz targets that reach behind the exported interface link povzel_objects instead.
function(povzel_module name)
  list(TRANSFORM ARGN PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  target_sources(povzel_objects PRIVATE ${ARGN})
endfunction()

# povzel_test(NAME [JVM] [INTERNALS] [LABELS label...] SOURCES...): a GoogleTest program. It links
# the library as users do, or with INTERNALS the modules' objects. JVM tests start the 32-bit JVM
# in their own process; they are left out of sanitizer builds.
function(povzel_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "JVM;INTERNALS" "" "SOURCES;LIBRARIES;LABELS")
  if(arg_JVM AND POVZEL_SANITIZE)
    return()
  endif()
  add_executable(${name} ${arg_SOURCES})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests/support)
  target_link_libraries(${name} PRIVATE povzel_gtest povzel_test_main ${arg_LIBRARIES})
  if(arg_INTERNALS)
    target_link_libraries(${name} PRIVATE povzel_objects)
  else()
    target_link_libraries(${name} PRIVATE povzel30)
  endif()
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  add_test(NAME ${name} COMMAND ${name} --gtest_brief=1)
  set_tests_properties(${name} PROPERTIES TIMEOUT 300)
  if(POVZEL_SANITIZE)
    set_property(TEST ${name} APPEND PROPERTY ENVIRONMENT
                 LSAN_OPTIONS=suppressions=${CMAKE_SOURCE_DIR}/tests/support/leaks.supp)
  endif()
  if(arg_LABELS)
    set_tests_properties(${name} PROPERTIES LABELS "${arg_LABELS}")
  endif()
endfunction()

# povzel_bench(NAME SOURCES... [LIBRARIES...]): a Google Benchmark program.
function(povzel_bench name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "INTERNALS" "" "SOURCES;LIBRARIES")
  add_executable(${name} ${arg_SOURCES})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/bench)
  target_link_libraries(${name} PRIVATE povzel_benchmark ${arg_LIBRARIES})
  if(arg_INTERNALS)
    target_link_libraries(${name} PRIVATE povzel_objects)
  else()
    target_link_libraries(${name} PRIVATE povzel30)
  endif()
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bench)
endfunction()

# povzel_fuzz(NAME SOURCE): a libFuzzer target over the corpus in fuzz/corpus/NAME.
function(povzel_fuzz name source)
  add_executable(${name} ${source})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests/support)
  target_link_libraries(${name} PRIVATE povzel_objects)
  target_compile_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
  add_test(NAME ${name}
           COMMAND ${CMAKE_SOURCE_DIR}/fuzz/run $<TARGET_FILE:${name}>
                   ${CMAKE_SOURCE_DIR}/fuzz/corpus/${name})
endfunction()
