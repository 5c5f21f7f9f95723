// levelspec_fuzz.cpp - level lists of any bytes, for the global logger and for one of a key.
//
// Held against each other: a level list that is valid is applied without an error, and what was applied without an
// error is remembered to the letter.

#include "korutil/korLogger.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

void demand(bool holds)
{
    if (!holds) {
        std::abort();
    }
}

void apply(korEx* ex, uint64_t logKey, const std::string& specification)
{
    bool valid = _korLogger_LevelSpecificationsAreValid(KOR_AT(ex, 0), specification.c_str());
    korEx_Clear(ex);
    _korLogger_SetLogLevelsForId(KOR_AT(ex, 0), logKey, specification.c_str());
    bool applied = korEx_GetErrorCode(ex) == 0;
    demand(applied || korEx_GetErrorCode(ex) == KOR_ERROR_INVALID_ARGUMENT);
    demand(applied || !valid);
    korEx_Clear(ex);
    std::string remembered(specification.size() + 8, '\0');
    uint32_t length = _korLogger_GetLogLevelsForId(KOR_AT(ex, 0), logKey, remembered.data(),
                                                   static_cast<uint32_t>(remembered.size()));
    remembered.resize(length);
    demand(!applied || remembered == specification);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string specification(reinterpret_cast<const char*>(data), size);
    specification.resize(std::strlen(specification.c_str()));
    korEx* ex = korEx_Create();
    apply(ex, 0, specification);
    apply(ex, 1, specification);
    for (int component = 0; component <= KOR_LOG_MAX_COMPONENT; component++) {
        int32_t level = _korLogger_GetLogLevel(static_cast<uint8_t>(component));
        demand(std::strcmp(_korLogLevel_LevelToString(level), "invalid") != 0);
    }
    _korLogger_SetLogLevels(KOR_AT(ex, 0), "off"); // keeps the logger's own debug statements off the console
    _korLogger_SetLogLevelsForId(KOR_AT(ex, 0), 1, "off");
    korEx_Destroy(ex);
    return 0;
}
