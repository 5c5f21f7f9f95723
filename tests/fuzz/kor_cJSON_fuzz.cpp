// kor_cJSON_fuzz.cpp - JSON of any bytes: what was read is printed, and reads again; a second time nothing changes.

#include "korutil/kor_cJSON.h"

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

std::string printed(const kor_cJSON* item, int32_t format)
{
    char* text = _kor_cJSON_PrintBuffered(item, 1, format);
    demand(text != nullptr);
    std::string copy(text);
    _kor_cJSON_Free(text);
    return copy;
}

// A number that is none in JSON, beyond all doubles, is printed as a word.
bool isReadable(const std::string& text)
{
    return text.find("inf") == std::string::npos && text.find("nan") == std::string::npos;
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

void check(const kor_cJSON* item)
{
    std::string text = printed(item, 0);
    if (isReadable(text)) {
        std::string again = readAgain(text); // rounded digits may make a number a whole one, which is written otherwise
        demand(readAgain(again) == again);
    }
    kor_cJSON* copy = _kor_cJSON_Duplicate(item, 1);
    demand(copy != nullptr && printed(copy, 1) == printed(item, 1));
    _kor_cJSON_Delete(copy);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string source(reinterpret_cast<const char*>(data), size);
    const char* cursor = source.c_str();
    while (kor_cJSON* item = _kor_cJSON_ParseEx(&cursor)) {
        demand(cursor > source.c_str() && cursor <= source.c_str() + source.size());
        check(item);
        _kor_cJSON_Delete(item);
    }
    _kor_cJSON_Delete(_kor_cJSON_ParseWithOpts(source.c_str(), &cursor, 1));
    std::string minified = source.c_str();
    _kor_cJSON_Minify(minified.data());
    demand(std::strlen(minified.c_str()) <= std::strlen(source.c_str()));
    return 0;
}
