/* A cache of the three pages used last: a list in the order of use, and a set of the pages that it holds. */
#include <korutil/korBitset.h>
#include <korutil/korLRU.h>

#include <inttypes.h>
#include <stdio.h>

#define PAGES 8
#define ROOM 3

typedef struct Page {
    korLRUItem item; /* first, so that an item of the list is the page */
    uint64_t number;
} Page;

static void evictOldest(korEx* ex, uint8_t depth, korLRU* recent, korBitset* cached)
{
    Page* oldest = (Page*)_korLRU_RemoveLast(recent);
    _korBitset_Remove(KOR_AT(ex, depth), cached, oldest->number);
    printf("  page %" PRIu64 " goes", oldest->number);
}

static void use(korEx* ex, uint8_t depth, korLRU* recent, korBitset* cached, Page* page)
{
    bool hit = _korBitset_IsPresent(KOR_AT(ex, depth), cached, page->number);
    printf("page %" PRIu64 ": %s", page->number, hit ? "hit" : "miss");
    if (hit) {
        _korLRU_Use(recent, &page->item);
    } else {
        _korBitset_Add(KOR_AT(ex, depth), cached, page->number);
        _korLRU_Add(recent, &page->item);
        if (recent->count > ROOM) {
            evictOldest(KOR_AT(ex, depth), recent, cached);
        }
    }
    printf("\n");
}

int main(void)
{
    static const uint64_t accesses[] = {1, 2, 3, 1, 4, 1, 2};
    Page pages[PAGES] = {0};
    korEx* ex = korEx_Create();
    korLRU recent;
    _korLRU_Init(&recent);
    korBitset* cached = _korBitset_Create(KOR_AT(ex, 0));
    for (size_t i = 0; i < sizeof(accesses) / sizeof(accesses[0]) && korEx_GetErrorCode(ex) == 0; i++) {
        Page* page = &pages[accesses[i]];
        page->number = accesses[i];
        use(KOR_AT(ex, 0), &recent, cached, page);
    }
    _korBitset_Destroy(KOR_AT_D(0, ex), cached);
    int failed = korEx_GetErrorCode(ex) != 0;
    if (failed) {
        korEx_Print(ex);
    }
    korEx_Destroy(ex);
    return failed;
}
