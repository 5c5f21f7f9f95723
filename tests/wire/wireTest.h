// wireTest.h - bytes as hexadecimal text and rows of tables, for the tests of what crosses a wire.

#pragma once

#include "support/korTest.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
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
inline std::string hexOf(const Bytes& bytes)
{
    std::string hex;
    for (uint8_t byte : bytes) {
        char text[4];
        std::snprintf(text, sizeof text, " %02x", byte);
        hex += text + (hex.empty() ? 1 : 0);
    }
    return hex;
}

/// The rows of a table, "row; another row", without the blanks around them.
inline std::vector<std::string> rowsOf(const std::string& table, char mark = ';')
{
    std::vector<std::string> rows;
    for (size_t at = 0; (at = table.find_first_not_of(" \n", at)) != std::string::npos;) {
        size_t end = std::min(table.find(mark, at), table.size());
        size_t last = table.find_last_not_of(" \n", end - 1);
        rows.push_back(table.substr(at, last + 1 - at));
        at = end + 1;
    }
    return rows;
}

/// Both sides of a row, "one => other"; either may be empty.
inline std::pair<std::string, std::string> sides(const std::string& row)
{
    size_t mark = row.find("=>");
    return {row.substr(0, mark == 0 ? 0 : mark - 1), row.substr(std::min(mark + 3, row.size()))};
}

} // namespace kor::test
