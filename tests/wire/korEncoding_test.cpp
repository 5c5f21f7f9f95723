// korEncoding_test.cpp - published vectors, the edges of the room tests, and round trips of random bytes.

#include "korutil/korEncoding.h"

#include "support/korTest.h"

#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace kor::test;
using KorEncodingTest = KorTest;
using Bytes = std::vector<uint8_t>;

using Encoder = int32_t (*)(korEx*, uint8_t, const void*, int32_t, char*, int32_t);
using Decoder = int32_t (*)(korEx*, uint8_t, void*, int32_t, const char*, int32_t);

constexpr const char* noRoom64 = "Not enough room for base64 encoding.";
constexpr const char* noRoom85 = "Not enough room for base85 encoding.";

struct Encoded {
    int32_t result;
    std::string text;
    bool operator==(const Encoded&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Encoded& encoded)
{
    return out << encoded.result << " \"" << encoded.text << '"';
}

// Into exactly `room` bytes, so that the address sanitizer sees one too many.
Encoded encode(korEx* ex, Encoder encoder, const void* bytes, size_t length, size_t room)
{
    std::vector<char> text(room, '?');
    int32_t result =
        encoder(KOR_AT(ex, 0), bytes, static_cast<int32_t>(length), text.data(), static_cast<int32_t>(room));
    return {result, room == 0 ? "" : std::string(text.data())};
}

Encoded encode(korEx* ex, Encoder encoder, const std::string& bytes)
{
    return encode(ex, encoder, bytes.data(), bytes.size(), 4 * bytes.size() / 3 + 5);
}

// The bytes that count; nothing if the result is no count.
std::string decode(korEx* ex, Decoder decoder, const std::string& text, size_t room)
{
    std::string bytes(room, '?');
    int32_t count = decoder(KOR_AT(ex, 0), bytes.data(), static_cast<int32_t>(room), text.c_str(),
                            static_cast<int32_t>(text.size()));
    return bytes.substr(0, count < 0 ? 0 : static_cast<size_t>(count));
}

size_t base64Room(const std::string& text)
{
    return (text.size() + 3) / 4 * 3 + 3;
}

TEST_F(KorEncodingTest, PublishedBase64)
{
    // RFC 4648, section 10.
    const char* vectors[][2] = {{"", ""},
                                {"f", "Zg=="},
                                {"fo", "Zm8="},
                                {"foo", "Zm9v"},
                                {"foob", "Zm9vYg=="},
                                {"fooba", "Zm9vYmE="},
                                {"foobar", "Zm9vYmFy"}};
    for (auto [bytes, text] : vectors) {
        std::string unpadded(text, strcspn(text, "="));
        EXPECT_EQ(encode(ex, _korBase64_Encode, bytes), (Encoded{static_cast<int32_t>(strlen(text)), text}));
        EXPECT_EQ(encode(ex, _korBase64Url_Encode, bytes), (Encoded{static_cast<int32_t>(strlen(text)), unpadded}));
        EXPECT_EQ(decode(ex, _korBase64_Decode, text, base64Room(text)), bytes);
        EXPECT_EQ(decode(ex, _korBase64Url_Decode, unpadded, base64Room(unpadded)), bytes);
    }
    EXPECT_EQ(encode(ex, _korBase64_Encode, "\xfb\xff\xfe"), (Encoded{4, "+//+"}));
    EXPECT_EQ(encode(ex, _korBase64Url_Encode, "\xfb\xff\xfe"), (Encoded{4, "-__-"}));
    EXPECT_EQ(decode(ex, _korBase64_Decode, "-_/+", 6), "\xfb\xff\xfe"); // one table for both
}

TEST_F(KorEncodingTest, BadBase64DecodesToSomething)
{
    EXPECT_EQ(decode(ex, _korBase64_Decode, "A*A=", 6), std::string(2, '\0'));
    EXPECT_EQ(decode(ex, _korBase64_Decode, "=AAA", 6), std::string(2, '\0')); // padding counts wherever it stands
    char three[6];
    EXPECT_EQ(_korBase64_Decode(KOR_AT(ex, 0), three, sizeof three, "====", 4), -1);
    EXPECT_EQ(_korBase64_Decode(KOR_AT(ex, 0), three, sizeof three, nullptr, 0), 0);
}

TEST_F(KorEncodingTest, Base64RoomIsTestedToTheByte)
{
    for (size_t length : {0U, 1U, 2U, 3U, 47U}) {
        std::string bytes(length, 'x');
        size_t room = 4 * length / 3 + 5;
        for (Encoder encoder : {_korBase64_Encode, _korBase64Url_Encode}) {
            encode(ex, encoder, bytes.data(), length, room);
            EXPECT_CLEAN();
            EXPECT_EQ(encode(ex, encoder, bytes.data(), length, room - 1), (Encoded{0, ""}));
            EXPECT_RAISED(1, noRoom64);
        }
    }
    EXPECT_EQ(encode(ex, _korBase64_Encode, nullptr, 0, 0), (Encoded{0, ""}));
    EXPECT_RAISED(1, noRoom64);
    EXPECT_EQ(decode(ex, _korBase64_Decode, "AAAAA", 8), "");
    EXPECT_RAISED(1, noRoom64);
    EXPECT_EQ(decode(ex, _korBase64_Decode, "AAAAA", 9).size(), 3U);
    char text[8] = "x";
    EXPECT_EQ(_korBase64_Encode(KOR_AT(ex, 0), text, INT32_MAX, text, 8), 0);
    EXPECT_RAISED(1, noRoom64);
    EXPECT_EQ(_korBase64_Decode(KOR_AT(ex, 0), text, 8, text, INT32_MAX), 0);
    EXPECT_RAISED(1, noRoom64);
}

TEST_F(KorEncodingTest, PublishedZ85)
{
    const uint8_t key[] = {0x86, 0x4F, 0xD2, 0x6F, 0xB5, 0x59, 0xF7, 0x5B}; // ZeroMQ RFC 32
    EXPECT_EQ(encode(ex, _korBase85_Encode, key, sizeof key, 11), (Encoded{10, "HelloWorld"}));
    EXPECT_EQ(decode(ex, _korBase85_Decode, "HelloWorld", 8), std::string(key, key + 8));
    EXPECT_EQ(encode(ex, _korBase85_Encode, key, sizeof key, 10), (Encoded{0, ""}));
    EXPECT_RAISED(1, noRoom85);
    EXPECT_EQ(encode(ex, _korBase85_Encode, key, 7, 11), (Encoded{0, ""}));
    EXPECT_RAISED(1, "Accepts byte arrays bounded to 4 bytes");
    decode(ex, _korBase85_Decode, "HelloWorl", 8);
    EXPECT_RAISED(1, "Accepts strings bounded to 5 bytes");
    decode(ex, _korBase85_Decode, "HelloWorld", 7);
    EXPECT_RAISED(1, noRoom85);
    uint8_t four[4];
    EXPECT_EQ(_korBase85_Decode(KOR_AT(ex, 0), four, 4, "HelloWorld", 5), 0); // the text is longer than was said
    EXPECT_RAISED(1, noRoom85);
    decode(ex, _korBase85_Decode, "\x01\x80\xff ~", 4); // nothing of the alphabet
}

TEST_F(KorEncodingTest, Z85PositionsWrapRound)
{
    Bytes bytes(4 * 13108, 0xff); // 65540 characters
    std::vector<char> text(65541, '?');
    int32_t result = _korBase85_Encode(KOR_AT(ex, 0), bytes.data(), static_cast<int32_t>(bytes.size()), text.data(),
                                       static_cast<int32_t>(text.size()));
    EXPECT_EQ(result, 4);
    EXPECT_EQ(text[4], '\0');
    EXPECT_EQ(text[65536], '?');
}

TEST_F(KorEncodingTest, Hexadecimal)
{
    const uint8_t bytes[] = {0xAB, 0x01, 0xF0};
    char text[7];
    _korutil_writeBinHex(KOR_AT(ex, 0), bytes, 3, text, 7);
    EXPECT_STREQ(text, "AB01F0");
    uint8_t back[4] = {0, 0, 0, 9};
    _korutil_readBinHex(KOR_AT(ex, 0), back, 3, "aB01fg", 6);
    EXPECT_EQ(Bytes(back, back + 4), (Bytes{0xAB, 0x01, 0xF0, 9})); // "g" is 0
    EXPECT_CLEAN();
    _korutil_writeBinHex(KOR_AT(ex, 0), bytes, 3, text, 6);
    EXPECT_RAISED(1, "binhex text buffer too small");
    EXPECT_STREQ(text, "");
    _korutil_readBinHex(KOR_AT(ex, 0), back, 3, "ABC", 3);
    EXPECT_RAISED(1, "binhex text not an even size");
    _korutil_readBinHex(KOR_AT(ex, 0), back, 1, "ABCD", 4);
    EXPECT_RAISED(1, "binhex binary buffer too small");
}

TEST_F(KorEncodingTest, RandomBytesSurviveEveryForm)
{
    Random random;
    for (int round = 0; round < 300; round++) {
        std::string bytes(random.below(100), '\0');
        for (char& byte : bytes) {
            byte = static_cast<char>(random.next());
        }
        for (Encoder encoder : {_korBase64_Encode, _korBase64Url_Encode}) {
            std::string text = encode(ex, encoder, bytes).text;
            EXPECT_EQ(decode(ex, _korBase64_Decode, text, base64Room(text)), bytes);
        }
        bytes.resize(bytes.size() / 4 * 4);
        std::string text = encode(ex, _korBase85_Encode, bytes.data(), bytes.size(), bytes.size() * 5 / 4 + 1).text;
        EXPECT_EQ(decode(ex, _korBase85_Decode, text, bytes.size()), bytes);
    }
}

} // namespace
