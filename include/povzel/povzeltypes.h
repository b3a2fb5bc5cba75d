// The types that every module of libpovzel30 shares, the mark of what the library exports, and the
// words by which its headers serve C and C++ alike.
//
// All exported functions but two, which are for C++ alone, have C linkage and plain names, so that
// programs in any language can look them up. Everything else stays hidden inside the library.
#pragma once

#include <limits.h>
#include <stdint.h>

// Marks a declaration as part of the library's exported interface. Callers may align the stack to 4
// bytes only: the library's own functions, which define POVZEL_ALIGNS_STACK, align it anew, so that
// whatever they call finds it as the compiler expects it. Programs do not see that attribute, which
// a pointer type made of a function's would drop with a warning.
#define POVZEL_EXPORT_DATA __attribute__((visibility("default")))
#ifdef POVZEL_ALIGNS_STACK
#define POVZEL_EXPORT __attribute__((visibility("default"), force_align_arg_pointer))
#else
#define POVZEL_EXPORT POVZEL_EXPORT_DATA
#endif

// What C, from C99 on, and C++ write differently:
//   POVZEL_BEGIN_C, POVZEL_END_C  stand around the declarations with C linkage
//   POVZEL_NORETURN               before a function that does not return
//   POVZEL_STATIC_ASSERT          ends the compilation with `text` unless `condition` holds
//   POVZEL_CONSTANT               a constant that may be the size of an array; in C an int
//   POVZEL_ARRAY                  an array; in C++ one of `<array>`, which the header includes
//   POVZEL_ENUM_TYPE              names an enumeration stored as `type`; in C the integer itself
//   POVZEL_COMPILED_IN            a definition that is compiled into its callers, never on its own:
//                                 the library exports the same function
//   POVZEL_ENUM                   follows the "enum" of such an enumeration's constants
#define POVZEL_COMPILED_IN extern __inline__ __attribute__((__always_inline__, __gnu_inline__))
// clang-format off
#ifdef __cplusplus
#define POVZEL_BEGIN_C extern "C" {
#define POVZEL_END_C }
#define POVZEL_NORETURN [[noreturn]]
#define POVZEL_STATIC_ASSERT(condition, text) static_assert(condition, text)
#define POVZEL_CONSTANT(type, name, value) constexpr type name = value
#define POVZEL_ARRAY(type, name, count) std::array<type, count> name
#define POVZEL_ENUM_TYPE(name, type) enum name : type
#define POVZEL_ENUM(name, type) name : type
#else
#define POVZEL_BEGIN_C
#define POVZEL_END_C
#define POVZEL_NORETURN __attribute__((noreturn))
// Before C11 it is an extension of the compiler, or of the C library.
#define POVZEL_STATIC_ASSERT(condition, text) __extension__ _Static_assert(condition, text)
#define POVZEL_CONSTANT(type, name, value) enum { name = value }
#define POVZEL_ARRAY(type, name, count) type name[count]
#define POVZEL_ENUM_TYPE(name, type) typedef type name
#define POVZEL_ENUM(name, type)
#endif
// clang-format on

typedef uint32_t OopType;        // object identifier in the database
typedef int32_t BoolType;        // 0 is false, anything else true
typedef uint8_t ByteType;        // 0 to 255
typedef uint32_t ArraySizeType;  // a size or a count, in the unit that the function names
typedef int32_t PidType;         // process id
typedef uint16_t DbChar;         // double-byte character code

typedef char HostFnameStrType[4096];  // any file name: at most 4095 characters and the terminator
typedef char ErrMsgStrType[2049];  // any message text: at most 2048 characters and the terminator

POVZEL_STATIC_ASSERT(sizeof(void*) == 4 && sizeof(long) == 4, "the library is 32-bit x86 only");
POVZEL_STATIC_ASSERT(CHAR_MIN < 0,
                     "the interface library returns characters as signed 8-bit values");
