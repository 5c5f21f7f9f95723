/* A report put together piece by piece, and notices for the person who asked for it. */
#include <korutil/korAlloc.h>
#include <korutil/korLogLevel.h>
#include <korutil/korNoticeAppender.h>
#include <korutil/korStrbuf.h>

#include <stdio.h>

static void build(korEx* ex, uint8_t depth, korStrbuf* report, korNoticeAppender* notices)
{
    static const int stock[] = {12, 0, 7};
    char line[64];
    for (int shelf = 0; shelf < 3; shelf++) {
        snprintf(line, sizeof(line), "shelf %d: %d\n", shelf + 1, stock[shelf]);
        _korStrbuf_Append(KOR_AT(ex, depth), report, line);
        if (stock[shelf] == 0) {
            _korNoticeAppender_Append(notices, KOR_LOG_WARN, "shelf %d is empty", shelf + 1);
        }
    }
}

static void print(korEx* ex, uint8_t depth, korStrbuf* report, korDpa* notices)
{
    const char* text = _korStrbuf_Finalize(KOR_AT(ex, depth), report);
    printf("%s", text != NULL ? text : "");
    for (int32_t i = 0; i < notices->count; i++) {
        char* notice = (char*)(uintptr_t)notices->items[i];
        printf("%s\n", notice + sizeof("2024-02-29 23:59:59.999 -")); /* the time stamp aside */
        _kor_free(KOR_AT_D(depth, ex), notice);
    }
}

int main(void)
{
    korEx* ex = korEx_Create();
    korDpa* lines = _korDpa_PerformCreate(KOR_AT(ex, 0), 4, NULL, NULL);
    korStrbuf* report = _korStrbuf_Create(KOR_AT(ex, 0));
    korNoticeAppender* notices = _korNoticeAppender_Create(KOR_AT(ex, 0), "stock", lines);
    int failed = korEx_GetErrorCode(ex) != 0;
    if (!failed) {
        build(KOR_AT(ex, 0), report, notices);
        print(KOR_AT(ex, 0), report, lines);
    }
    _korNoticeAppender_Destroy(KOR_AT_D(0, ex), notices);
    _korStrbuf_Destroy(KOR_AT_D(0, ex), report);
    _korDpa_DestroyPooled(KOR_AT_D(0, ex), lines, NULL);
    korEx_Destroy(ex);
    return failed;
}
