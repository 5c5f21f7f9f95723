// korLogLevel.cpp - the words of the level scale, made from its one list.

#include "korutil/korLogLevel.h"

#include <cstring>

namespace {

struct LevelWords {
    int32_t level;
    const char* text;
    const char* shortText;
};

#define LEVEL_WORDS(name, number, text, shortText) {name, text, shortText},
constexpr LevelWords levelWords[] = {KOR_LOG_LEVELS(LEVEL_WORDS)};
#undef LEVEL_WORDS

constexpr LevelWords unknownLevel = {0, "invalid", "invalid"};

const LevelWords& wordsOf(int32_t level)
{
    for (const LevelWords& words : levelWords) {
        if (words.level == level) {
            return words;
        }
    }
    return unknownLevel;
}

} // namespace

int32_t _korLogLevel_StringToLevel(korEx* ex, uint8_t depth, const char* text)
{
    if (ex->code != 0) {
        return KOR_LOG_OFF;
    }
    for (const LevelWords& words : levelWords) {
        if (text != nullptr && std::strcmp(words.text, text) == 0) {
            return words.level;
        }
    }
    KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "No such log level");
    return KOR_LOG_OFF;
}

const char* _korLogLevel_LevelToString(int32_t level)
{
    return wordsOf(level).text;
}

const char* _korLogLevel_LevelShortString(int32_t level)
{
    return wordsOf(level).shortText;
}
