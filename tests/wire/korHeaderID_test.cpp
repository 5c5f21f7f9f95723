// korHeaderID_test.cpp - both forms on the wire and as text.

#include "korutil/korHeaderID.h"

#include "support/failingHeap.h"
#include "support/korTest.h"

#include <cstring>
#include <vector>

namespace {

using namespace kor::test;
using KorHeaderIDTest = KorTest;
using Bytes = std::vector<uint8_t>;

constexpr korHeaderID uuidRecord = {0, {0x0706050403020100, 0x0f0e0d0c0b0a0908}};

// What is written into exactly `room` bytes.
Bytes write(korEx* ex, const korHeaderID& record, size_t room)
{
    Bytes bytes(room);
    uint8_t* cursor = bytes.data();
    _korBuf_WriteHeaderID(KOR_AT(ex, 0), &cursor, bytes.data() + room, &record);
    bytes.resize(static_cast<size_t>(cursor - bytes.data()));
    return bytes;
}

TEST_F(KorHeaderIDTest, BothFormsGoOverTheWire)
{
    Bytes uuidBytes{0};
    for (uint8_t byte = 0; byte < 16; byte++) {
        uuidBytes.push_back(byte);
    }
    const std::pair<korHeaderID, Bytes> cases[] = {
        {{5, {1, 2}}, {5}}, {{127, {}}, {127}}, {{128, {}}, {0x80, 0x80}}, {uuidRecord, uuidBytes}};
    for (auto& [record, expected] : cases) {
        EXPECT_EQ(write(ex, record, expected.size()), expected);
        Bytes bytes = expected;
        uint8_t* cursor = bytes.data();
        korHeaderID* back = _korHeaderID_CreateFromBuffer(KOR_AT(ex, 0), &cursor, cursor + bytes.size());
        ASSERT_NE(back, nullptr);
        EXPECT_EQ(back->id, record.id);
        EXPECT_EQ(back->uuid[0], record.id == 0 ? record.uuid[0] : 0); // a number leaves the zeroed UUID
        EXPECT_EQ(back->uuid[1], record.id == 0 ? record.uuid[1] : 0);
        EXPECT_EQ(cursor, bytes.data() + bytes.size());
        _korHeaderID_Destroy(KOR_AT_D(0, ex), back);
        EXPECT_CLEAN();

        cursor = bytes.data();
        EXPECT_EQ(_korHeaderID_CreateFromBuffer(KOR_AT(ex, 0), &cursor, cursor + bytes.size() - 1), nullptr);
        EXPECT_RAISED(12, "Buffer too small");
        write(ex, record, expected.size() - 1);
        EXPECT_RAISED(12, "Buffer too small");
    }
    write(ex, {uint64_t{1} << 63, {}}, 32);
    EXPECT_RAISED(1, "ILLEGAL_VALUE");
}

TEST_F(KorHeaderIDTest, Text)
{
    char text[KOR_HEADERID_TEXT_SIZE];
    EXPECT_EQ(_korHeaderID_ToString(KOR_AT(ex, 0), &uuidRecord, text, sizeof text), 38);
    EXPECT_STREQ(text, "{00010203-0405-0607-0809-0A0B0C0D0E0F}");
    korHeaderID number = {INT64_MAX, {}};
    EXPECT_EQ(_korHeaderID_ToString(KOR_AT(ex, 0), &number, text, sizeof text), 19);
    EXPECT_STREQ(text, "9223372036854775807");
    EXPECT_EQ(_korHeaderID_ToString(KOR_AT(ex, 0), &number, text, sizeof text - 1), -1);
    EXPECT_RAISED(1, "Buffer size must be greater HEADERID_TOSTRING_MAX_SIZE");
}

TEST_F(KorHeaderIDTest, AnyRequestMayFail)
{
    sweepFailures(ex, [&] {
        uint8_t byte = 9;
        uint8_t* cursor = &byte;
        korHeaderID* read = _korHeaderID_CreateFromBuffer(KOR_AT(ex, 0), &cursor, &byte + 1);
        korHeaderID* copy = read == nullptr ? nullptr : _korHeaderID_Copy(KOR_AT(ex, 0), read);
        EXPECT_TRUE(copy == nullptr || memcmp(copy, read, sizeof *copy) == 0);
        _korHeaderID_Destroy(KOR_AT_D(0, ex), read);
        _korHeaderID_Destroy(KOR_AT_D(0, ex), copy);
    });
}

} // namespace

TEST_F(KorHeaderIDTest, IsReadIntoACallersRecord)
{
    uint8_t bytes[17] = {0x81, 0};
    uint8_t* cursor = bytes;
    korHeaderID record = {9, {8, 7}};
    _korBuf_ReadHeaderID(KOR_AT(ex, 0), &cursor, bytes + 2, &record);
    EXPECT_TRUE(cursor == bytes + 2 && record.id == 256 && record.uuid[0] == 8 && record.uuid[1] == 7);
    bytes[0] = 0;
    cursor = bytes;
    _korBuf_ReadHeaderID(KOR_AT(ex, 0), &cursor, bytes + 16, &record);
    EXPECT_RAISED(12, "Buffer too small");
    EXPECT_EQ(cursor, bytes + 1) << "behind the number";
    cursor = bytes;
    _korBuf_ReadHeaderID(KOR_AT(ex, 0), &cursor, bytes + 17, &record);
    EXPECT_TRUE(cursor == bytes + 17 && record.id == 0 && record.uuid[0] == 0 && record.uuid[1] == 0);
}
