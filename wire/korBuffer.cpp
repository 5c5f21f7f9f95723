// korBuffer.cpp - counted buffers: where their records and areas come from, and where they go back.
//
// A record knows its pool and nothing of caches: each release says which cache its thread has at hand.

#include "korutil/korBuffer.h"
#include "foundation/request.h"

#include "foundation/unload.h"
#include "korutil/korAlloc.h"
#include "korutil/korI64Hash.h"
#include "korutil/korMutex.h"

#include <algorithm>
#include <atomic>
#include <cstring>

static_assert(offsetof(korBuffer, refCount) == 24 && offsetof(korBuffer, capacity) == 40 &&
              offsetof(korBuffer, inlineData) == 45 && sizeof(korBuffer) == 48);

namespace kor {
namespace {

constexpr int32_t leastArea = 32;

// ---- The pools ------------------------------------------------------------------------------------------------------

korPool* defaultPool; // this and the next change at the library's start and stop only
bool poolsMade;
korMutex poolsLock;
korI64Hash dataPools; // guarded by poolsLock: by chunk count and data size
bool unloadDestroys;

void destroyDataPools(korEx* ex, uint8_t depth)
{
    KOR_EX_CHAINED(local, ex, depth); // a walk needs an object without an error
    korI64HashIterator walk;
    uint64_t pool;
    _korI64Hash_IteratorInit(KOR_AT(&local, depth), &dataPools, &walk);
    while (_korI64Hash_Next(KOR_AT(&local, depth), &walk, nullptr, &pool)) {
        _korPool_Destroy(KOR_AT_D(depth, &local), reinterpret_cast<korPool*>(pool));
    }
    _korI64Hash_Clear(KOR_AT_D(depth, &local), &dataPools);
}

void destroyPools()
{
    KOR_EX_LOCAL(local);
    _korBuffer_DestroyPool(KOR_AT(&local, 0));
}

UnloadStep destroysPools = {destroyPools, nullptr};

korPool* findOrMakePool(korEx* ex, uint8_t depth, int32_t count, int32_t dataSize)
{
    int64_t key = int64_t{count} << 32 | dataSize;
    auto* pool = reinterpret_cast<korPool*>(_korI64Hash_Get(KOR_AT(ex, depth), &dataPools, key));
    if (pool != nullptr || ex->code != 0) {
        return pool;
    }
    auto chunkSize = static_cast<int32_t>(sizeof(korBuffer)) + dataSize;
    pool = _korPool_Create(KOR_AT(ex, depth), count, chunkSize, nullptr, nullptr, 1, count / 10);
    _korI64Hash_Set(KOR_AT(ex, depth), &dataPools, key, reinterpret_cast<uint64_t>(pool));
    if (ex->code != 0) {
        _korPool_Destroy(KOR_AT_D(depth, ex), pool);
        return nullptr;
    }
    return pool;
}

// ---- Records --------------------------------------------------------------------------------------------------------

// A zeroed record with one reference. The pool is that of the cache if there is a cache; both may be NULL.
korBuffer* takeRecord(korEx* ex, uint8_t depth, korPoolCache* cache, korPool* pool)
{
    void* record;
    if (cache != nullptr) {
        record = _korPoolCache_Get(KOR_AT(ex, depth), cache);
    } else if (pool != nullptr) {
        record = _korPool_Get(KOR_AT(ex, depth), pool);
    } else {
        record = requestZeroed<korBuffer>(KOR_AT(ex, depth));
    }
    if (record == nullptr) {
        return nullptr;
    }
    auto* buffer = static_cast<korBuffer*>(std::memset(record, 0, sizeof(korBuffer)));
    buffer->pool = pool;
    buffer->refCount = 1;
    return buffer;
}

// False if the cache is full or cannot grow.
bool giveToCache(uint8_t depth, korEx* ex, korPoolCache* cache, korBuffer* buffer)
{
    if (cache->chunks.count >= cache->maxSize) {
        return false;
    }
    KOR_EX_PRIVATE(local, ex, depth); // the pool takes what the cache cannot
    _korDpa_AddSafe(KOR_AT(&local, depth), &cache->chunks, reinterpret_cast<uint64_t>(buffer));
    return local.code == 0;
}

void giveBackRecord(uint8_t depth, korEx* ex, korBuffer* buffer, korPoolCache* cache)
{
    korPool* pool = buffer->pool;
    if (pool == nullptr) {
        _kor_free(KOR_AT_D(depth, ex), buffer);
    } else if (cache == nullptr || cache->pool != pool || !giveToCache(KOR_AT_D(depth, ex), cache, buffer)) {
        _korPool_Return(KOR_AT_D(depth, ex), pool, buffer);
    }
}

// ---- Areas ----------------------------------------------------------------------------------------------------------

void setArea(korBuffer* buffer, void* data, int32_t size)
{
    buffer->data = static_cast<uint8_t*>(data);
    buffer->position = buffer->data;
    buffer->end = buffer->data + size;
    buffer->capacity = size;
}

void allocateArea(korEx* ex, uint8_t depth, korBuffer* buffer, int32_t size)
{
    int32_t capacity = std::max(size, leastArea);
    void* data = request<void>(KOR_AT(ex, depth), static_cast<size_t>(capacity));
    if (data != nullptr) {
        setArea(buffer, data, capacity);
    }
}

// Frees the area if it is the buffer's own.
void dropArea(uint8_t depth, korEx* ex, korBuffer* buffer)
{
    if (buffer->wrapped == 0 && buffer->inlineData == 0) {
        _kor_free(KOR_AT_D(depth, ex), buffer->data);
    }
    buffer->data = nullptr;
    buffer->wrapped = 0;
    buffer->inlineData = 0;
}

uint8_t* grownArea(korEx* ex, uint8_t depth, const korBuffer* buffer, int32_t size)
{
    if (buffer->inlineData == 0) {
        return granted<uint8_t>(KOR_AT(ex, depth),
                                _kor_realloc(KOR_AT(ex, depth), buffer->data, static_cast<size_t>(size)));
    }
    void* data = request<void>(KOR_AT(ex, depth), static_cast<size_t>(size));
    if (data != nullptr) {
        std::memcpy(data, buffer->data, static_cast<size_t>(buffer->capacity));
    }
    return static_cast<uint8_t*>(data);
}

bool hasOtherHolders(korBuffer* buffer)
{
    return std::atomic_ref(buffer->refCount).load(std::memory_order_acquire) > 1;
}

} // namespace
} // namespace kor

using namespace kor;

// ---- Pools ----------------------------------------------------------------------------------------------------------

void _korBuffer_CreatePool(korEx* ex, uint8_t depth)
{
    if (ex->code != 0 || poolsMade) {
        return;
    }
    defaultPool = _korPool_Create(KOR_AT(ex, depth), 100, sizeof(korBuffer), nullptr, nullptr, 1, 10);
    _korMutex_Init(KOR_AT(ex, depth), &poolsLock);
    _korI64Hash_Init(KOR_AT(ex, depth), &dataPools, 16);
    if (ex->code != 0) {
        _korMutex_Clear(KOR_AT(ex, depth), &poolsLock);
        _korPool_Destroy(KOR_AT_D(depth, ex), defaultPool);
        defaultPool = nullptr;
        return;
    }
    poolsMade = true;
    if (!unloadDestroys) {
        unloadDestroys = true;
        atUnload(destroysPools);
    }
}

void _korBuffer_DestroyPool(korEx* ex, uint8_t depth)
{
    if (!poolsMade) {
        return;
    }
    poolsMade = false;
    destroyDataPools(KOR_AT(ex, depth));
    _korMutex_Clear(KOR_AT(ex, depth), &poolsLock);
    _korPool_Destroy(KOR_AT_D(depth, ex), defaultPool);
    defaultPool = nullptr;
}

korPool* _korBuffer_GetPoolWithData(korEx* ex, uint8_t depth, int32_t count, int32_t dataSize)
{
    if (ex->code != 0) {
        return nullptr;
    }
    if (!poolsMade) {
        KOR_RAISE(ex, depth, KOR_ERROR_NOT_INITIALIZED, nullptr);
        return nullptr;
    }
    if (dataSize < 0 || dataSize > INT32_MAX - static_cast<int32_t>(sizeof(korBuffer))) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return nullptr;
    }
    korMutex_enter(&poolsLock);
    korPool* pool = findOrMakePool(KOR_AT(ex, depth), count, dataSize);
    korMutex_leave(&poolsLock);
    return pool;
}

uint32_t _korBuffer_PoolMemory(uint32_t* total, uint32_t* free)
{
    if (defaultPool != nullptr) {
        return _korPool_Memory(defaultPool, total, free);
    }
    for (uint32_t* out : {total, free}) {
        if (out != nullptr) {
            *out = 0;
        }
    }
    return 0;
}

// ---- Buffers --------------------------------------------------------------------------------------------------------

korBuffer* _korBuffer_CreateWithData(korEx* ex, uint8_t depth, void* data, int32_t size)
{
    if (ex->code != 0) {
        return nullptr;
    }
    if (data != nullptr && size < 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return nullptr;
    }
    korBuffer* buffer = takeRecord(KOR_AT(ex, depth), nullptr, defaultPool);
    if (buffer == nullptr) {
        return nullptr;
    }
    if (data != nullptr) {
        setArea(buffer, data, size);
    } else {
        allocateArea(KOR_AT(ex, depth), buffer, size);
    }
    if (buffer->data == nullptr) {
        giveBackRecord(KOR_AT_D(depth, ex), buffer, nullptr);
        return nullptr;
    }
    return buffer;
}

korBuffer* _korBuffer_CreateFromCacheOrPool(korEx* ex, uint8_t depth, korPoolCache* cache, korPool* pool, int32_t size)
{
    if (ex->code != 0) {
        return nullptr;
    }
    if (cache != nullptr) {
        pool = cache->pool;
    }
    int64_t chunkSize = pool != nullptr ? int64_t{_korPool_ChunkSize(pool)} : 0;
    constexpr int64_t recordSize = sizeof(korBuffer);
    bool hasArea = size >= 0 && chunkSize == recordSize + size;
    if (pool == nullptr) {
        cache = nullptr;
    } else if (!hasArea && chunkSize != recordSize) {
        cache = nullptr;
        pool = defaultPool;
    }
    korBuffer* buffer = takeRecord(KOR_AT(ex, depth), cache, pool);
    if (buffer == nullptr) {
        return nullptr;
    }
    if (hasArea) {
        buffer->inlineData = 1;
        setArea(buffer, buffer + 1, size);
    } else {
        allocateArea(KOR_AT(ex, depth), buffer, size);
    }
    if (buffer->data == nullptr) {
        giveBackRecord(KOR_AT_D(depth, ex), buffer, cache);
        return nullptr;
    }
    return buffer;
}

void _korBuffer_ReleaseToCache(uint8_t depth, korEx* ex, korBuffer* buffer, korPoolCache* cache)
{
    if (buffer != nullptr && std::atomic_ref(buffer->refCount).fetch_sub(1) == 1) {
        dropArea(KOR_AT_D(depth, ex), buffer);
        giveBackRecord(KOR_AT_D(depth, ex), buffer, cache);
    }
}

korBuffer* _korBuffer_Copy(korEx* ex, uint8_t depth, const korBuffer* source, int32_t offset, int32_t capacity,
                           int32_t length)
{
    if (ex->code != 0) {
        return nullptr;
    }
    if (offset < 0 || length < 0 || length > capacity || int64_t{offset} + length > source->capacity) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return nullptr;
    }
    korBuffer* copy = _korBuffer_CreateWithData(KOR_AT(ex, depth), nullptr, capacity);
    if (copy == nullptr) {
        return nullptr;
    }
    if (length > 0) { // else a wrapped source may stand for NULL
        std::memcpy(copy->data, source->data + offset, static_cast<size_t>(length));
    }
    copy->end = copy->data + length;
    return copy;
}

korBuffer* _korBuffer_ReplaceDataWrappedOrCreate(korEx* ex, uint8_t depth, korBuffer* buffer, void* data, int32_t size)
{
    if (ex->code != 0) {
        return buffer;
    }
    if (size < 0 || (data == nullptr && size > 0)) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return buffer;
    }
    korBuffer* result = buffer;
    if (buffer != nullptr && !hasOtherHolders(buffer)) {
        dropArea(KOR_AT_D(depth, ex), buffer);
    } else {
        result = takeRecord(KOR_AT(ex, depth), nullptr, defaultPool);
        if (result == nullptr) {
            return buffer;
        }
        _korBuffer_ReleaseToCache(KOR_AT_D(depth, ex), buffer, nullptr);
    }
    setArea(result, data, size);
    result->wrapped = 1;
    return result;
}

void _korBuffer_Expand(korEx* ex, uint8_t depth, korBuffer* buffer, int32_t extra)
{
    if (ex->code != 0) {
        return;
    }
    if (buffer->wrapped != 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_NOT_PERMITTED, "Cannot expand a wrapped buffer.");
        return;
    }
    if (extra < 0 || extra > INT32_MAX - buffer->capacity) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return;
    }
    int32_t size = buffer->capacity + extra;
    uint8_t* data = grownArea(KOR_AT(ex, depth), buffer, size);
    if (data == nullptr) {
        return;
    }
    buffer->position = data + (buffer->position - buffer->data);
    buffer->data = data;
    buffer->end = data + size;
    buffer->capacity = size;
    buffer->inlineData = 0;
}
