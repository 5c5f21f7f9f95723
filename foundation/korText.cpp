// korText.cpp - bounded text: copies, formatting, number reading, texts of error numbers.
//
// Every routine that writes terminates what it wrote, and none writes at or beyond `destination + size`.

#include "korutil/korText.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace {

bool isSpace(char character)
{
    return std::isspace(static_cast<unsigned char>(character)) != 0;
}

// Puts up to `room` - 1 bytes and a terminator at `destination`; the areas may overlap.
size_t place(char* destination, size_t room, const char* source, size_t length)
{
    size_t fitting = length < room ? length : room - 1;
    if (fitting != 0) {
        std::memmove(destination, source, fitting);
    }
    destination[fitting] = '\0';
    return fitting;
}

size_t sourceLength(const char* source, size_t length, size_t size)
{
    return length != 0 || source == nullptr ? length : _kor_strnlen(source, size);
}

} // namespace

uint32_t _kor_vsnprintf(char* buffer, size_t size, const char* format, va_list arguments)
{
    if (size == 0) {
        return 0;
    }
    int length = std::vsnprintf(buffer, size, format, arguments);
    if (length < 0) { // a conversion failed half-way
        return _kor_bufnlen(buffer, size);
    }
    size_t wanted = static_cast<size_t>(length);
    return static_cast<uint32_t>(wanted < size ? wanted : size - 1);
}

uint32_t _kor_snprintf(char* buffer, size_t size, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    uint32_t length = _kor_vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

size_t _kor_strnlen(const char* text, size_t maximum)
{
    if (maximum == 0) {
        return 0;
    }
    const void* end = std::memchr(text, '\0', maximum);
    return end == nullptr ? maximum : static_cast<size_t>(static_cast<const char*>(end) - text);
}

size_t _kor_strlen(const char* text)
{
    return std::strlen(text);
}

uint32_t _kor_bufnlen(char* buffer, size_t size)
{
    if (size == 0) {
        return 0;
    }
    size_t length = _kor_strnlen(buffer, size);
    if (length == size) {
        buffer[--length] = '\0';
    }
    return static_cast<uint32_t>(length);
}

uint32_t _kor_StringCopy(char* destination, size_t size, const char* source, size_t length)
{
    if (size == 0) {
        return 0;
    }
    return static_cast<uint32_t>(place(destination, size, source, sourceLength(source, length, size)));
}

uint32_t _kor_StringCat(char* destination, size_t size, const char* source, size_t length)
{
    if (size == 0) {
        return 0;
    }
    size_t end = _kor_bufnlen(destination, size);
    return static_cast<uint32_t>(end +
                                 place(destination + end, size - end, source, sourceLength(source, length, size)));
}

uint32_t _kor_TrimWhitespace(char* destination, size_t size, const char* source, size_t length)
{
    if (size == 0 || source == nullptr) {
        return 0;
    }
    const char* end = source + (length != 0 ? length : std::strlen(source));
    while (source < end && isSpace(*source)) {
        source++;
    }
    while (source < end && isSpace(end[-1])) {
        end--;
    }
    if (source == end) {
        return 0;
    }
    return static_cast<uint32_t>(place(destination, size, source, static_cast<size_t>(end - source)));
}

uint64_t _kor_parseU64(const char* text, char** end)
{
    return std::strtoull(text, end, 0);
}

namespace {

// Where `text` goes on behind `word`, which is in lower case; NULL if it does not begin with it.
const char* behindWord(const char* text, const char* word)
{
    for (; *word != '\0'; text++, word++) {
        if (std::tolower(static_cast<unsigned char>(*text)) != *word) {
            return nullptr;
        }
    }
    return text;
}

// Where a number goes on behind "nan": behind a bracketed suffix if there is one that closes.
const char* behindSuffix(const char* text)
{
    if (*text != '(') {
        return text;
    }
    const char* end = text + 1;
    while (std::isalnum(static_cast<unsigned char>(*end)) != 0) {
        end++;
    }
    return *end == ')' ? end + 1 : text;
}

// Reads the words that stand for numbers; gives where they end, or NULL if `text`, behind its sign, is none.
const char* readWord(const char* text, bool negative, double* value)
{
    const char* end = behindWord(text, "infinity");
    if (end == nullptr) {
        end = behindWord(text, "inf");
    }
    if (end != nullptr) {
        double infinity = std::numeric_limits<double>::infinity();
        *value = negative ? -infinity : infinity;
        return end;
    }
    end = behindWord(text, "nan");
    if (end == nullptr) {
        return nullptr;
    }
    *value = std::numeric_limits<double>::quiet_NaN();
    return behindSuffix(end);
}

} // namespace

double _kor_strtod(const char* text, char** end)
{
    const char* start = text;
    while (isSpace(*start)) {
        start++;
    }
    bool negative = *start == '-';
    const char* number = start + (negative || *start == '+');
    double value = 0;
    // The words are read here and not by the C library, since not every one knows them.
    const char* behind = readWord(number, negative, &value);
    if (behind == nullptr) {
        return std::strtod(text, end);
    }
    if (end != nullptr) {
        *end = const_cast<char*>(behind);
    }
    return value;
}

namespace {

struct NumberText {
    int32_t number;
    const char* text;
};

// Windows' socket numbers, of which the C library knows nothing; in order of number.
constexpr NumberText socketTexts[] = {
    {10004, "The blocking call was cancelled"},
    {10014, "Argument is too small"},
    {10022, "Invalid parameter"},
    {10024, "No more file descriptors are available"},
    {10035, "The socket is marked as non-blocking and the connection can not be completed now."},
    {10036, "A blocking Windows Sockets call is in progress"},
    {10038, "The descriptor is not a socket"},
    {10039, "A destination address is required"},
    {10045, "The operation is not supported on this socket."},
    {10047, "The specified address family is not supported by this protocol"},
    {10048, "Specified address is in use"},
    {10049, "The specified address is not available from the local machine"},
    {10050, "Network subsystem is down"},
    {10051, "The network can't be reached from this host at this time"},
    {10055, "Not enough buffers available, too many connections"},
    {10056, "The socket is already connected"},
    {10057, "The socket is not connected"},
    {10060, "Attempt to connect timed out without establishing a connection"},
    {10061, "The attempt to connect was forcefully rejected"},
    {10065, "The host can't be reached from this host at this time"},
    {10093, "WINSOCK has not been initialized"},
};

} // namespace

const char* _kor_strerror(int32_t number)
{
    for (const NumberText& entry : socketTexts) {
        if (entry.number == number) {
            return entry.text;
        }
    }
    return std::strerror(number);
}
