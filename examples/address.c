/* Where to connect and how, in one string; an option that nobody asked for is a misspelling, and the log tells. */
#include <korutil/korUrl.h>

#include <inttypes.h>
#include <stdio.h>

static void configure(korEx* ex, uint8_t depth, korUrl* url)
{
    int64_t retries = _korUrl_GetQueryValueInteger(KOR_AT(ex, depth), url, "retries", 5);
    int64_t buffer = _korUrl_GetQueryValueBytes(KOR_AT(ex, depth), url, "buffer", 4096);
    uint8_t persist = _korUrl_GetQueryValueBool(KOR_AT(ex, depth), url, "persist");
    printf("%s to %s, port %s: %" PRId64 " retries, %" PRId64 " bytes, %s\n", _korUrl_GetScheme(url),
           _korUrl_GetHost(url), _korUrl_GetPort(url), retries, buffer, persist ? "kept" : "not kept");
    for (korUrlQuery* option = _korUrl_GetQueryList(url); option != NULL; option = _korUrlQuery_GetNext(option)) {
        if (!_korUrlQuery_IsRead(option)) {
            printf("what is %s?\n", _korUrlQuery_GetKey(option));
        }
    }
}

static void parse(korEx* ex, uint8_t depth, const char* text)
{
    korUrl* url = _korUrl_Parse(KOR_AT(ex, depth), text);
    configure(KOR_AT(ex, depth), url);
    _korUrl_Release(KOR_AT_D(depth, ex), url);
}

int main(void)
{
    korEx* ex = korEx_Create();
    parse(KOR_AT(ex, 0), "tcp://broker:1883/in?Retries=3&buffer=64k&persist=true&pesrist=true");
    if (korEx_GetErrorCode(ex) == 0) {
        parse(KOR_AT(ex, 0), "tcp://broker:1883?retries=many");
        printf("%s\n", ex->description);
    }
    korEx_Destroy(ex);
    return 0;
}
