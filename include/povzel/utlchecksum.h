// The checksum of stored data: CRC-32 with the reflected polynomial 0xEDB88320, initial value and
// final complement all ones. It equals zlib's crc32.
//
// Any thread may call. Sources: utlchecksum.cpp (tables), utlchecksumfold.cpp (carry-less
// products), utlcpu.cpp (which of the two the processor has).
#pragma once

#ifdef __cplusplus
#include <array>
#endif

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Entry x is what the byte x contributes to a checksum whose low byte was 0.
POVZEL_EXPORT_DATA extern const POVZEL_ARRAY(unsigned long, crctable, 256);

// Returns the checksum of `length` bytes, which need no alignment. Callers have a positive multiple
// of 4; any other length is handled byte by byte at its end, and no bytes at all give 0.
POVZEL_EXPORT unsigned long UtlChecksum(const unsigned char* bytes, unsigned int length);

POVZEL_END_C
