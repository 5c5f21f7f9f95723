/* Sessions by their 128-bit ids, in a table whose entries come from a pool; the idle ones are dropped during a walk. */
#include <korutil/kor128Hash.h>

#include <inttypes.h>

static void dropIdle(korEx* ex, uint8_t depth, kor128Hash* lastUse, uint64_t now)
{
    korHashChainIterator iterator;
    uint64_t id[2];
    uint64_t used;
    _kor128Hash_IteratorInit(lastUse, &iterator);
    while (_kor128Hash_Next(&iterator, id, &used)) {
        if (now - used > 30) {
            _kor128Hash_RemoveCurrent(KOR_AT_D(depth, ex), &iterator);
        }
    }
}

int main(void)
{
    korEx* ex = korEx_Create();
    korPool* tables;
    korPoolCache* entries;
    _kor128Hash_CreatePools(KOR_AT(ex, 0), &tables, &entries, 1000, 0);
    kor128Hash* lastUse = _kor128Hash_CreatePooled(KOR_AT(ex, 0), 64, tables, entries);
    if (lastUse != NULL) {
        for (uint64_t n = 1; n <= 100; n++) {
            _kor128Hash_Set2(KOR_AT(ex, 0), lastUse, n * UINT64_C(0x9e3779b97f4a7c15), n, n);
        }
        dropIdle(KOR_AT(ex, 0), lastUse, 100);
        printf("%" PRId64 " sessions are left, in %" PRId64 " bytes\n", lastUse->count, _kor128Hash_Memory(lastUse));
        _kor128Hash_DestroyPooled(KOR_AT_D(0, ex), lastUse, tables);
        korPool* entryPool = entries->pool;
        _korPoolCache_Destroy(KOR_AT_D(0, ex), entries);
        _korPool_Destroy(KOR_AT_D(0, ex), entryPool);
        _korPool_Destroy(KOR_AT_D(0, ex), tables);
    } else {
        korEx_Print(ex);
    }
    korEx_Destroy(ex);
    return 0;
}
