// fuzz.h - what the fuzz targets share: each defines `check`, which gets an input and an exception object of its own.

#pragma once

#include "korutil/korEx.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace kor::fuzz {

/// Demands what must hold for any input.
void check(korEx* ex, const std::string& input);

/// Ends the run, which keeps its input, if a property does not hold.
inline void demand(bool holds)
{
    if (!holds) {
        std::abort();
    }
}

/// What lies between the separators; one piece more than there are of these.
inline std::vector<std::string> piecesOf(const std::string& input, char separator)
{
    std::vector<std::string> pieces;
    std::istringstream stream(input + separator);
    for (std::string piece; std::getline(stream, piece, separator);) {
        pieces.push_back(piece);
    }
    return pieces;
}

} // namespace kor::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    korEx* ex = korEx_Create();
    kor::fuzz::check(ex, std::string(reinterpret_cast<const char*>(data), size));
    korEx_Destroy(ex);
    return 0;
}
