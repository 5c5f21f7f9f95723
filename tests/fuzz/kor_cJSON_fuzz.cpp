// kor_cJSON_fuzz.cpp - JSON of any bytes: what was read is printed, and reads again; a second time nothing changes.

#include "fuzz.h"

#include "korutil/kor_cJSON.h"

namespace kor::fuzz {
namespace {

std::string printed(const kor_cJSON* item, int32_t format)
{
    char* text = _kor_cJSON_PrintBuffered(item, 1, format);
    demand(text != nullptr);
    std::string copy(text);
    _kor_cJSON_Free(text);
    return copy;
}

// What this text reads as, in print.
std::string readAgain(const std::string& text)
{
    kor_cJSON* item = _kor_cJSON_ParseWithOpts(text.c_str(), nullptr, 1);
    demand(item != nullptr);
    std::string again = printed(item, 0);
    _kor_cJSON_Delete(item);
    return again;
}

void checkItem(const kor_cJSON* item)
{
    std::string text = printed(item, 0);
    // A number beyond all doubles is printed as a word, which is none in JSON.
    if (text.find("inf") == std::string::npos && text.find("nan") == std::string::npos) {
        std::string again = readAgain(text); // rounded digits may make a number a whole one, which is written otherwise
        demand(readAgain(again) == again);
    }
    kor_cJSON* copy = _kor_cJSON_Duplicate(item, 1);
    demand(copy != nullptr && printed(copy, 1) == printed(item, 1));
    _kor_cJSON_Delete(copy);
}

} // namespace

void check(korEx*, const std::string& input)
{
    std::string text = input.c_str();
    const char* cursor = text.c_str();
    while (kor_cJSON* item = _kor_cJSON_ParseEx(&cursor)) {
        demand(cursor > text.c_str() && cursor <= text.c_str() + text.size());
        checkItem(item);
        _kor_cJSON_Delete(item);
    }
    _kor_cJSON_Delete(_kor_cJSON_ParseWithOpts(text.c_str(), &cursor, 1));
    std::string minified = text;
    _kor_cJSON_Minify(minified.data());
    demand(std::strlen(minified.c_str()) <= text.size());
}

} // namespace kor::fuzz
