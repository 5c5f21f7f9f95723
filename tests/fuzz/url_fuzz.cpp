// url_fuzz.cpp - URLs of any bytes: what was split goes back to text, and that text is split again without harm.

#include "fuzz.h"

#include "korutil/korUrl.h"

namespace kor::fuzz {
namespace {

korUrl* parse(korEx* ex, const std::string& text)
{
    korUrl* url = _korUrl_Parse(ex, 0, text.c_str());
    demand(url != nullptr && korEx_GetErrorCode(ex) == 0);
    for (korUrlQuery* query = _korUrl_GetQueryList(url); query != nullptr; query = _korUrlQuery_GetNext(query)) {
        const char* key = _korUrlQuery_GetKey(query);
        demand(_korUrl_ContainsQuery(url, key));
        _korUrl_GetQueryValueInteger(ex, 0, url, key, 1);
        korEx_Clear(ex);
        _korUrl_GetQueryValueDouble(ex, 0, url, key, 1);
        korEx_Clear(ex);
        _korUrl_GetQueryValueBytes(ex, 0, url, key, 1);
        korEx_Clear(ex);
    }
    return url;
}

} // namespace

void check(korEx* ex, const std::string& input)
{
    korUrl* url = parse(ex, input);
    std::string text(input.size() + 16, '\0'); // "(null)" and no more is added
    _korUrl_ToString(ex, 0, url, text.data(), text.size());
    demand(korEx_GetErrorCode(ex) == 0);
    _korUrl_Release(0, ex, url);
    _korUrl_Release(0, ex, parse(ex, text));
}

} // namespace kor::fuzz
