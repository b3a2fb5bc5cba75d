# Public headers go to include/povzel of the installation, in the folders they have under src/.
# Private ones (*priv.h and the library's own basics) stay behind.
file(GLOB_RECURSE headers ${CMAKE_SOURCE_DIR}/src/*.h)
list(FILTER headers EXCLUDE REGEX "(priv|/guarantee|/errnokeeper|/utlheapseam)\\.h$")
set(installed_headers "")
foreach(header ${headers})
  file(RELATIVE_PATH relative ${CMAKE_SOURCE_DIR}/src ${header})
  set(installed ${POVZEL_INSTALLATION}/include/povzel/${relative})
  add_custom_command(OUTPUT ${installed}
                     COMMAND ${CMAKE_COMMAND} -E copy ${header} ${installed}
                     DEPENDS ${header} COMMENT "Installing ${relative}")
  list(APPEND installed_headers ${installed})
endforeach()
add_custom_target(povzel_headers ALL DEPENDS ${installed_headers})
