// korCidr.cpp - the match of an address against a network's text.

#include "korutil/korCidr.h"

#include "platform/socket.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace kor {
namespace {

constexpr uint32_t widestAddress = 16; // bytes

// The bytes of an address and their number; 0 for a family that has no networks.
uint32_t bytesOf(const sockaddr* address, const void** bytes)
{
    if (address->sa_family == AF_INET) {
        *bytes = &reinterpret_cast<const sockaddr_in*>(address)->sin_addr;
        return 4;
    }
    if (address->sa_family == AF_INET6) {
        *bytes = &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
        return 16;
    }
    return 0;
}

// The part before the slash as an address. What does not fit the text buffer is none.
bool parseNetwork(int family, const char* text, size_t length, uint8_t* network)
{
    char literal[INET6_ADDRSTRLEN];
    if (length >= sizeof literal) {
        return false;
    }
    std::memcpy(literal, text, length);
    literal[length] = '\0';
    return inet_pton(family, literal, network) == 1;
}

bool agree(const uint8_t* left, const uint8_t* right, uint32_t bits)
{
    static constexpr uint8_t masks[8] = {0x00, 0x80, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC, 0xFE};
    uint32_t whole = bits / 8;
    if (std::memcmp(left, right, whole) != 0) {
        return false;
    }
    uint8_t mask = masks[bits % 8];
    return mask == 0 || ((left[whole] ^ right[whole]) & mask) == 0; // with no bits left there may be no next byte
}

} // namespace
} // namespace kor

uint8_t _korCidr_Match(korEx* ex, uint8_t depth, const sockaddr* address, const char* network)
{
    if (ex->code != 0) {
        return 0;
    }
    if (address == nullptr || network == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "address or network is missing");
        return 0;
    }
    const char* slash = std::strchr(network, '/');
    if (slash == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "Missing CIDR prefix");
        return 0;
    }
    const void* bytes = nullptr;
    uint32_t width = kor::bytesOf(address, &bytes);
    uint8_t parsed[kor::widestAddress];
    if (width == 0 || !kor::parseNetwork(address->sa_family, network, static_cast<size_t>(slash - network), parsed)) {
        return 0;
    }
    auto prefix = static_cast<unsigned long>(std::strtol(slash + 1, nullptr, 10)); // a negative one is the longest
    auto bits = static_cast<uint32_t>(std::min<unsigned long>(prefix, 8 * width));
    return kor::agree(static_cast<const uint8_t*>(bytes), parsed, bits) ? 1 : 0;
}
