// text.h - a text that grows in a buffer and is terminated at every step.

#pragma once

#include "korutil/korText.h"

#include <cstring>

namespace kor::logging {

/// `room` counts the terminator: it is at least 1.
struct Text {
    char* end;
    uint32_t room;
};

inline void advance(Text& text, uint32_t length)
{
    text.end += length;
    text.room -= length;
}

inline void append(Text& text, const char* piece, size_t length)
{
    uint32_t fitting = length < text.room ? static_cast<uint32_t>(length) : text.room - 1;
    std::memcpy(text.end, piece, fitting);
    text.end[fitting] = '\0';
    advance(text, fitting);
}

inline void append(Text& text, const char* piece)
{
    append(text, piece, std::strlen(piece));
}

/// Appends four characters: a longer piece is cut, a shorter one has blanks in front. NULL counts as empty.
inline void appendFour(Text& text, const char* piece)
{
    constexpr size_t width = 4;
    size_t length = piece == nullptr ? 0 : _kor_strnlen(piece, width);
    append(text, "    ", width - length);
    append(text, piece == nullptr ? "" : piece, length);
}

inline void appendFormatted(Text& text, const char* format, va_list arguments) KOR_PRINTF(2, 0);
inline void appendFormatted(Text& text, const char* format, va_list arguments)
{
    advance(text, _kor_vsnprintf(text.end, text.room, format, arguments));
}

inline void appendf(Text& text, const char* format, ...) KOR_PRINTF(2, 3);
inline void appendf(Text& text, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    appendFormatted(text, format, arguments);
    va_end(arguments);
}

} // namespace kor::logging
