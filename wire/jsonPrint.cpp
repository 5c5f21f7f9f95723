// jsonPrint.cpp - from items to JSON text, laid out as cJSON lays it out.
//
// Every piece asks for its room first; the buffer grows by powers of two. Numbers follow a rule of our own, since whole
// ones are printed from 64 bits; a string that needs escapes is cJSON's to print, in place.

#include "korutil/korText.h"
#include "wire/jsonText.h"

#include <array>
#include <bit>
#include <charconv>
#include <climits>
#include <cstring>

namespace kor {
namespace {

struct Writer {
    char* text;
    size_t used;
    size_t room;
    bool format;
};

bool printValue(Writer& writer, const kor_cJSON* item, int32_t depth);

// Where the next `size` bytes go, or null.
char* roomFor(Writer& writer, size_t size)
{
    size_t needed = writer.used + size;
    if (needed > writer.room) {
        size_t room = std::bit_ceil(needed + 1);
        auto* text = static_cast<char*>(jsonGrow(writer.text, writer.used, room));
        if (text == nullptr) {
            return nullptr;
        }
        writer.text = text;
        writer.room = room;
    }
    return writer.text + writer.used;
}

bool put(Writer& writer, const char* text, size_t length)
{
    char* out = roomFor(writer, length + 1);
    if (out == nullptr) {
        return false;
    }
    memcpy(out, text, length);
    writer.used += length;
    return true;
}

template <size_t size>
bool put(Writer& writer, const char (&text)[size])
{
    return put(writer, text, size - 1);
}

bool putTabs(Writer& writer, int32_t count)
{
    auto length = static_cast<size_t>(count);
    char* out = roomFor(writer, length + 1);
    if (out == nullptr) {
        return false;
    }
    memset(out, '\t', length);
    writer.used += length;
    return true;
}

// ---- Numbers ----

// The C library writes the decimal sign of its locale, which may take several bytes.
void plainPoint(char* text)
{
    constexpr char allowed[] = "0123456789+-einfa";
    size_t before = strspn(text, allowed);
    size_t sign = strcspn(text + before, allowed);
    if (sign > 0) {
        text[before] = '.';
        memmove(text + before + 1, text + before + sign, strlen(text + before + sign) + 1);
    }
}

bool printFloating(Writer& writer, double value)
{
    constexpr size_t size = 64;
    constexpr double beyondWhole = 9223372036854775808.0; // from here on every number is a whole one
    char* out = roomFor(writer, size);
    if (out == nullptr) {
        return false;
    }
    double magnitude = value < 0 ? -value : value;
    if (magnitude >= beyondWhole && magnitude < 1e60) {
        _kor_snprintf(out, size, "%.0f", value);
    } else if (magnitude < 1e-6 || magnitude > 1e9) {
        _kor_snprintf(out, size, "%e", value);
    } else {
        _kor_snprintf(out, size, "%f", value);
    }
    plainPoint(out);
    writer.used += strlen(out);
    return true;
}

bool printWhole(Writer& writer, int64_t value)
{
    constexpr size_t size = 21;
    char* out = roomFor(writer, size);
    if (out == nullptr) {
        return false;
    }
    writer.used += static_cast<size_t>(std::to_chars(out, out + size, value).ptr - out);
    return true;
}

bool printNumber(Writer& writer, const kor_cJSON* item)
{
    double value = item->valuedouble;
    if (value == 0) {
        return put(writer, "0");
    }
    bool fits = value >= -9223372036854775808.0 && value < 9223372036854775808.0;
    if (fits && static_cast<double>(static_cast<int64_t>(value)) == value) {
        return printWhole(writer, item->valuelong);
    }
    return printFloating(writer, value);
}

// ---- Strings ----

// By how much an escape is longer than its byte.
constexpr std::array<uint8_t, 256> escapeCosts()
{
    std::array<uint8_t, 256> costs{};
    for (size_t i = 0; i < ' '; i++) {
        costs[i] = 5;
    }
    for (char c : {'"', '\\', '\b', '\f', '\n', '\r', '\t'}) {
        costs[static_cast<uint8_t>(c)] = 1;
    }
    return costs;
}

constexpr std::array<uint8_t, 256> escapeCost = escapeCosts();

// Most texts need no escape and are copied whole.
bool printString(Writer& writer, const char* text)
{
    constexpr size_t slack = 8; // the quotes, the terminator, and the five bytes that cJSON asks for
    size_t length = 0;
    size_t escapes = 0;
    for (; text != nullptr && text[length] != '\0'; length++) {
        escapes += escapeCost[static_cast<uint8_t>(text[length])];
    }
    size_t size = length + escapes + slack;
    char* out = roomFor(writer, size);
    if (out == nullptr || size > INT_MAX) {
        return false;
    }
    if (escapes == 0) {
        out[0] = '"';
        memcpy(out + 1, text != nullptr ? text : "", length);
        out[length + 1] = '"';
    } else {
        cJSON item{};
        item.type = cJSON_String;
        item.valuestring = const_cast<char*>(text);
        if (!cJSON_PrintPreallocated(&item, out, static_cast<int>(size), 0)) {
            return false;
        }
    }
    writer.used += length + escapes + 2;
    return true;
}

// ---- Structure ----

bool printArray(Writer& writer, const kor_cJSON* array, int32_t depth)
{
    if (!put(writer, "[")) {
        return false;
    }
    for (const kor_cJSON* item = array->child; item != nullptr; item = item->next) {
        if (!printValue(writer, item, depth + 1)) {
            return false;
        }
        if (item->next != nullptr && !(writer.format ? put(writer, ", ") : put(writer, ","))) {
            return false;
        }
    }
    return put(writer, "]");
}

bool printMember(Writer& writer, const kor_cJSON* item, int32_t depth)
{
    return (!writer.format || putTabs(writer, depth)) && printString(writer, item->string) &&
           (writer.format ? put(writer, ":\t") : put(writer, ":")) && printValue(writer, item, depth) &&
           (item->next == nullptr || put(writer, ",")) && (!writer.format || put(writer, "\n"));
}

bool printObject(Writer& writer, const kor_cJSON* object, int32_t depth)
{
    if (!put(writer, "{") || (writer.format && !put(writer, "\n"))) {
        return false;
    }
    for (const kor_cJSON* item = object->child; item != nullptr; item = item->next) {
        if (!printMember(writer, item, depth + 1)) {
            return false;
        }
    }
    return (!writer.format || putTabs(writer, depth)) && put(writer, "}");
}

bool printValue(Writer& writer, const kor_cJSON* item, int32_t depth)
{
    if (depth > jsonMaxDepth) {
        return false;
    }
    switch (jsonType(item)) {
    case KOR_CJSON_FALSE:
        return put(writer, "false");
    case KOR_CJSON_TRUE:
        return put(writer, "true");
    case KOR_CJSON_NULL:
        return put(writer, "null");
    case KOR_CJSON_NUMBER:
        return printNumber(writer, item);
    case KOR_CJSON_STRING:
        return printString(writer, item->valuestring);
    case KOR_CJSON_ARRAY:
        return printArray(writer, item, depth);
    case KOR_CJSON_OBJECT:
        return printObject(writer, item, depth);
    default:
        return false;
    }
}

constexpr int32_t firstSize = 256;

} // namespace
} // namespace kor

using namespace kor;

char* _kor_cJSON_PrintBuffered(const kor_cJSON* item, int32_t size, int32_t format)
{
    if (item == nullptr || size < 0) {
        return nullptr;
    }
    auto room = static_cast<size_t>(size);
    Writer writer{static_cast<char*>(jsonAlloc(room)), 0, room, format != 0};
    if (writer.text == nullptr) {
        return nullptr;
    }
    if (!printValue(writer, item, 0) || roomFor(writer, 1) == nullptr) {
        _kor_cJSON_Free(writer.text);
        return nullptr;
    }
    writer.text[writer.used] = '\0';
    return writer.text;
}

char* _kor_cJSON_Print(const kor_cJSON* item)
{
    return _kor_cJSON_PrintBuffered(item, firstSize, 1);
}

char* _kor_cJSON_PrintUnformatted(const kor_cJSON* item)
{
    return _kor_cJSON_PrintBuffered(item, firstSize, 0);
}
