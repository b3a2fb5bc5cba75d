# What tools/setup provides beyond the compiler: i386 libraries unpacked under build/i386, a JDK to
# compile with, a 32-bit JVM to run in, and the Java libraries of shell and tests.

set(POVZEL_I386 ${CMAKE_SOURCE_DIR}/build/i386 CACHE PATH "Unpacked i386 packages")
set(POVZEL_I386_LIB ${POVZEL_I386}/usr/lib/i386-linux-gnu)
if(NOT EXISTS ${POVZEL_I386}/usr)
  message(FATAL_ERROR "The i386 packages are not there. Run tools/setup first.")
endif()

set(POVZEL_JRE ${POVZEL_I386}/usr/lib/jvm/java-17-openjdk-i386)
set(POVZEL_JDK /usr/lib/jvm/java-17-openjdk-amd64 CACHE PATH "JDK that compiles the Java sources")
set(POVZEL_JARS /usr/share/java)
set(POVZEL_JAVAC ${POVZEL_JDK}/bin/javac)
set(POVZEL_JAR ${POVZEL_JDK}/bin/jar)

find_package(Threads REQUIRED)

# jni.h is the same for every architecture.
add_library(povzel_jni INTERFACE)
target_include_directories(povzel_jni SYSTEM INTERFACE ${POVZEL_JDK}/include
                                                       ${POVZEL_JDK}/include/linux)

add_library(povzel_gtest INTERFACE)
target_include_directories(povzel_gtest SYSTEM INTERFACE ${POVZEL_I386}/usr/include)
target_link_libraries(povzel_gtest INTERFACE ${POVZEL_I386_LIB}/libgmock.a
                                             ${POVZEL_I386_LIB}/libgtest.a Threads::Threads)

add_library(povzel_benchmark INTERFACE)
target_include_directories(povzel_benchmark SYSTEM INTERFACE ${POVZEL_I386}/usr/include)
target_link_libraries(povzel_benchmark INTERFACE ${POVZEL_I386_LIB}/libbenchmark.so
                                                 Threads::Threads)
target_link_options(povzel_benchmark INTERFACE -Wl,-rpath,${POVZEL_I386_LIB})
