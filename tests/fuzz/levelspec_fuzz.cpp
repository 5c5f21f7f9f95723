// levelspec_fuzz.cpp - level lists of any bytes, for the global logger and for one of a key.
//
// Held against each other: a level list that is valid is applied without an error, and what was applied without an
// error is remembered to the letter.

#include "fuzz.h"

#include "korutil/korLogger.h"

void kor::fuzz::check(korEx* ex, const std::string& input)
{
    std::string levels = input.c_str();
    for (uint64_t logKey : {0, 1}) {
        bool valid = _korLogger_LevelSpecificationsAreValid(ex, 0, levels.c_str());
        korEx_Clear(ex);
        _korLogger_SetLogLevelsForId(ex, 0, logKey, levels.c_str());
        bool applied = korEx_GetErrorCode(ex) == 0;
        demand(applied || (korEx_GetErrorCode(ex) == KOR_ERROR_INVALID_ARGUMENT && !valid));
        korEx_Clear(ex);
        std::string remembered(levels.size() + 8, '\0');
        remembered.resize(
            _korLogger_GetLogLevelsForId(ex, 0, logKey, remembered.data(), static_cast<uint32_t>(remembered.size())));
        demand(!applied || remembered == levels);
    }
    for (int component = 0; component <= KOR_LOG_MAX_COMPONENT; component++) {
        int32_t level = _korLogger_GetLogLevel(static_cast<uint8_t>(component));
        demand(std::strcmp(_korLogLevel_LevelToString(level), "invalid") != 0);
    }
    _korLogger_SetLogLevels(ex, 0, "off"); // keeps the logger's own debug statements off the console
    _korLogger_SetLogLevelsForId(ex, 0, 1, "off");
}
