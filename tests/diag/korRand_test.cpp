// korRand_test.cpp - what is made from given bytes, what a failing source leaves, and the built-in source.

#include "korutil/korRand.h"

#include "support/korTest.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <set>
#include <vector>

namespace {

using namespace kor::test;

using Uuid = std::array<uint8_t, KOR_UUID_SIZE>;

uint8_t constantByte;
int callsUntilFailure; // below 0: never

void constantGet(korEx* ex, uint8_t depth, void* buffer, int32_t length)
{
    if (callsUntilFailure-- == 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_OS, "dry");
        return;
    }
    memset(buffer, constantByte, static_cast<size_t>(length));
}

void countingPut(korEx*, uint8_t, void* data, int32_t length)
{
    constantByte = static_cast<uint8_t>(constantByte + static_cast<uint8_t*>(data)[length - 1]);
}

constexpr korRandHooks constantHooks = {countingPut, constantGet};

class KorRandTest : public KorTest
{
protected:
    ~KorRandTest() override { _korRand_ResetHooks(KOR_AT(ex, 0)); }

    void useConstant(uint8_t byte, int calls = -1)
    {
        constantByte = byte;
        callsUntilFailure = calls;
        _korRand_SetHooks(KOR_AT(ex, 0), &constantHooks);
    }
};

TEST_F(KorRandTest, NamesFollowTheirBytes)
{
    char name[9];
    for (auto [byte, expected] : {std::pair{0, "AAAAAAAA"}, {37, "BBBBBBBB"}, {0x80, "UUUUUUUU"}, {0xff, "DDDDDDDD"}}) {
        useConstant(static_cast<uint8_t>(byte));
        _korRand_GetRandomName(KOR_AT(ex, 0), name, sizeof name);
        EXPECT_STREQ(name, expected) << byte;
    }
    useConstant(0, 0);
    _korRand_GetRandomName(KOR_AT(ex, 0), name, sizeof name);
    EXPECT_STREQ(name, "");
    EXPECT_RAISED(6, "dry");
}

TEST_F(KorRandTest, UuidsCarryTheirStamp)
{
    useConstant(0xff);
    Uuid plain;
    Uuid marked;
    _korRand_GetRandomUUID(KOR_AT(ex, 0), plain.data());
    _korRand_GetMarkedUUID(KOR_AT(ex, 0), marked.data());
    Uuid given;
    given.fill(0xff);
    _korRand_StampUUID(given.data(), 16, 1);
    EXPECT_EQ(given, marked) << "as the makers stamp theirs";
    char text[KOR_UUID_TEXT_SIZE];
    _korRand_GetBinaryUUIDAsText(KOR_AT(ex, 0), plain.data(), 16, text, sizeof text);
    EXPECT_STREQ(text, "FFFFFFFF-FFFF-4FFF-BFFF-FFFFFFFFFFFF");
    _korRand_GetBinaryUUIDAsText(KOR_AT(ex, 0), marked.data(), 16, text, sizeof text);
    EXPECT_STREQ(text, "FFFFFFFF-FFFF-5FFF-BFFF-FFFFFFFFFFFF");
    EXPECT_EQ(_korRand_IsMarkedUUID(plain.data(), 16), 0);
    EXPECT_EQ(_korRand_IsMarkedUUID(marked.data(), 16), 1);
    useConstant(1, 0);
    _korRand_GetRandomUUID(KOR_AT(ex, 0), plain.data());
    EXPECT_RAISED(6, "dry");
    EXPECT_EQ(plain, Uuid{});
}

TEST_F(KorRandTest, UuidTextIsReadWhateverTheDashes)
{
    Uuid uuid;
    _korRand_GetTextUUIDAsBinary(KOR_AT(ex, 0), uuid.data(), 16, "00112233x4455y6677z8899 aabbCCddEEFFtail", 40);
    EXPECT_EQ(uuid,
              (Uuid{0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff}));
    EXPECT_CLEAN();
    _korRand_GetTextUUIDAsBinary(KOR_AT(ex, 0), uuid.data(), 16, "00112233-4455-6677-8899-aabbccddeef", 35);
    EXPECT_RAISED(1, "Invalid UUID");
    EXPECT_EQ(uuid, Uuid{});
    _korRand_GetTextUUIDAsBinary(KOR_AT(ex, 0), uuid.data(), 15, "00112233-4455-6677-8899-aabbccddeeff", 36);
    EXPECT_RAISED(1, "binhex binary buffer too small");
}

TEST_F(KorRandTest, TheIntervalHasBothEnds)
{
    for (auto [byte, value] : {std::pair{0, 0.0}, {0xff, 1.0}}) {
        useConstant(static_cast<uint8_t>(byte));
        EXPECT_EQ(_korRand_Get01Interval(KOR_AT(ex, 0)), value);
    }
    useConstant(0, 0);
    EXPECT_EQ(_korRand_Get01Interval(KOR_AT(ex, 0)), -1.0);
    EXPECT_RAISED(6, "dry");
}

TEST_F(KorRandTest, AShuffleKeepsEveryValueEvenIfTheSourceRunsDry)
{
    std::vector<uint64_t> values = {1, 2, 3, 4, 5};
    useConstant(0);
    _korRand_ShuffleList(KOR_AT(ex, 0), values.data(), 5);
    EXPECT_EQ(values, (std::vector<uint64_t>{2, 3, 4, 5, 1}));
    values = {1, 2, 3, 4, 5};
    useConstant(1, 2); // 0x01010101 modulo 5 is 4, modulo 4 is 1, and then 0
    _korRand_ShuffleList(KOR_AT(ex, 0), values.data(), 5);
    EXPECT_RAISED(6, "dry");
    EXPECT_EQ(values, (std::vector<uint64_t>{4, 3, 1, 2, 5}));
}

TEST_F(KorRandTest, HooksAreReplacedAndTheSourceComesBack)
{
    useConstant(1);
    uint8_t seven = 7;
    _korRand_AddEntropy(KOR_AT(ex, 0), &seven, 1);
    _korRand_GetRandomBytes(KOR_AT(ex, 0), &seven, 1);
    EXPECT_EQ(seven, 8);
    ASSERT_NE(_korRand_ResetHooks(KOR_AT(ex, 0)), &constantHooks);
    for (int round = 0; round < 2; round++) {
        _korRand_Open(KOR_AT(ex, 0));
        std::set<Uuid> different;
        for (int i = 0; i < 1000; i++) {
            Uuid uuid;
            _korRand_GetRandomUUID(KOR_AT(ex, 0), uuid.data());
            different.insert(uuid);
        }
        EXPECT_EQ(different.size(), 1000U);
        std::vector<uint8_t> large(100000);
        _korRand_GetRandomBytes(KOR_AT(ex, 0), large.data(), static_cast<int32_t>(large.size()));
        EXPECT_NE(std::count(large.end() - 64, large.end(), 0), 64);
        _korRand_AddEntropy(KOR_AT(ex, 0), large.data(), static_cast<int32_t>(large.size()));
        EXPECT_NE(_korRand_Close(KOR_AT_D(0, ex)), 0);
    }
}

} // namespace
