// korEncoding.cpp - base64 in two alphabets, Z85 and hexadecimal. Sizes are added up in 64 bits, so that no length of
// the caller's can wrap a test for room.

#include "korutil/korEncoding.h"

#include <array>
#include <cstring>

namespace kor {
namespace {

constexpr char noRoom64[] = "Not enough room for base64 encoding.";
constexpr char noRoom85[] = "Not enough room for base85 encoding.";

constexpr char standardAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char urlAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr char z85Alphabet[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ.-:+=^!/*?&<>()[]{}@%$#";
constexpr char hexDigits[] = "0123456789ABCDEF";

// Two characters for each value of 12 bits: a group of three bytes is two look-ups.
struct PairTable {
    char pairs[4096][2];
};

constexpr PairTable makePairs(const char* alphabet)
{
    PairTable table{};
    for (uint32_t value = 0; value < 4096; value++) {
        table.pairs[value][0] = alphabet[value >> 6];
        table.pairs[value][1] = alphabet[value & 63];
    }
    return table;
}

constexpr PairTable standardPairs = makePairs(standardAlphabet);
constexpr PairTable urlPairs = makePairs(urlAlphabet);

// Both alphabets in one table; anything else is 0.
constexpr std::array<uint8_t, 256> makeBase64Values()
{
    std::array<uint8_t, 256> values{};
    for (uint8_t value = 0; value < 64; value++) {
        values[static_cast<uint8_t>(standardAlphabet[value])] = value;
        values[static_cast<uint8_t>(urlAlphabet[value])] = value;
    }
    return values;
}

// What a character adds to its group at each of the four places: its digit's bits where they belong in the 24 of the
// group, or a count of one above them for padding. So a group is four look-ups and their sum.
struct DigitTable {
    uint32_t places[4][256];
};

constexpr DigitTable makeBase64Digits()
{
    constexpr std::array<uint8_t, 256> values = makeBase64Values();
    DigitTable table{};
    for (uint32_t place = 0; place < 4; place++) {
        for (uint32_t character = 0; character < 256; character++) {
            table.places[place][character] = uint32_t{values[character]} << (18 - 6 * place);
        }
        table.places[place][static_cast<uint8_t>('=')] = uint32_t{1} << 24;
    }
    return table;
}

constexpr DigitTable base64Digits = makeBase64Digits();

// Indexed by the low 7 bits of a character, less 32: 96 places, those of no digit 0.
constexpr std::array<uint8_t, 96> makeZ85Values()
{
    std::array<uint8_t, 96> values{};
    for (uint8_t value = 0; value < 85; value++) {
        values[static_cast<size_t>(z85Alphabet[value] - 32)] = value;
    }
    return values;
}

constexpr std::array<uint8_t, 96> z85Values = makeZ85Values();

constexpr std::array<uint8_t, 256> makeHexValues()
{
    std::array<uint8_t, 256> values{};
    for (uint8_t value = 0; value < 16; value++) {
        values[static_cast<uint8_t>(hexDigits[value])] = value;
        values[static_cast<uint8_t>(hexDigits[value] | 0x20)] = value; // a digit has that bit already
    }
    return values;
}

constexpr std::array<uint8_t, 256> hexValues = makeHexValues();

// An encoder that fails leaves an empty text, if there is room for one.
void leaveEmpty(char* text, int32_t size)
{
    if (size > 0) {
        text[0] = '\0';
    }
}

struct Base64Form {
    const PairTable* pairs;
    bool padded;
};

// The last group, of one or two bytes. Gives where the text ends.
char* encodeTail(const Base64Form& form, const uint8_t* bytes, int32_t count, char* text)
{
    uint32_t group = static_cast<uint32_t>(bytes[0]) << 16 | (count == 2 ? static_cast<uint32_t>(bytes[1]) << 8 : 0);
    const char* high = form.pairs->pairs[group >> 12];
    *text++ = high[0];
    *text++ = high[1];
    if (count == 2) {
        *text++ = form.pairs->pairs[group & 0xfff][0];
    } else if (form.padded) {
        *text++ = '=';
    }
    if (form.padded) {
        *text++ = '=';
    }
    return text;
}

int32_t _base64_Encode(korEx* ex, uint8_t depth, const Base64Form& form, const uint8_t* bytes, int32_t length,
                       char* text, int32_t size)
{
    if (int64_t{4} * length / 3 + 5 > size) {
        leaveEmpty(text, size);
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, noRoom64);
        return 0;
    }
    if (length < 1) {
        leaveEmpty(text, size);
        return 0;
    }
    const uint8_t* end = bytes + length / 3 * 3;
    char* out = text;
    for (; bytes != end; bytes += 3, out += 4) {
        uint32_t group = static_cast<uint32_t>(bytes[0]) << 16 | static_cast<uint32_t>(bytes[1]) << 8 | bytes[2];
        memcpy(out, form.pairs->pairs[group >> 12], 2);
        memcpy(out + 2, form.pairs->pairs[group & 0xfff], 2);
    }
    if (length % 3 != 0) {
        out = encodeTail(form, bytes, length % 3, out);
    }
    *out = '\0';
    return (length + 2) / 3 * 4;
}

// Writes the three bytes of a group and gives how many of its characters are padding.
KOR_INLINE int32_t decodeGroup(uint8_t* bytes, const char* group)
{
    const auto* in = reinterpret_cast<const uint8_t*>(group);
    const auto& places = base64Digits.places;
    uint32_t value = places[0][in[0]] + places[1][in[1]] + places[2][in[2]] + places[3][in[3]];
    bytes[0] = static_cast<uint8_t>(value >> 16);
    bytes[1] = static_cast<uint8_t>(value >> 8);
    bytes[2] = static_cast<uint8_t>(value);
    return static_cast<int32_t>(value >> 24);
}

int32_t _base64_Decode(korEx* ex, uint8_t depth, uint8_t* bytes, int32_t size, const char* text, int32_t length)
{
    int64_t groups = length < 1 ? 0 : (int64_t{length} + 3) / 4;
    if (groups * 3 + 3 > size) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, noRoom64);
        return 0;
    }
    int32_t result = static_cast<int32_t>(groups) * 3;
    int64_t whole = length < 1 ? 0 : length / 4;
    for (int64_t i = 0; i < whole; i++) {
        result -= decodeGroup(bytes + i * 3, text + i * 4);
    }
    if (whole != groups) {
        char last[4] = {'=', '=', '=', '='};
        memcpy(last, text + whole * 4, static_cast<size_t>(length % 4));
        result -= decodeGroup(bytes + whole * 3, last);
    }
    return result;
}

// The five digits of a word. Positions are counted in 16 bits.
void writeZ85(char* text, uint16_t position, uint32_t word)
{
    for (int digit = 4; digit >= 0; digit--, word /= 85) {
        text[static_cast<uint16_t>(position + digit)] = z85Alphabet[word % 85];
    }
}

uint32_t readZ85(const char* text)
{
    uint32_t word = 0;
    for (int digit = 0; digit < 5; digit++) {
        uint32_t index = (static_cast<uint8_t>(text[digit]) & 0x7fU) - 32U;
        word = word * 85 + (index < z85Values.size() ? z85Values[index] : 0);
    }
    return word;
}

} // namespace
} // namespace kor

using namespace kor;

int32_t _korBase64_Encode(korEx* ex, uint8_t depth, const void* bytes, int32_t length, char* text, int32_t size)
{
    return ex->code != 0 ? 0
                         : _base64_Encode(KOR_AT(ex, depth), {&standardPairs, true}, static_cast<const uint8_t*>(bytes),
                                          length, text, size);
}

int32_t _korBase64Url_Encode(korEx* ex, uint8_t depth, const void* bytes, int32_t length, char* text, int32_t size)
{
    return ex->code != 0 ? 0
                         : _base64_Encode(KOR_AT(ex, depth), {&urlPairs, false}, static_cast<const uint8_t*>(bytes),
                                          length, text, size);
}

int32_t _korBase64_Decode(korEx* ex, uint8_t depth, void* bytes, int32_t size, const char* text, int32_t length)
{
    return ex->code != 0 ? 0 : _base64_Decode(KOR_AT(ex, depth), static_cast<uint8_t*>(bytes), size, text, length);
}

int32_t _korBase64Url_Decode(korEx* ex, uint8_t depth, void* bytes, int32_t size, const char* text, int32_t length)
{
    return ex->code != 0 ? 0 : _base64_Decode(KOR_AT(ex, depth), static_cast<uint8_t*>(bytes), size, text, length);
}

int32_t _korBase85_Encode(korEx* ex, uint8_t depth, const void* bytes, int32_t length, char* text, int32_t size)
{
    if (ex->code != 0) {
        return 0;
    }
    bool whole = length >= 0 && length % 4 == 0;
    if (!whole || size <= int64_t{length} * 5 / 4) {
        leaveEmpty(text, size);
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, whole ? noRoom85 : "Accepts byte arrays bounded to 4 bytes");
        return 0;
    }
    const uint8_t* in = static_cast<const uint8_t*>(bytes);
    uint16_t position = 0;
    for (const uint8_t* end = in + length; in != end; in += 4) {
        uint32_t word = static_cast<uint32_t>(in[0]) << 24 | static_cast<uint32_t>(in[1]) << 16 |
                        static_cast<uint32_t>(in[2]) << 8 | in[3];
        writeZ85(text, position, word);
        position = static_cast<uint16_t>(position + 5);
    }
    text[position] = '\0';
    return position;
}

int32_t _korBase85_Decode(korEx* ex, uint8_t depth, void* bytes, int32_t size, const char* text, int32_t length)
{
    if (ex->code != 0) {
        return 0;
    }
    size_t textLength = text == nullptr ? 0 : strlen(text);
    if (textLength % 5 != 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "Accepts strings bounded to 5 bytes");
        return 0;
    }
    // The text's own length counts too: what is written follows it and not the argument.
    if (int64_t{length} * 4 / 5 > size || static_cast<int64_t>(textLength / 5 * 4) > size) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, noRoom85);
        return 0;
    }
    uint8_t* out = static_cast<uint8_t*>(bytes);
    uint16_t position = 0;
    for (const char* end = text + textLength; text != end; text += 5) {
        uint32_t word = readZ85(text);
        for (int shift = 24; shift >= 0; shift -= 8) {
            out[position++] = static_cast<uint8_t>(word >> shift);
        }
    }
    return position;
}

void _korutil_writeBinHex(korEx* ex, uint8_t depth, const void* bytes, int32_t length, char* text, int32_t size)
{
    if (ex->code != 0) {
        return;
    }
    leaveEmpty(text, size);
    if (size < 1 || int64_t{2} * length + 1 > size) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "binhex text buffer too small");
        return;
    }
    const uint8_t* in = static_cast<const uint8_t*>(bytes);
    for (int32_t i = 0; i < length; i++) {
        *text++ = hexDigits[in[i] >> 4];
        *text++ = hexDigits[in[i] & 15];
    }
    *text = '\0';
}

void _korutil_readBinHex(korEx* ex, uint8_t depth, void* bytes, int32_t size, const char* text, int32_t length)
{
    if (ex->code != 0) {
        return;
    }
    if (length % 2 != 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "binhex text not an even size");
        return;
    }
    if (length / 2 > size) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "binhex binary buffer too small");
        return;
    }
    uint8_t* out = static_cast<uint8_t*>(bytes);
    for (int32_t i = 0; i < length / 2; i++) {
        uint8_t high = hexValues[static_cast<uint8_t>(text[2 * i])];
        out[i] = static_cast<uint8_t>(high << 4 | hexValues[static_cast<uint8_t>(text[2 * i + 1])]);
    }
}
