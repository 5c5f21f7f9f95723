// korRefDpa.cpp - counted arrays and the pool that the library shares for them.
//
// A chunk is zeroed once, when it is carved. From then on it keeps its array's storage from use to use.

#include "korutil/korRefDpa.h"
#include "foundation/request.h"

#include "foundation/unload.h"
#include "korutil/korAlloc.h"
#include "korutil/korPool.h"

#include <cstring>

static_assert(offsetof(korRefDpa, array) == 8 && offsetof(korRefDpa, pool) == 32 && sizeof(korRefDpa) == 40);

namespace kor {
namespace {

korPool* sharedPool; // changes at the library's start and stop only
bool unloadCloses;

void zeroRefDpa(korEx*, uint8_t, void* chunk)
{
    memset(chunk, 0, sizeof(korRefDpa));
}

void _refDpaPooledDestroy(korEx* ex, uint8_t depth, void* chunk)
{
    _korDpa_Clear(KOR_AT_D(depth, ex), &static_cast<korRefDpa*>(chunk)->array);
}

void closePool()
{
    KOR_EX_LOCAL(local);
    _korRefDpa_Close(KOR_AT_D(0, &local));
}

UnloadStep closesPool = {closePool, nullptr};

} // namespace
} // namespace kor

using namespace kor;

void _korRefDpa_Open(korEx* ex, uint8_t depth)
{
    constexpr int32_t chunksPerBlock = 128;
    constexpr int32_t minBlocks = 1;
    constexpr int32_t refillTarget = 128;
    if (sharedPool == nullptr) {
        sharedPool = _korPool_Create(KOR_AT(ex, depth), chunksPerBlock, sizeof(korRefDpa), zeroRefDpa,
                                     _refDpaPooledDestroy, minBlocks, refillTarget);
        if (sharedPool != nullptr && !unloadCloses) {
            unloadCloses = true;
            atUnload(closesPool);
        }
    }
}

void _korRefDpa_Close(uint8_t depth, korEx* ex)
{
    _korPool_Destroy(KOR_AT_D(depth, ex), sharedPool);
    sharedPool = nullptr;
}

korRefDpa* _korRefDpa_Create(korEx* ex, uint8_t depth, int32_t size)
{
    if (ex->code != 0) {
        return nullptr;
    }
    korPool* pool = sharedPool;
    void* object =
        pool != nullptr ? _korPool_Get(KOR_AT(ex, depth), pool) : requestZeroed<korRefDpa>(KOR_AT(ex, depth));
    if (object == nullptr) {
        return nullptr;
    }
    auto* counted = static_cast<korRefDpa*>(object);
    counted->refCount = 1;
    counted->pool = pool;
    if (pool != nullptr) {
        _korDpa_Reinit(KOR_AT(ex, depth), &counted->array);
    } else {
        _korDpa_PerformInit(KOR_AT(ex, depth), &counted->array, size, nullptr);
    }
    if (ex->code == 0) {
        return counted;
    }
    if (pool != nullptr) {
        _korPool_Return(KOR_AT_D(depth, ex), pool, counted);
    } else {
        _kor_free(KOR_AT_D(depth, ex), counted);
    }
    return nullptr;
}
