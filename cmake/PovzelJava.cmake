# povzel_java(NAME OUTPUT jar RELEASE version SOURCES... [CLASSPATH jars...] [DEPENDS targets...]
#             [OPTIONS javac options...]): a target of the default build that compiles Java sources
# into one jar. Every lint warning is an error.
function(povzel_java name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "OUTPUT;RELEASE" "SOURCES;CLASSPATH;DEPENDS;OPTIONS")
  set(sources ${arg_SOURCES})
  list(TRANSFORM sources PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  set(classes ${CMAKE_CURRENT_BINARY_DIR}/${name}.classes)
  # A mention of the jars as files makes a change of one compile this one again.
  set(classpath_options)
  if(arg_CLASSPATH)
    string(REPLACE ";" ":" classpath "${arg_CLASSPATH}")
    set(classpath_options -classpath ${classpath})
  endif()
  cmake_path(GET arg_OUTPUT PARENT_PATH directory)
  add_custom_command(
    OUTPUT ${arg_OUTPUT}
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${classes}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${classes} ${directory}
    COMMAND ${POVZEL_JAVAC} --release ${arg_RELEASE} -encoding UTF-8 -g -Xlint:all -Werror
            ${arg_OPTIONS} ${classpath_options} -d ${classes} ${sources}
    COMMAND ${POVZEL_JAR} --create --file ${arg_OUTPUT} -C ${classes} .
    DEPENDS ${sources} ${arg_CLASSPATH} ${arg_DEPENDS}
    COMMENT "Compiling ${name}"
    VERBATIM)
  add_custom_target(${name} ALL DEPENDS ${arg_OUTPUT})
endfunction()
