// wireTest.h - bytes as hexadecimal text, for the tests of what crosses a wire.

#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace kor::test {

using Bytes = std::vector<uint8_t>;

/// The bytes of "81 2c".
inline Bytes bytesOf(const std::string& hex)
{
    Bytes bytes;
    for (size_t at = 0; at < hex.size(); at += 3) {
        bytes.push_back(static_cast<uint8_t>(std::stoul(hex.substr(at, 2), nullptr, 16)));
    }
    return bytes;
}

/// "81 2c" for bytes.
inline std::string hexOf(const uint8_t* from, const uint8_t* to)
{
    std::string hex;
    for (; from < to; from++) {
        char text[4];
        std::snprintf(text, sizeof text, "%02x", *from);
        hex += hex.empty() ? "" : " ";
        hex += text;
    }
    return hex;
}

} // namespace kor::test
