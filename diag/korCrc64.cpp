// korCrc64.cpp - the CRC table, computed by the compiler.

#include "korutil/korCrc64.h"

namespace {

constexpr uint64_t polynomial = 0x42F0E1EBA9EA3693;

constexpr uint64_t entryOf(uint64_t byte)
{
    uint64_t crc = byte << 56;
    for (int bit = 0; bit < 8; bit++) {
        crc = crc << 1 ^ (crc >> 63 != 0 ? polynomial : 0);
    }
    return crc;
}

} // namespace

#define KOR_CRC_4(i) entryOf(i), entryOf((i) + 1), entryOf((i) + 2), entryOf((i) + 3)
#define KOR_CRC_16(i) KOR_CRC_4(i), KOR_CRC_4((i) + 4), KOR_CRC_4((i) + 8), KOR_CRC_4((i) + 12)
#define KOR_CRC_64(i) KOR_CRC_16(i), KOR_CRC_16((i) + 16), KOR_CRC_16((i) + 32), KOR_CRC_16((i) + 48)

constinit const uint64_t _korCrc64_table[256] = {KOR_CRC_64(0), KOR_CRC_64(64), KOR_CRC_64(128), KOR_CRC_64(192)};
