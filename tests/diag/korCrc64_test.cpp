// korCrc64_test.cpp - known entries of the table, and the check value that the step over it must give.

#include "korutil/korCrc64.h"

#include "support/korTest.h"

#include <string_view>

namespace {

TEST(korCrc64, KnownEntries)
{
    EXPECT_EQ(_korCrc64_table[0], 0u);
    EXPECT_EQ(_korCrc64_table[1], 0x42F0E1EBA9EA3693u);
    EXPECT_EQ(_korCrc64_table[2], 0x85E1C3D753D46D26u);
    EXPECT_EQ(_korCrc64_table[255], 0x9AFCE626CE85B507u);
}

TEST(korCrc64, TheCheckValueOfTheDigits)
{
    uint64_t crc = 0;
    for (char digit : std::string_view("123456789")) {
        crc = (crc << 8) ^ _korCrc64_table[(crc >> 56) ^ static_cast<uint8_t>(digit)];
    }
    EXPECT_EQ(crc, 0x6C40DF5F0B497347u); // CRC-64/ECMA-182 in the catalogues
}

} // namespace
