# Toolchain: 32-bit x86 Linux. The compiler is the machine's own; the i386 libraries that only
# tests, benchmarks and the JVM need are unpacked under deps/i386 by tools/setup.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
foreach(language C CXX ASM)
  set(CMAKE_${language}_FLAGS_INIT "-m32 -march=i686")
endforeach()
