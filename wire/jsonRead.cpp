// jsonRead.cpp - from JSON text to items.
//
// The reader is our own: cJSON's notes where it is in a record of the process, which every thread would write, and its
// numbers are doubles alone. Strings follow cJSON: any byte but NUL may stand in them, and an escape that is none is a
// failure.

#include "wire/jsonText.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kor {
namespace {

struct Reader {
    const char* at;
    int32_t depth;
};

bool readValue(Reader& reader, kor_cJSON* item);

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

// ---- Strings ----

int32_t hexDigit(char c)
{
    if (isDigit(c)) {
        return c - '0';
    }
    char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// The unit behind "\u", or -1. Stops at the first byte that is no digit, the terminator included.
int32_t readUnit(const char* digits)
{
    int32_t unit = 0;
    for (int i = 0; i < 4; i++) {
        int32_t digit = hexDigit(digits[i]);
        if (digit < 0) {
            return -1;
        }
        unit = unit * 16 + digit;
    }
    return unit;
}

char* putUtf8(char* out, uint32_t point)
{
    auto put = [&out](uint32_t byte) { *out++ = static_cast<char>(byte); };
    if (point < 0x80) {
        put(point);
    } else if (point < 0x800) {
        put(0xC0 | point >> 6);
        put(0x80 | (point & 0x3F));
    } else if (point < 0x10000) {
        put(0xE0 | point >> 12);
        put(0x80 | (point >> 6 & 0x3F));
        put(0x80 | (point & 0x3F));
    } else {
        put(0xF0 | point >> 18);
        put(0x80 | (point >> 12 & 0x3F));
        put(0x80 | (point >> 6 & 0x3F));
        put(0x80 | (point & 0x3F));
    }
    return out;
}

// What is behind "\u", one unit or a pair of surrogates, to UTF-8. Gives the byte behind it, or null.
const char* readPoint(const char* digits, char*& out)
{
    int32_t unit = readUnit(digits);
    bool low = unit >= 0xDC00 && unit <= 0xDFFF;
    if (unit < 0 || low) {
        return nullptr;
    }
    digits += 4;
    auto point = static_cast<uint32_t>(unit);
    if (unit >= 0xD800 && unit <= 0xDBFF) {
        int32_t second = digits[0] == '\\' && digits[1] == 'u' ? readUnit(digits + 2) : -1;
        if (second < 0xDC00 || second > 0xDFFF) {
            return nullptr;
        }
        point = 0x10000 + ((point & 0x3FF) << 10 | (static_cast<uint32_t>(second) & 0x3FF));
        digits += 6;
    }
    out = putUtf8(out, point);
    return digits;
}

// One escape, `text` behind its backslash. Gives the byte behind it, or null.
const char* readEscape(const char* text, char*& out)
{
    static constexpr char names[] = "\"\\/bfnrt";
    static constexpr char meanings[] = "\"\\/\b\f\n\r\t";
    if (*text == 'u') {
        return readPoint(text + 1, out);
    }
    const char* name = *text == '\0' ? nullptr : strchr(names, *text);
    if (name == nullptr) {
        return nullptr;
    }
    *out++ = meanings[name - names];
    return text + 1;
}

const char* plainEnd(const char* text)
{
    while (*text != '"' && *text != '\\' && *text != '\0') {
        text++;
    }
    return text;
}

// The closing quote of a string, or null.
const char* closingQuote(const char* text)
{
    for (text = plainEnd(text); *text == '\\'; text = plainEnd(text + 2)) {
        if (text[1] == '\0') {
            return nullptr;
        }
    }
    return *text == '"' ? text : nullptr;
}

// No escape is shorter than what it stands for, so the room of the source is enough.
bool decode(const char* text, const char* end, char* out)
{
    while (text < end) {
        if (*text != '\\') {
            *out++ = *text++;
            continue;
        }
        text = readEscape(text + 1, out);
        if (text == nullptr || text > end) {
            return false;
        }
    }
    *out = '\0';
    return true;
}

char* copyPlain(const char* text, size_t length)
{
    auto* copy = static_cast<char*>(jsonAlloc(length + 1));
    if (copy != nullptr) {
        memcpy(copy, text, length);
        copy[length] = '\0';
    }
    return copy;
}

// A string, the reader at its opening quote. NULL after a failure.
char* readString(Reader& reader)
{
    const char* start = reader.at + 1;
    const char* end = plainEnd(start);
    bool plain = *end == '"';
    if (!plain) {
        end = closingQuote(end);
    }
    if (end == nullptr || *end == '\0') {
        return nullptr;
    }
    auto length = static_cast<size_t>(end - start);
    if (plain) {
        reader.at = end + 1;
        return copyPlain(start, length);
    }
    auto* text = static_cast<char*>(jsonAlloc(length + 1));
    if (text != nullptr && !decode(start, end, text)) {
        _kor_cJSON_Free(text);
        return nullptr;
    }
    reader.at = end + 1;
    return text;
}

// ---- Numbers ----

// What the digits of a number say, without a rounding.
struct Digits {
    uint64_t mantissa = 0;
    int64_t exponent = 0; // of ten
    bool exact = true;    // no digit has been left out
};

void addDigit(Digits& digits, char digit, bool fraction)
{
    auto value = static_cast<uint64_t>(digit - '0');
    if (digits.exact && digits.mantissa <= (UINT64_MAX - 9) / 10) {
        digits.mantissa = digits.mantissa * 10 + value;
        digits.exponent -= fraction;
    } else {
        digits.exact = false;
    }
}

// The digits of the text again, for the C library: without the point, since its own may be another. Beyond 800 digits
// what follows can only tell that a value is not a tie, and an odd last digit says that too.
double roundDigits(const char* text, const char* end, int64_t exponent)
{
    constexpr size_t maxDigits = 800;
    char digits[maxDigits + 24];
    size_t count = 0;
    bool fraction = false;
    for (; text < end; text++) {
        if (*text == '.') {
            fraction = true;
        } else if (count < maxDigits) {
            if (count > 0 || *text != '0') {
                digits[count++] = *text;
            }
            exponent -= fraction;
        } else {
            digits[count - 1] = static_cast<char>(digits[count - 1] | (*text != '0'));
            exponent += !fraction;
        }
    }
    if (count == 0) {
        return 0;
    }
    snprintf(digits + count, sizeof digits - count, "e%lld", static_cast<long long>(exponent));
    return strtod(digits, nullptr);
}

// A product or quotient of two exact doubles is rounded once (Clinger, "How to read floating point numbers
// accurately").
double valueOf(const Digits& digits, const char* text, const char* end, int64_t exponent)
{
    static constexpr double powers[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                        1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
    constexpr int64_t maxPower = 22;
    constexpr uint64_t maxExact = UINT64_C(1) << 53;
    int64_t power = digits.exponent + exponent;
    auto mantissa = static_cast<double>(digits.mantissa);
    if (digits.exact && power == 0) {
        return mantissa;
    }
    if (digits.exact && digits.mantissa <= maxExact && power >= -maxPower && power <= maxPower) {
        return power < 0 ? mantissa / powers[-power] : mantissa * powers[power];
    }
    return roundDigits(text, end, exponent);
}

// The exponent behind an "e", or 0 and the text as it was if no digits are there. Beyond a million all are the same.
const char* readExponent(const char* text, int64_t& exponent)
{
    const char* digits = text + 1;
    bool negative = *digits == '-';
    if (negative || *digits == '+') {
        digits++;
    }
    if (!isDigit(*digits)) {
        return text;
    }
    for (; isDigit(*digits); digits++) {
        exponent = std::min<int64_t>(exponent * 10 + (*digits - '0'), 1000000);
    }
    exponent = negative ? -exponent : exponent;
    return digits;
}

// As the C library's conversion to 64 bits: held to the nearest number of that width.
int64_t wholeOf(const Digits& digits, bool negative)
{
    uint64_t limit = static_cast<uint64_t>(INT64_MAX) + negative;
    uint64_t magnitude = digits.exact ? std::min(digits.mantissa, limit) : limit;
    return static_cast<int64_t>(negative ? 0 - magnitude : magnitude);
}

// A sign, digits, a point only if a digit follows, an exponent only if digits are in it.
bool readNumber(Reader& reader, kor_cJSON* item)
{
    const char* text = reader.at;
    bool negative = *text == '-';
    text += negative;
    if (!isDigit(*text)) {
        return false;
    }
    const char* start = text;
    Digits digits;
    for (; isDigit(*text); text++) {
        addDigit(digits, *text, false);
    }
    int64_t whole = wholeOf(digits, negative);
    if (*text == '.' && isDigit(text[1])) {
        for (text++; isDigit(*text); text++) {
            addDigit(digits, *text, true);
        }
    }
    const char* end = text;
    int64_t exponent = 0;
    if (*text == 'e' || *text == 'E') {
        text = readExponent(text, exponent);
    }
    double value = valueOf(digits, start, end, exponent);
    value = negative ? -value : value;
    jsonSetNumber(item, value, text == end ? whole : jsonTruncate(value));
    item->type = KOR_CJSON_NUMBER;
    reader.at = text;
    return true;
}

// ---- Structure ----

bool readWord(Reader& reader, const char* word, int32_t type, kor_cJSON* item)
{
    size_t length = strlen(word);
    if (strncmp(reader.at, word, length) != 0) {
        return false;
    }
    reader.at += length;
    item->type = type;
    return true;
}

// White space and the byte that must be behind it.
bool pass(Reader& reader, char expected)
{
    reader.at = jsonSkipSpace(reader.at);
    if (*reader.at != expected) {
        return false;
    }
    reader.at++;
    return true;
}

bool readKey(Reader& reader, kor_cJSON* item)
{
    reader.at = jsonSkipSpace(reader.at);
    if (*reader.at != '"') {
        return false;
    }
    item->string = readString(reader);
    return item->string != nullptr && pass(reader, ':');
}

// A new item is in the list before it is read, so that a failure at any depth leaves one tree to free.
kor_cJSON* addItem(kor_cJSON* list)
{
    kor_cJSON* item = jsonItem(KOR_CJSON_NULL);
    if (item == nullptr) {
        return nullptr;
    }
    if (list->child == nullptr) {
        list->child = item;
    } else {
        item->prev = list->child->prev;
        item->prev->next = item;
    }
    list->child->prev = item;
    return item;
}

// An array or an object, the reader at its bracket.
bool readList(Reader& reader, kor_cJSON* list, int32_t type, char closing)
{
    list->type = type;
    if (reader.depth == jsonMaxDepth) {
        return false;
    }
    reader.at++;
    if (pass(reader, closing)) {
        return true;
    }
    reader.depth++;
    do {
        kor_cJSON* item = addItem(list);
        if (item == nullptr || (type == KOR_CJSON_OBJECT && !readKey(reader, item))) {
            return false;
        }
        reader.at = jsonSkipSpace(reader.at);
        if (!readValue(reader, item)) {
            return false;
        }
    } while (pass(reader, ','));
    reader.depth--;
    return pass(reader, closing);
}

bool readValue(Reader& reader, kor_cJSON* item)
{
    switch (*reader.at) {
    case '"':
        item->type = KOR_CJSON_STRING;
        item->valuestring = readString(reader);
        return item->valuestring != nullptr;
    case '[':
        return readList(reader, item, KOR_CJSON_ARRAY, ']');
    case '{':
        return readList(reader, item, KOR_CJSON_OBJECT, '}');
    case 'n':
        return readWord(reader, "null", KOR_CJSON_NULL, item);
    case 't':
        return readWord(reader, "true", KOR_CJSON_TRUE, item);
    case 'f':
        return readWord(reader, "false", KOR_CJSON_FALSE, item);
    default:
        return readNumber(reader, item);
    }
}

} // namespace

kor_cJSON* jsonRead(const char** at)
{
    Reader reader{jsonSkipSpace(*at), 0};
    kor_cJSON* item = jsonItem(KOR_CJSON_NULL);
    if (item != nullptr && !readValue(reader, item)) {
        _kor_cJSON_Delete(item);
        item = nullptr;
    }
    *at = reader.at;
    return item;
}

} // namespace kor

using namespace kor;

kor_cJSON* _kor_cJSON_ParseWithOpts(const char* text, const char** end, int32_t requireEnd)
{
    if (text == nullptr) {
        return nullptr;
    }
    const char* at = strncmp(text, "\xEF\xBB\xBF", 3) == 0 ? text + 3 : text;
    kor_cJSON* item = jsonRead(&at);
    if (item != nullptr && requireEnd) {
        at = jsonSkipSpace(at);
        if (*at != '\0') {
            _kor_cJSON_Delete(item);
            item = nullptr;
        }
    }
    if (end != nullptr) {
        *end = at;
    }
    return item;
}

kor_cJSON* _kor_cJSON_Parse(const char* text)
{
    return _kor_cJSON_ParseWithOpts(text, nullptr, 0);
}

kor_cJSON* _kor_cJSON_ParseEx(const char** cursor)
{
    if (cursor == nullptr || *cursor == nullptr) {
        return nullptr;
    }
    const char* at = *cursor;
    kor_cJSON* item = jsonRead(&at);
    if (item != nullptr) {
        *cursor = at;
    }
    return item;
}

const char* _kor_cJSON_GetErrorPtr(void)
{
    return "not supported";
}

void _kor_cJSON_Minify(char* text)
{
    cJSON_Minify(text);
}
