// korCrc64.h - the table of the 64-bit CRC with the polynomial of ECMA-182, 0x42F0E1EBA9EA3693, most significant bit
// first.

#ifndef KORUTIL_KORCRC64_H
#define KORUTIL_KORCRC64_H

#include "korutil/korBase.h"

KOR_BEGIN_DECLS

/// Entry i is the CRC of the byte i with a zero start. The step for a byte is
/// `crc = (crc << 8) ^ _korCrc64_table[(crc >> 56) ^ byte]`.
KOR_DATA const uint64_t _korCrc64_table[256];

KOR_END_DECLS

#endif
