// url_fuzz.cpp - URLs of any bytes: what was split goes back to text, and that text is split again without harm.

#include "korutil/korUrl.h"

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

void readOptions(korEx* ex, korUrl* url)
{
    for (korUrlQuery* query = _korUrl_GetQueryList(url); query != nullptr; query = _korUrlQuery_GetNext(query)) {
        const char* key = _korUrlQuery_GetKey(query);
        demand(_korUrl_ContainsQuery(url, key));
        _korUrl_GetQueryValueInteger(KOR_AT(ex, 0), url, key, 1);
        korEx_Clear(ex);
        _korUrl_GetQueryValueDouble(KOR_AT(ex, 0), url, key, 1);
        korEx_Clear(ex);
        _korUrl_GetQueryValueBytes(KOR_AT(ex, 0), url, key, 1);
        korEx_Clear(ex);
    }
}

std::string textOf(korEx* ex, const korUrl* url, size_t room)
{
    std::string text(room, '\0');
    _korUrl_ToString(KOR_AT(ex, 0), url, text.data(), text.size());
    demand(korEx_GetErrorCode(ex) == 0);
    text.resize(std::strlen(text.c_str()));
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string source(reinterpret_cast<const char*>(data), size);
    korEx* ex = korEx_Create();
    korUrl* url = _korUrl_Parse(KOR_AT(ex, 0), source.c_str());
    demand(url != nullptr && korEx_GetErrorCode(ex) == 0);
    readOptions(ex, url);
    std::string text = textOf(ex, url, size + 16); // "(null)" and no more is added
    korUrl* again = _korUrl_Parse(KOR_AT(ex, 0), text.c_str());
    readOptions(ex, again);
    _korUrl_Release(KOR_AT_D(0, ex), url);
    _korUrl_Release(KOR_AT_D(0, ex), again);
    korEx_Destroy(ex);
    return 0;
}
