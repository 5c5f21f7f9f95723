// korCrc64_test.cpp - every entry of the table, and the check value that the step over it must give.

#include "korutil/korCrc64.h"

#include "support/korTest.h"

#include <string_view>

namespace {

TEST(korCrc64, TheTableIsThatOfThePolynomial)
{
    for (uint64_t index = 0; index < 256; index++) {
        uint64_t entry = index << 56;
        for (int bit = 0; bit < 8; bit++) {
            entry = (entry << 1) ^ (entry >> 63) * 0x42F0E1EBA9EA3693u;
        }
        EXPECT_EQ(_korCrc64_table[index], entry) << index;
    }
    uint64_t crc = 0;
    for (char digit : std::string_view("123456789")) {
        crc = (crc << 8) ^ _korCrc64_table[(crc >> 56) ^ static_cast<uint8_t>(digit)];
    }
    EXPECT_EQ(crc, 0x6C40DF5F0B497347u); // CRC-64/ECMA-182 in the catalogues
}

} // namespace
