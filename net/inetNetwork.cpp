// inetNetwork.cpp - the text of a network number. A file of its own, since the C library has a function of this name.

#include "korutil/korInetIfTable.h"

namespace kor {
namespace {

constexpr uint32_t noNetwork = UINT32_MAX;
constexpr int maxParts = 4;

// The value of a digit, or the base if it is none.
uint32_t digitOf(char character, uint32_t base)
{
    uint32_t value = base;
    if (character >= '0' && character <= '9') {
        value = static_cast<uint32_t>(character - '0');
    } else if (character >= 'a' && character <= 'f') {
        value = static_cast<uint32_t>(character - 'a') + 10;
    } else if (character >= 'A' && character <= 'F') {
        value = static_cast<uint32_t>(character - 'A') + 10;
    }
    return value < base ? value : base;
}

// Reads the base of a part and moves past its mark.
uint32_t takeBase(const char** text)
{
    if (**text != '0') {
        return 10;
    }
    ++*text;
    if (**text != 'x' && **text != 'X') {
        return 8;
    }
    ++*text;
    return 16;
}

// Reads one part, of which the low byte counts, and moves past it.
uint32_t takePart(const char** text)
{
    uint32_t base = takeBase(text);
    uint32_t part = 0;
    for (uint32_t digit; (digit = digitOf(**text, base)) < base; ++*text) {
        part = part * base + digit;
    }
    return part & 0xFF;
}

bool endsText(char character)
{
    return character == '\0' || character == ' ' || (character >= '\t' && character <= '\r');
}

} // namespace
} // namespace kor

uint32_t inet_network(const char* text) noexcept
{
    uint32_t network = 0;
    for (int parts = 1; text != nullptr && parts <= kor::maxParts; parts++) {
        network = network << 8 | kor::takePart(&text);
        if (kor::endsText(*text)) {
            return network;
        }
        if (*text++ != '.') {
            break;
        }
    }
    return kor::noNetwork;
}
