// korEncoding_test.cpp - published vectors, room to the byte, and round trips.

#include "korutil/korEncoding.h"

#include "wireTest.h"

#include <cstring>
#include <optional>
#include <tuple>

namespace {

using namespace kor::test;

using Encoder = int32_t (*)(korEx*, uint8_t, const void*, int32_t, char*, int32_t);
using Decoder = int32_t (*)(korEx*, uint8_t, void*, int32_t, const char*, int32_t);
using Encoded = std::pair<int32_t, std::string>;

constexpr const char* noRoom64 = "Not enough room for base64 encoding.";
constexpr const char* noRoom85 = "Not enough room for base85 encoding.";

class KorEncodingTest : public KorTest
{
protected:
    // Into exactly `room` bytes, by default what base64 needs, so that the address sanitizer sees one too many.
    Encoded encode(Encoder encoder, const std::string& bytes, std::optional<size_t> room = {})
    {
        std::vector<char> text(room.value_or(4 * bytes.size() / 3 + 5), '?');
        int32_t result = encoder(KOR_AT(ex, 0), bytes.data(), static_cast<int32_t>(bytes.size()), text.data(),
                                 static_cast<int32_t>(text.size()));
        return {result, text.empty() ? "" : text.data()};
    }

    // The bytes that count; nothing if the result is no count.
    std::string decode(Decoder decoder, const std::string& text, std::optional<size_t> room = {})
    {
        std::string bytes(room.value_or((text.size() + 3) / 4 * 3 + 3), '?');
        int32_t count = decoder(KOR_AT(ex, 0), bytes.data(), static_cast<int32_t>(bytes.size()), text.c_str(),
                                static_cast<int32_t>(text.size()));
        return bytes.substr(0, static_cast<size_t>(std::max(count, 0)));
    }
};

TEST_F(KorEncodingTest, PublishedBase64AndItsRoomToTheByte)
{
    // RFC 4648, section 10.
    const char* table =
        "=> ; f => Zg==; fo => Zm8=; foo => Zm9v; foob => Zm9vYg==; fooba => Zm9vYmE=; foobar => Zm9vYmFy";
    for (const std::string& row : rowsOf(table)) {
        auto [bytes, text] = sides(row);
        auto length = static_cast<int32_t>(text.size());
        std::string unpadded(text.c_str(), strcspn(text.c_str(), "="));
        const std::tuple<Encoder, Decoder, std::string> forms[] = {
            {_korBase64_Encode, _korBase64_Decode, text}, {_korBase64Url_Encode, _korBase64Url_Decode, unpadded}};
        for (const auto& [encoder, decoder, expected] : forms) {
            EXPECT_EQ(encode(encoder, bytes), (Encoded{length, expected}));
            EXPECT_EQ(decode(decoder, expected), bytes);
            EXPECT_CLEAN();
            EXPECT_EQ(encode(encoder, bytes, 4 * bytes.size() / 3 + 4), (Encoded{0, ""}));
            EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, noRoom64);
            EXPECT_EQ(decode(decoder, expected, (expected.size() + 3) / 4 * 3 + 2), "");
            EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, noRoom64);
        }
    }
    EXPECT_EQ(encode(_korBase64_Encode, "\xfb\xff\xfe"), (Encoded{4, "+//+"}));
    EXPECT_EQ(encode(_korBase64Url_Encode, "\xfb\xff\xfe"), (Encoded{4, "-__-"}));
    EXPECT_EQ(decode(_korBase64_Decode, "-_/+"), "\xfb\xff\xfe"); // one table for both
    EXPECT_EQ(decode(_korBase64_Decode, "=A*A"), std::string(2, '\0')) << "padding counts wherever it stands";
    char bytes[6];
    EXPECT_EQ(_korBase64_Decode(KOR_AT(ex, 0), bytes, sizeof bytes, "====", 4), -1);
    EXPECT_EQ(_korBase64_Encode(KOR_AT(ex, 0), bytes, INT32_MAX, bytes, sizeof bytes), 0);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, noRoom64);
}

TEST_F(KorEncodingTest, PublishedZ85)
{
    const std::string key = "\x86\x4F\xD2\x6F\xB5\x59\xF7\x5B"; // ZeroMQ RFC 32
    EXPECT_EQ(encode(_korBase85_Encode, key, 11), (Encoded{10, "HelloWorld"}));
    EXPECT_EQ(decode(_korBase85_Decode, "HelloWorld", 8), key);
    EXPECT_EQ(encode(_korBase85_Encode, key, 10), (Encoded{0, ""}));
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, noRoom85);
    EXPECT_EQ(encode(_korBase85_Encode, "seven..", 11), (Encoded{0, ""}));
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Accepts byte arrays bounded to 4 bytes");
    decode(_korBase85_Decode, "HelloWorl", 8);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Accepts strings bounded to 5 bytes");
    uint8_t four[4];
    EXPECT_EQ(_korBase85_Decode(KOR_AT(ex, 0), four, 4, "HelloWorld", 5), 0); // the text is longer than was said
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, noRoom85);
    // Positions are counted in 16 bits: of 65540 characters the last four are the first.
    Encoded wrapped = encode(_korBase85_Encode, std::string(4 * 13108, '\xff'), 65541);
    EXPECT_EQ(wrapped.first, 4);
    EXPECT_EQ(wrapped.second.size(), 4U);
}

TEST_F(KorEncodingTest, Hexadecimal)
{
    const uint8_t bytes[] = {0xAB, 0x01, 0xF0};
    char text[7];
    _korutil_writeBinHex(KOR_AT(ex, 0), bytes, 3, text, 7);
    EXPECT_STREQ(text, "AB01F0");
    Bytes back(3);
    _korutil_readBinHex(KOR_AT(ex, 0), back.data(), 3, "aB01fg", 6);
    EXPECT_EQ(hexOf(back), "ab 01 f0"); // "g" is 0
    _korutil_writeBinHex(KOR_AT(ex, 0), bytes, 3, text, 6);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "binhex text buffer too small");
    _korutil_readBinHex(KOR_AT(ex, 0), back.data(), 3, "ABC", 3);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "binhex text not an even size");
    _korutil_readBinHex(KOR_AT(ex, 0), back.data(), 1, "ABCD", 4);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "binhex binary buffer too small");
}

TEST_F(KorEncodingTest, EveryByteSurvivesEveryForm)
{
    std::string bytes;
    for (int byte = 0; byte < 256; byte++) {
        bytes += static_cast<char>(byte);
    }
    for (Encoder encoder : {_korBase64_Encode, _korBase64Url_Encode}) {
        EXPECT_EQ(decode(_korBase64_Decode, encode(encoder, bytes).second), bytes);
    }
    EXPECT_EQ(decode(_korBase85_Decode, encode(_korBase85_Encode, bytes, 321).second, 256), bytes);
}

} // namespace
