// Calls with a stack that is not aligned as compilers expect it, as old callers make them.
#pragma once

#include <cstdint>
#include <type_traits>

// Calls what the first argument points to with the last ones, at most 12 words, the stack being as
// many bytes off 16 as the second says.
extern "C" void callMisaligned();

// `function` as one that is called so.
template <typename Result, typename... Parameters>
auto misaligned(unsigned bytesOff, Result (*function)(Parameters...)) {
  return [=](std::type_identity_t<Parameters>... arguments) {
    using CallFType = Result (*)(Result(*)(Parameters...), unsigned, Parameters...);
    return reinterpret_cast<CallFType>(callMisaligned)(function, bytesOff, arguments...);
  };
}

// In a function without a frame of its own: whether its caller aligned the stack.
#define STACK_IS_ALIGNED() (reinterpret_cast<std::uintptr_t>(__builtin_dwarf_cfa()) % 16 == 0)
