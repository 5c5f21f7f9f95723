// korBuf_test.cpp - every codec as a table of values and their bytes, what stands at the cursor after each kind of
// failure, and bitmasks against a plain coder.

#include "korutil/korBuf.h"

#include "korutil/korAlloc.h"
#include "support/failingHeap.h"
#include "wireTest.h"

#include <algorithm>
#include <functional>

using kor::test::Bytes;
using kor::test::bytesOf;
using kor::test::FailingHeap;
using kor::test::hexOf;
using kor::test::Random;

namespace {

constexpr const char* endOfBuffer = "End of buffer";
constexpr const char* tooSmall = "Buffer too small";

class KorBuf : public kor::test::KorTest
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
        start = buffer.data();
        cursor = start;
        end = start + buffer.size();
    }

    std::string written() const { return hexOf(start, cursor); }
    int64_t moved() const { return cursor - start; }

    testing::AssertionResult ended(int32_t code, const char* description)
    {
        return code == 0 ? kor::test::clean(ex) : kor::test::raised(ex, code, description);
    }

    Bytes buffer;
    uint8_t* start;
    uint8_t* cursor;
    uint8_t* end;
};

TEST_F(KorBuf, FixedFieldsAreLittleEndianAndNeedTheirWholeRoom)
{
    room(24);
    _korBuf_EncodeInt32(ex, 0, &cursor, end, -2);
    _korBuf_EncodeUInt32(ex, 0, &cursor, end, 0x80000001);
    _korBuf_EncodeInt64(ex, 0, &cursor, end, INT64_MIN + 5);
    _korBuf_EncodeUTF8(ex, 0, &cursor, end, "h\xc3");
    _korBuf_EncodeBytes(ex, 0, &cursor, end, "\x07", 1);
    EXPECT_EQ(written(), "fe ff ff ff 01 00 00 80 05 00 00 00 00 00 00 80 68 c3 00 01 00 00 00 07");
    EXPECT_EQ(cursor, end);

    cursor = start;
    int32_t number;
    uint32_t positive;
    int64_t large;
    char* text;
    void* data;
    _korBuf_DecodeInt32(ex, 0, &cursor, end, &number);
    _korBuf_DecodeUInt32(ex, 0, &cursor, end, &positive);
    _korBuf_DecodeInt64(ex, 0, &cursor, end, &large);
    _korBuf_DecodeUTF8(ex, 0, &cursor, end, &text, 0);
    EXPECT_EQ(number, -2);
    EXPECT_EQ(positive, 0x80000001);
    EXPECT_EQ(large, INT64_MIN + 5);
    EXPECT_STREQ(text, "h\xc3");
    _korBuf_DecodeBytes(ex, 0, &cursor, end, &data, &number, 0);
    EXPECT_EQ(number, 1);
    EXPECT_EQ(data, end - 1);
    EXPECT_EQ(cursor, end);
}

TEST_F(KorBuf, WhatDoesNotFitIsToldInTheWordsOfEachOperation)
{
    struct Case {
        size_t room;
        const char* description;
        std::function<void()> operation;
    };
    int32_t number;
    uint32_t positive;
    int64_t large;
    uint64_t header;
    char* text;
    void* data;
    const Case cases[] = {
        {3, endOfBuffer, [&] { _korBuf_EncodeInt32(ex, 0, &cursor, end, 1); }},
        {3, endOfBuffer, [&] { _korBuf_DecodeInt32(ex, 0, &cursor, end, &number); }},
        {3, endOfBuffer, [&] { _korBuf_EncodeUInt32(ex, 0, &cursor, end, 1); }},
        {3, endOfBuffer, [&] { _korBuf_DecodeUInt32(ex, 0, &cursor, end, &positive); }},
        {7, tooSmall, [&] { _korBuf_EncodeInt64(ex, 0, &cursor, end, 1); }},
        {7, endOfBuffer, [&] { _korBuf_DecodeInt64(ex, 0, &cursor, end, &large); }},
        {2, tooSmall, [&] { _korBuf_EncodeUTF8(ex, 0, &cursor, end, "ab"); }},
        {2, endOfBuffer, [&] { _korBuf_DecodeUTF8(ex, 0, &cursor, end, &text, 1); }},
        {0, endOfBuffer, [&] { _korBuf_DecodeUTF8(ex, 0, &cursor, end, &text, 0); }},
        {5, endOfBuffer, [&] { _korBuf_EncodeBytes(ex, 0, &cursor, end, "ab", 2); }},
        {9, endOfBuffer, [&] { _korBuf_EncodeBytes(ex, 0, &cursor, end, "ab", INT32_MAX); }},
        {3, endOfBuffer, [&] { _korBuf_EncodeBytes(ex, 0, &cursor, end, "ab", -1); }},
        {3, endOfBuffer, [&] { _korBuf_DecodeBytes(ex, 0, &cursor, end, &data, &number, 0); }},
        {1, endOfBuffer, [&] { _korBuf_EncodeNBytes(ex, 0, &cursor, end, "ab", 2); }},
        {1, endOfBuffer, [&] { _korBuf_DecodeNBytes(ex, 0, &cursor, end, &data, 2, 0); }},
        {0, tooSmall, [&] { _korBuf_WriteHeaderInt(ex, 0, &cursor, end, 5); }},
        {1, tooSmall, [&] { _korBuf_WriteHeaderInt(ex, 0, &cursor, end, 128); }},
        {8, tooSmall, [&] { _korBuf_WriteHeaderIntImpl(ex, 0, &cursor, end, uint64_t{1} << 56); }},
        {8, tooSmall, [&] { _korBuf_WriteHeaderIntExpanded(ex, 0, &cursor, end, 0, 1); }},
        {0, tooSmall, [&] { _korBuf_ReadHeaderInt(ex, 0, &cursor, end, &header); }},
        {6, tooSmall, [&] { _korBuf_ReadHeaderIntImpl(ex, 0, &cursor, end, &header); }}, // fe and five more
        {8, tooSmall, [&] { _korBuf_WriteVarInt(ex, 0, &cursor, end, 0); }},
        {15, endOfBuffer, [&] { _korBuf_EncodeBitmask(ex, 0, &cursor, end, bytesOf("01 02 03 04").data(), 4); }},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(&one - cases);
        room(one.room);
        std::fill(buffer.begin(), buffer.end(), 0xfe);
        Bytes before = buffer;
        one.operation();
        EXPECT_RAISED(KOR_ERROR_END_OF_BUFFER, one.description);
        EXPECT_EQ(moved(), 0);
        EXPECT_EQ(buffer, before);
        cursor = end + 1; // never dereferenced: a cursor behind the end has no room for anything
        one.operation();
        EXPECT_RAISED(KOR_ERROR_END_OF_BUFFER, one.description);
        EXPECT_EQ(cursor, end + 1);
    }
}

TEST_F(KorBuf, RunsAreReadAsPointersOrCopies)
{
    char copied[8] = "______";
    void* data = copied;
    int32_t length = 0;
    message("03 00 00 00 61 62 63 64 65");
    _korBuf_DecodeBytes(ex, 0, &cursor, end, &data, &length, 1);
    EXPECT_EQ(length, 3);
    _korBuf_DecodeNBytes(ex, 0, &cursor, end, &data, 2, 0);
    EXPECT_STREQ(copied, "abc___");
    EXPECT_EQ(data, end - 2);

    message("06 00 00 00 61 62 63 64 65"); // a byte short
    data = copied;
    _korBuf_DecodeBytes(ex, 0, &cursor, end, &data, &length, 1);
    EXPECT_RAISED(KOR_ERROR_END_OF_BUFFER, endOfBuffer);
    EXPECT_EQ(moved(), 4) << "behind the length";
    EXPECT_EQ(length, 3);
    EXPECT_STREQ(copied, "abc___");
}

TEST_F(KorBuf, ANegativeLengthHasNoBytes)
{
    for (int32_t negative : {-1, -4, -5, INT32_MIN}) {
        room(4);
        _korBuf_EncodeBytes(ex, 0, &cursor, end, nullptr, negative);
        _korBuf_EncodeNBytes(ex, 0, &cursor, end, nullptr, negative);
        EXPECT_EQ(cursor, end);
        for (uint8_t copy : Bytes{0, 1}) {
            void* data = nullptr;
            int32_t length = 0;
            cursor = start;
            _korBuf_DecodeBytes(ex, 0, &cursor, end, &data, &length, copy);
            _korBuf_DecodeNBytes(ex, 0, &cursor, end, &data, negative, copy);
            EXPECT_EQ(length, negative);
            EXPECT_EQ(cursor, end);
        }
    }
}

TEST_F(KorBuf, ATextIsDuplicatedBehindTheCursor)
{
    char* text = nullptr;
    message("61 62 00 63");
    _korBuf_DecodeUTF8(ex, 0, &cursor, end, &text, 1);
    EXPECT_STREQ(text, "ab");
    EXPECT_NE(static_cast<void*>(text), start);
    _korUtil_Free(0, ex, text);
    cursor = start;
    {
        FailingHeap heap(1);
        _korBuf_DecodeUTF8(ex, 0, &cursor, end, &text, 1);
    }
    EXPECT_RAISED(KOR_ERROR_NO_MEMORY, nullptr);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(moved(), 3);
}

TEST_F(KorBuf, HeaderIntegers)
{
    struct Case {
        uint64_t value;
        const char* bytes;
    };
    const Case cases[] = {
        {0, "00"},
        {127, "7f"},
        {128, "80 80"},
        {300, "81 2c"},
        {16383, "bf ff"},
        {16384, "c0 40 00"},
        {2097151, "df ff ff"},
        {2097152, "e0 20 00 00"},
        {0xfffffff, "ef ff ff ff"},
        {268435456, "f0 10 00 00 00"},
        {34359738367, "f7 ff ff ff ff"},
        {34359738368, "f8 08 00 00 00 00"},
        {4398046511103, "fb ff ff ff ff ff"},
        {4398046511104, "fc 04 00 00 00 00 00"},
        {562949953421311, "fd ff ff ff ff ff ff"},
        {562949953421312, "fe 02 00 00 00 00 00 00"},
        {72057594037927935, "fe ff ff ff ff ff ff ff"},
        {72057594037927936, "ff 01 00 00 00 00 00 00 00"},
        {INT64_MAX, "ff 7f ff ff ff ff ff ff ff"},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.bytes);
        auto width = static_cast<int32_t>(bytesOf(one.bytes).size());
        room(static_cast<size_t>(width)); // exactly
        EXPECT_EQ(_korBuf_HeaderIntWireSizeImpl(ex, 0, one.value), width);
        EXPECT_EQ(_korBuf_WriteHeaderInt(ex, 0, &cursor, end, one.value), width);
        EXPECT_EQ(written(), one.bytes);
        cursor = start;
        EXPECT_EQ(_korBuf_WriteHeaderIntImpl(ex, 0, &cursor, end, one.value), width);
        EXPECT_EQ(written(), one.bytes);
        cursor = start;
        uint64_t value = 1;
        EXPECT_EQ(_korBuf_ReadHeaderInt(ex, 0, &cursor, end, &value), width);
        EXPECT_EQ(value, one.value);
        EXPECT_EQ(cursor, end);
        for (int32_t minimum = -1; minimum < 12; minimum++) {
            int32_t expanded = std::max(width, std::min(minimum, 9));
            room(9);
            EXPECT_EQ(_korBuf_WriteHeaderIntExpanded(ex, 0, &cursor, end, one.value, minimum), expanded);
            EXPECT_EQ(moved(), expanded);
            EXPECT_EQ(std::count(cursor, end, 0xee), 9 - expanded) << "nothing is changed behind the field";
            cursor = start;
            EXPECT_EQ(_korBuf_ReadHeaderIntImpl(ex, 0, &cursor, end, &value), expanded);
            EXPECT_EQ(value, one.value);
        }
    }
    room(9);
    _korBuf_WriteHeaderIntExpanded(ex, 0, &cursor, end, 5, 4);
    EXPECT_EQ(written(), "e0 00 00 05");
}

TEST_F(KorBuf, HeaderIntegersStopBelowTwoToThe63rd)
{
    constexpr uint64_t illegal = uint64_t{1} << 63;
    room(0); // the value is judged before the room
    EXPECT_EQ(_korBuf_WriteHeaderInt(ex, 0, &cursor, end, illegal), 0);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "ILLEGAL_VALUE");
    EXPECT_EQ(_korBuf_WriteHeaderIntExpanded(ex, 0, &cursor, end, illegal, 1), 0);
    EXPECT_RAISED(KOR_ERROR_END_OF_BUFFER, tooSmall); // but here it is not
    room(9);
    EXPECT_EQ(_korBuf_WriteHeaderIntExpanded(ex, 0, &cursor, end, illegal, 1), 0);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "ILLEGAL_VALUE");
    EXPECT_EQ(_korBuf_HeaderIntWireSizeImpl(ex, 0, UINT64_MAX), 0);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "ILLEGAL_VALUE");

    uint64_t value = 7;
    message("ff 80 00 00 00 00 00 00 00");
    EXPECT_EQ(_korBuf_ReadHeaderInt(ex, 0, &cursor, end, &value), 0);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "ILLEGAL_VALUE");
    EXPECT_EQ(value, 0u);
    EXPECT_EQ(moved(), 0);
}

TEST_F(KorBuf, TheShortFormsHaveTheirOwnFrame)
{
    room(0);
    _korBuf_WriteHeaderInt(KOR_AT(ex, 0), &cursor, end, 1);
    EXPECT_STREQ(ex->frames[1].function, "_korBuf_WriteHeaderInt");
    EXPECT_STREQ(ex->frames[2].function, "_korBuf_WriteHeaderIntImpl");
    EXPECT_RAISED(KOR_ERROR_END_OF_BUFFER, tooSmall);
}

TEST_F(KorBuf, VariableIntegers)
{
    struct Case {
        int64_t value;
        const char* bytes;
    };
    const Case cases[] = {
        {0, "00"},
        {1, "02"},
        {-1, "fe"},
        {63, "7e"},
        {-63, "82"},
        {64, "01 01"},
        {-64, "01 ff"},
        {300, "b1 04"},
        {-300, "51 fb"},
        {8191, "fd 7f"},
        {-8191, "05 80"},
        {8192, "03 00 01"},
        {-8192, "03 00 ff"},
        {1048576, "07 00 00 01"},
        {-1048575, "0b 00 80"},
        {134217728, "0f 00 00 00 01"},
        {17179869184, "1f 00 00 00 00 01"},
        {2199023255552, "3f 00 00 00 00 00 01"},
        {-2199023255551, "5f 00 00 00 00 80"},
        {281474976710656, "7f 00 00 00 00 00 00 01"},
        {-281474976710656, "7f 00 00 00 00 00 00 ff"},
        {36028797018963967, "7f ff ff ff ff ff ff 7f"},
        {36028797018963968, "ff 00 00 00 00 00 00 80 00"},
        {-36028797018963968, "ff 00 00 00 00 00 00 80 ff"},
        {INT64_MAX, "ff ff ff ff ff ff ff ff 7f"},
        {INT64_MIN, "ff 00 00 00 00 00 00 00 80"},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.value);
        Bytes bytes = bytesOf(one.bytes);
        auto width = static_cast<int32_t>(bytes.size());
        room(9);
        EXPECT_EQ(_korBuf_VarIntWireSize(ex, 0, one.value), width);
        EXPECT_EQ(_korBuf_WriteVarInt(ex, 0, &cursor, end, one.value), width);
        EXPECT_EQ(written(), one.bytes);
        for (int64_t behind : {0, 9}) { // read byte by byte at the end of memory, and as a whole word
            use(bytes);
            buffer.insert(buffer.end(), static_cast<size_t>(behind), 0x55);
            start = cursor = buffer.data();
            end = start + width;
            int64_t value = 77;
            EXPECT_EQ(_korBuf_ReadVarInt(ex, 0, &cursor, end, end + behind, &value), width);
            EXPECT_EQ(value, one.value);
            EXPECT_EQ(cursor, end);
        }
    }
    message("80"); // a form that the writer does not use
    int64_t value;
    EXPECT_EQ(_korBuf_ReadVarInt(ex, 0, &cursor, end, end, &value), 1);
    EXPECT_EQ(value, -64);
}

TEST_F(KorBuf, ATruncatedVariableIntegerIsToldByTheException)
{
    struct Case {
        const char* bytes;
        int32_t result;
        int64_t value; // what was there before is 77
        int64_t moved;
    };
    const Case cases[] = {
        {"", 1, 0, 1},
        {"05", 2, 1, 2},
        {"7f 01 02 03", 8, 0x030201, 8},
        {"ff 01 02 03 04 05 06 07", 0, 77, 1},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.bytes);
        message(one.bytes);
        buffer.resize(24); // what the cursor may reach
        start = cursor = buffer.data();
        end = start + bytesOf(one.bytes).size();
        for (int64_t memory : {0, 12}) {
            int64_t value = 77;
            cursor = start;
            EXPECT_EQ(_korBuf_ReadVarInt(ex, 0, &cursor, end, end + memory, &value), one.result);
            EXPECT_RAISED(KOR_ERROR_END_OF_BUFFER, tooSmall);
            EXPECT_EQ(value, one.value);
            EXPECT_EQ(moved(), one.moved);
        }
    }
}

TEST_F(KorBuf, Bitmasks)
{
    Bytes seventy(70);
    seventy[1] = 0xaa;
    seventy[9] = 0xbb;
    seventy[69] = 0xcc;
    struct Case {
        Bytes array;
        const char* bytes;
    };
    const Case cases[] = {
        {{}, "00"},
        {{9}, "01 09"},
        {{0}, "01 00"},
        {Bytes(2), "02 00"},
        {bytesOf("00 05 00 00 00 00 00 07"), "02 41 05 07"},
        {Bytes(9), "03 00"},
        {Bytes(64), "03 00"},
        {Bytes(100), "04 00"},
        {seventy, "04 c0 c0 40 aa 40 bb 80 04 cc"},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.bytes);
        auto count = static_cast<int32_t>(one.array.size());
        room(2 * one.array.size() + 8); // exactly
        _korBuf_EncodeBitmask(ex, 0, &cursor, end, one.array.data(), count);
        EXPECT_EQ(written(), one.bytes);
        Bytes back(one.array.size(), 0xee);
        end = cursor;
        cursor = start;
        _korBuf_DecodeBitmask(ex, 0, &cursor, end, back.data(), count);
        EXPECT_EQ(back, one.array);
        EXPECT_EQ(cursor, end);
    }
    room(64);
    _korBuf_EncodeBitmask(ex, 0, &cursor, end, nullptr, -1);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "ILLEGAL_VALUE");
}

// The nodes from `level` down, written by the rule itself.
bool addNodes(Bytes& field, const Bytes& array, int level, size_t index)
{
    if (level == 0) {
        uint8_t leaf = index < array.size() ? array[index] : 0;
        if (leaf != 0) {
            field.push_back(leaf);
        }
        return leaf != 0;
    }
    size_t at = field.size();
    field.push_back(0);
    for (size_t bit = 0; bit < 8; bit++) {
        if (addNodes(field, array, level - 1, index * 8 + bit)) {
            field[at] = static_cast<uint8_t>(field[at] | 0x80 >> bit);
        }
    }
    if (field[at] == 0) {
        field.pop_back();
        return false;
    }
    return true;
}

TEST_F(KorBuf, BitmasksOfAnySizeAndDensity)
{
    Random random;
    for (int round = 0; round < 300; round++) {
        Bytes array(2 + random.below(round % 10 == 0 ? 5000 : 100));
        auto percent = static_cast<unsigned>(random.below(101));
        for (uint8_t& byte : array) {
            byte = random.chance(percent) ? static_cast<uint8_t>(1 + random.below(255)) : uint8_t{0};
        }
        int levels = 1;
        for (size_t reach = 1; reach < array.size(); reach *= 8) {
            levels++;
        }
        Bytes field = {static_cast<uint8_t>(levels)};
        if (!addNodes(field, array, levels - 1, 0)) {
            field.push_back(0);
        }
        auto count = static_cast<int32_t>(array.size());
        room(2 * array.size() + 8);
        _korBuf_EncodeBitmask(ex, 0, &cursor, end, array.data(), count);
        ASSERT_EQ(Bytes(start, cursor), field);

        auto kept = static_cast<int32_t>(random.below(array.size() + 1)); // a reader with a smaller array
        Bytes back(static_cast<size_t>(kept), 0xee);
        end = cursor;
        cursor = start;
        _korBuf_DecodeBitmask(ex, 0, &cursor, end, back.data(), kept);
        ASSERT_EQ(back, Bytes(array.begin(), array.begin() + kept));
        ASSERT_EQ(cursor, end);
    }
}

TEST_F(KorBuf, MalformedBitmasks)
{
    struct Case {
        const char* bytes;
        int32_t code;
        const char* description;
        int64_t moved;
        const char* array;
    };
    const char* zero = "00 00 00 00 00 00 00 00 00";
    const Case cases[] = {
        {"", KOR_ERROR_END_OF_BUFFER, endOfBuffer, 0, zero},
        {"0c 00", KOR_ERROR_INVALID_VALUE, "Corrupt message header", 1, zero},
        {"ff", KOR_ERROR_INVALID_VALUE, "Corrupt message header", 1, zero},
        {"01", KOR_ERROR_END_OF_BUFFER, endOfBuffer, 1, zero},
        {"02", KOR_ERROR_END_OF_BUFFER, endOfBuffer, 1, zero},
        {"02 60 07", KOR_ERROR_END_OF_BUFFER, endOfBuffer, 3, "00 07 00 00 00 00 00 00 00"},
        {"03 c0 01 09 80", KOR_ERROR_END_OF_BUFFER, endOfBuffer, 5, "00 00 00 00 00 00 00 09 00"},
        {"0b 80 80 80 80 80 80 80 80 80 c0 04 05", 0, nullptr, 13, "04 05 00 00 00 00 00 00 00"},
        {"0b 01 01 01 01 01 01 01 01 01 01 04", 0, nullptr, 12, zero},   // the last element of 2^30
        {"03 60 80 01 00", 0, nullptr, 5, "00 00 00 00 00 00 00 00 01"}, // an empty node
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.bytes);
        Bytes array(9, 0xee);
        message(one.bytes);
        _korBuf_DecodeBitmask(ex, 0, &cursor, end, array.data(), 9);
        EXPECT_TRUE(ended(one.code, one.description));
        EXPECT_EQ(moved(), one.moved);
        EXPECT_EQ(hexOf(array.data(), array.data() + 9), one.array);
        cursor = start;
        _korBuf_DecodeBitmask(ex, 0, &cursor, end, array.data(), -1); // takes the field and stores nothing
        EXPECT_TRUE(ended(one.code, one.description));
        EXPECT_EQ(moved(), one.moved);
    }
}

TEST_F(KorBuf, NothingHappensWithAnErrorPending)
{
    room(32);
    Bytes before = buffer;
    uint64_t header = 7;
    int64_t variable = 7;
    KOR_RAISE(ex, 0, KOR_ERROR_EXCEPTION, "pending");
    _korBuf_EncodeInt64(ex, 0, &cursor, end, 1);
    _korBuf_EncodeBitmask(ex, 0, &cursor, end, before.data(), 1);
    EXPECT_EQ(_korBuf_WriteHeaderInt(ex, 0, &cursor, end, 5), 0);
    EXPECT_EQ(_korBuf_WriteVarInt(ex, 0, &cursor, end, 5), 0);
    EXPECT_EQ(_korBuf_VarIntWireSize(ex, 0, 5), 0);
    EXPECT_EQ(_korBuf_ReadHeaderInt(ex, 0, &cursor, end, &header), 0);
    EXPECT_EQ(_korBuf_ReadVarInt(ex, 0, &cursor, end, end, &variable), 0);
    EXPECT_RAISED(KOR_ERROR_EXCEPTION, "pending");
    EXPECT_EQ(moved(), 0);
    EXPECT_EQ(buffer, before);
}

} // namespace
