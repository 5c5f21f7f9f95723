// korText.cpp - bounded text: copies, formatting, number reading, texts of error numbers.
//
// Every routine that writes terminates what it wrote, and none writes at or beyond `destination + size`.

#include "korutil/korText.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace
{

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
