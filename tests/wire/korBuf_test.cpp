// korBuf_test.cpp - every codec as a table of values and their bytes, what does not fit, and bitmasks of any size.

#include "korutil/korBuf.h"

#include "korutil/korAlloc.h"
#include "wireTest.h"

#include <algorithm>
#include <functional>

namespace {

using namespace kor::test;

constexpr const char* endOfBuffer = "End of buffer";
constexpr const char* tooSmall = "Buffer too small";
constexpr const char* illegalValue = "ILLEGAL_VALUE";
constexpr uint64_t illegal = uint64_t{1} << 63;

class KorBuf : public KorTest
{
protected:
    // A message for a reader, or, with a size, room for a writer. The vector ends where the room ends, so that the
    // address sanitizer sees every byte too many.
    void message(const std::string& hex) { use(bytesOf(hex)); }
    void room(size_t size) { use(Bytes(size, 0xee)); }

    void use(Bytes bytes)
    {
        buffer = std::move(bytes);
        buffer.reserve(1); // even an empty one has an address
        cursor = start = buffer.data();
        end = start + buffer.size();
    }

    std::string written() const { return hexOf(Bytes(start, cursor)); }
    int64_t moved() const { return cursor - start; }

    Bytes buffer;
    uint8_t *start, *cursor, *end;

    // What the readers read into.
    int32_t number = 0;
    uint32_t positive = 0;
    int64_t large = 0;
    uint64_t header = 1;
    char* text = nullptr;
    void* data = nullptr;
};

TEST_F(KorBuf, FixedFieldsAreLittleEndian)
{
    room(28);
    _korBuf_EncodeInt32(ex, 0, &cursor, end, -2);
    _korBuf_EncodeUInt32(ex, 0, &cursor, end, 0x80000001);
    _korBuf_EncodeInt64(ex, 0, &cursor, end, INT64_MIN + 5);
    _korBuf_EncodeUTF8(ex, 0, &cursor, end, "h\xc3");
    _korBuf_EncodeBytes(ex, 0, &cursor, end, "\x07", 1);
    _korBuf_EncodeBytes(ex, 0, &cursor, end, nullptr, -5);
    EXPECT_EQ(written(), "fe ff ff ff 01 00 00 80 05 00 00 00 00 00 00 80 68 c3 00 01 00 00 00 07 fb ff ff ff");
    cursor = start;
    _korBuf_DecodeInt32(ex, 0, &cursor, end, &number);
    EXPECT_EQ(number, -2);
    _korBuf_DecodeUInt32(ex, 0, &cursor, end, &positive);
    EXPECT_EQ(positive, 0x80000001);
    _korBuf_DecodeInt64(ex, 0, &cursor, end, &large);
    EXPECT_EQ(large, INT64_MIN + 5);
    _korBuf_DecodeUTF8(ex, 0, &cursor, end, &text, 0);
    EXPECT_STREQ(text, "h\xc3");
    _korBuf_DecodeBytes(ex, 0, &cursor, end, &data, &number, 0);
    EXPECT_EQ(data, cursor - number);
    EXPECT_EQ(number, 1);
}

TEST_F(KorBuf, WhatDoesNotFitIsToldInTheWordsOfEachOperation)
{
    struct Case {
        size_t room;
        const char* description;
        std::function<void()> operation;
    };
    const Case cases[] = {
        {3, endOfBuffer, [&] { _korBuf_EncodeInt32(ex, 0, &cursor, end, 1); }},
        {3, endOfBuffer, [&] { _korBuf_DecodeInt32(ex, 0, &cursor, end, &number); }},
        {3, endOfBuffer, [&] { _korBuf_EncodeUInt32(ex, 0, &cursor, end, 1); }},
        {3, endOfBuffer, [&] { _korBuf_DecodeUInt32(ex, 0, &cursor, end, &positive); }},
        {7, tooSmall, [&] { _korBuf_EncodeInt64(ex, 0, &cursor, end, 1); }},
        {7, endOfBuffer, [&] { _korBuf_DecodeInt64(ex, 0, &cursor, end, &large); }},
        {2, tooSmall, [&] { _korBuf_EncodeUTF8(ex, 0, &cursor, end, "ab"); }},
        {2, endOfBuffer, [&] { _korBuf_DecodeUTF8(ex, 0, &cursor, end, &text, 1); }},
        {9, endOfBuffer, [&] { _korBuf_EncodeBytes(ex, 0, &cursor, end, "ab", INT32_MAX); }},
        {3, endOfBuffer, [&] { _korBuf_DecodeBytes(ex, 0, &cursor, end, &data, &number, 0); }},
        {1, endOfBuffer, [&] { _korBuf_EncodeNBytes(ex, 0, &cursor, end, "ab", 2); }},
        {1, endOfBuffer, [&] { _korBuf_DecodeNBytes(ex, 0, &cursor, end, &data, 2, 0); }},
        {8, tooSmall, [&] { _korBuf_WriteHeaderIntImpl(ex, 0, &cursor, end, uint64_t{1} << 56); }},
        {8, tooSmall, [&] { _korBuf_WriteHeaderIntExpanded(ex, 0, &cursor, end, 0, 1); }},
        {6, tooSmall, [&] { _korBuf_ReadHeaderIntImpl(ex, 0, &cursor, end, &header); }}, // fe and five more
        {8, tooSmall, [&] { _korBuf_WriteVarInt(ex, 0, &cursor, end, 0); }},
        {15, endOfBuffer, [&] { _korBuf_EncodeBitmask(ex, 0, &cursor, end, bytesOf("01 02 03 04").data(), 4); }},
        {0, illegalValue, [&] { _korBuf_WriteHeaderInt(ex, 0, &cursor, end, illegal); }},
        {9, illegalValue, [&] { _korBuf_WriteHeaderIntExpanded(ex, 0, &cursor, end, illegal, 1); }},
        {0, illegalValue, [&] { _korBuf_HeaderIntWireSizeImpl(ex, 0, illegal); }},
        {0, illegalValue, [&] { _korBuf_EncodeBitmask(ex, 0, &cursor, end, nullptr, -1); }},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(&one - cases);
        int32_t code = one.description == illegalValue ? KOR_ERROR_INVALID_ARGUMENT : KOR_ERROR_END_OF_BUFFER;
        use(Bytes(one.room, 0xfe));
        one.operation();
        EXPECT_RAISED(code, one.description);
        EXPECT_EQ(moved(), 0);
        EXPECT_EQ(buffer, Bytes(one.room, 0xfe));
        use(Bytes(32)); // now there is room, but an error is pending
        KOR_RAISE(ex, 0, KOR_ERROR_EXCEPTION, "pending");
        one.operation();
        EXPECT_RAISED(KOR_ERROR_EXCEPTION, "pending");
        EXPECT_EQ(moved(), 0);
        EXPECT_EQ(buffer, Bytes(32));
    }
}

TEST_F(KorBuf, RunsAndTextsAreReadAsPointersOrCopies)
{
    char copied[8] = "______";
    data = copied;
    message("03 00 00 00 61 62 63 64 00");
    _korBuf_DecodeBytes(ex, 0, &cursor, end, &data, &number, 1);
    EXPECT_STREQ(copied, "abc___");
    _korBuf_DecodeUTF8(ex, 0, &cursor, end, &text, 1);
    EXPECT_STREQ(text, "d");
    EXPECT_NE(static_cast<void*>(text), start + 7);
    _korUtil_Free(0, ex, text);

    message("06 00 00 00 61 62 63 64 65"); // a byte short
    _korBuf_DecodeBytes(ex, 0, &cursor, end, &data, &number, 1);
    EXPECT_RAISED(KOR_ERROR_END_OF_BUFFER, endOfBuffer);
    message("fb ff ff ff"); // a negative length has no bytes
    _korBuf_DecodeBytes(ex, 0, &cursor, end, &data, &number, 1);
    _korBuf_DecodeNBytes(ex, 0, &cursor, end, &data, number, 0);
    EXPECT_EQ(cursor, end);
    EXPECT_STREQ(copied, "abc___");
}

TEST_F(KorBuf, HeaderIntegers)
{
    const char* table = R"(
        0 => 00; 127 => 7f; 128 => 80 80; 300 => 81 2c; 16383 => bf ff; 16384 => c0 40 00; 2097151 => df ff ff;
        2097152 => e0 20 00 00; 268435455 => ef ff ff ff; 268435456 => f0 10 00 00 00;
        34359738367 => f7 ff ff ff ff; 34359738368 => f8 08 00 00 00 00; 4398046511103 => fb ff ff ff ff ff;
        4398046511104 => fc 04 00 00 00 00 00; 562949953421311 => fd ff ff ff ff ff ff;
        562949953421312 => fe 02 00 00 00 00 00 00; 72057594037927935 => fe ff ff ff ff ff ff ff;
        72057594037927936 => ff 01 00 00 00 00 00 00 00; 9223372036854775807 => ff 7f ff ff ff ff ff ff ff)";
    for (const std::string& row : rowsOf(table)) {
        SCOPED_TRACE(row);
        auto [decimal, bytes] = sides(row);
        uint64_t value = std::stoull(decimal);
        auto width = static_cast<int32_t>(bytesOf(bytes).size());
        EXPECT_EQ(_korBuf_HeaderIntWireSizeImpl(ex, 0, value), width);
        room(static_cast<size_t>(width)); // exactly
        EXPECT_EQ(_korBuf_WriteHeaderInt(ex, 0, &cursor, end, value), width);
        EXPECT_EQ(written(), bytes);
        cursor = start;
        EXPECT_EQ(_korBuf_ReadHeaderInt(ex, 0, &cursor, end, &header), width);
        EXPECT_EQ(header, value);
        EXPECT_EQ(cursor, end);
        for (int32_t minimum = -1; minimum < 12; minimum++) {
            int32_t expanded = std::max(width, std::min(minimum, 9));
            room(9);
            EXPECT_EQ(_korBuf_WriteHeaderIntExpanded(ex, 0, &cursor, end, value, minimum), expanded);
            EXPECT_EQ(moved(), expanded);
            EXPECT_EQ(std::count(cursor, end, 0xee), 9 - expanded) << "nothing is changed behind the field";
            cursor = start;
            EXPECT_EQ(_korBuf_ReadHeaderIntImpl(ex, 0, &cursor, end, &header), expanded);
            EXPECT_EQ(header, value);
        }
    }
    message("ff 80 00 00 00 00 00 00 00");
    EXPECT_EQ(_korBuf_ReadHeaderInt(ex, 0, &cursor, end, &header), 0);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, illegalValue);
}

TEST_F(KorBuf, VariableIntegers)
{
    const char* table = R"(
        0 => 00; 63 => 7e; -63 => 82; 64 => 01 01; -64 => 01 ff; 8191 => fd 7f; -8191 => 05 80; -8192 => 03 00 ff;
        1048576 => 07 00 00 01; 134217728 => 0f 00 00 00 01; 17179869184 => 1f 00 00 00 00 01;
        -2199023255551 => 5f 00 00 00 00 80; 281474976710656 => 7f 00 00 00 00 00 00 01;
        36028797018963967 => 7f ff ff ff ff ff ff 7f; -36028797018963968 => ff 00 00 00 00 00 00 80 ff;
        9223372036854775807 => ff ff ff ff ff ff ff ff 7f; -9223372036854775808 => ff 00 00 00 00 00 00 00 80)";
    for (const std::string& row : rowsOf(table)) {
        SCOPED_TRACE(row);
        auto [decimal, bytes] = sides(row);
        int64_t value = std::stoll(decimal);
        auto width = static_cast<int32_t>(bytesOf(bytes).size());
        room(9);
        EXPECT_EQ(_korBuf_VarIntWireSize(ex, 0, value), width);
        EXPECT_EQ(_korBuf_WriteVarInt(ex, 0, &cursor, end, value), width);
        EXPECT_EQ(written(), bytes);
        for (const char* behind : {"", " 55 55 55 55 55 55 55 55 55"}) { // read byte by byte, and as a whole word
            message(bytes + behind);
            EXPECT_EQ(_korBuf_ReadVarInt(ex, 0, &cursor, start + width, end, &large), width);
            EXPECT_EQ(large, value);
            EXPECT_EQ(moved(), width);
        }
        for (int32_t have = 0; have < width; have++) {
            Bytes field = bytesOf(bytes);
            use(Bytes(field.begin(), field.begin() + have));
            _korBuf_ReadVarInt(ex, 0, &cursor, end, end, &large);
            EXPECT_RAISED(KOR_ERROR_END_OF_BUFFER, tooSmall);
        }
    }
    message("80"); // a form that the writer does not use
    EXPECT_EQ(_korBuf_ReadVarInt(ex, 0, &cursor, end, end, &large), 1);
    EXPECT_EQ(large, -64);
    cursor = start;
    KOR_RAISE(ex, 0, KOR_ERROR_EXCEPTION, "pending");
    EXPECT_EQ(_korBuf_ReadVarInt(ex, 0, &cursor, end, end, &large), 0);
    EXPECT_RAISED(KOR_ERROR_EXCEPTION, "pending");
}

TEST_F(KorBuf, BitmasksOfAnySizeAndDensity)
{
    Bytes seventy(70);
    seventy[1] = 0xaa;
    seventy[9] = 0xbb;
    seventy[69] = 0xcc;
    const std::pair<Bytes, const char*> known[] = {
        {{}, "00"},
        {{0}, "01 00"},
        {{7}, "01 07"},
        {{0, 0}, "02 00"},
        {{0, 5, 0, 0, 0, 0, 0, 7}, "02 41 05 07"},
        {seventy, "04 c0 c0 40 aa 40 bb 80 04 cc"},
    };
    for (const auto& [array, field] : known) {
        room(2 * array.size() + 8);
        _korBuf_EncodeBitmask(ex, 0, &cursor, end, array.data(), static_cast<int32_t>(array.size()));
        EXPECT_EQ(written(), field);
    }

    Random random;
    for (size_t round = 0; round < 300; round++) {
        Bytes array(round < 10 ? round : random.below(round % 10 == 0 ? 5000 : 100));
        auto percent = static_cast<unsigned>(random.below(101)) * (round % 10 != 1);
        for (uint8_t& byte : array) {
            byte = random.chance(percent) ? static_cast<uint8_t>(1 + random.below(255)) : uint8_t{0};
        }
        room(2 * array.size() + 8); // exactly
        _korBuf_EncodeBitmask(ex, 0, &cursor, end, array.data(), static_cast<int32_t>(array.size()));

        size_t kept = round < 10 ? round : random.below(array.size() + 1); // a reader may have a smaller array
        Bytes back(kept, 0xee);
        end = cursor;
        cursor = start;
        _korBuf_DecodeBitmask(ex, 0, &cursor, end, back.data(), static_cast<int32_t>(kept));
        array.resize(kept);
        ASSERT_EQ(back, array);
        ASSERT_EQ(cursor, end);
    }
}

// Each is taken to its end, and the rest of nine elements is zero.
TEST_F(KorBuf, MalformedBitmasks)
{
    const std::pair<int32_t, const char*> tables[] = {
        {KOR_ERROR_END_OF_BUFFER, " => ; 01 => ; 02 => ; 02 60 07 => 00 07; 03 c0 01 09 80 => 00 00 00 00 00 00 00 09"},
        {KOR_ERROR_INVALID_VALUE, "0c => "},
        // As many levels as there may be, the last element of 2^30, an empty node.
        {0, R"(0b 80 80 80 80 80 80 80 80 80 c0 04 05 => 04 05; 0b 01 01 01 01 01 01 01 01 01 01 04 => ;
               03 60 80 01 00 => 00 00 00 00 00 00 00 00 01)"},
    };
    for (auto [code, table] : tables) {
        for (const std::string& row : rowsOf(table)) {
            SCOPED_TRACE(row);
            auto [bytes, elements] = sides(row);
            Bytes expected = bytesOf(elements);
            expected.resize(9);
            Bytes array(9, 0xee);
            message(bytes);
            _korBuf_DecodeBitmask(ex, 0, &cursor, end, array.data(), 9);
            EXPECT_EQ(korEx_GetErrorCode(ex), code);
            korEx_Clear(ex);
            EXPECT_EQ(cursor, end);
            EXPECT_EQ(array, expected);
        }
    }
}

} // namespace
