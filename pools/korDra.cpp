// korDra.cpp - the dynamic array of records held by value.
//
// What is counted is bytes. Storage is zero from its first byte to its last when it is got, and a growth zeroes what is
// new. An array whose growth has failed has no storage any more: every routine refuses it but those that free it.

#include "korutil/korDra.h"
#include "foundation/hostile.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

static_assert(sizeof(korDra) == 40 && offsetof(korDra, bytes) == 8 && offsetof(korDra, recordSize) == 16 &&
              offsetof(korDra, objectPool) == 24 && offsetof(korDra, storagePool) == 32);

namespace kor {
namespace {

constexpr int64_t heapRecords = 5; // the least that is asked of the heap

void check([[maybe_unused]] const korDra* array)
{
    KOR_INVARIANT(array->used >= 0 && array->used <= array->capacity);
    KOR_INVARIANT(array->bytes != nullptr && array->recordSize > 0);
}

korPool* createPool(korEx* ex, uint8_t depth, int32_t chunkSize)
{
    constexpr int32_t chunksPerBlock = 100;
    constexpr int32_t minBlocks = 1;
    constexpr int32_t refillTarget = 10;
    return _korPool_Create(KOR_AT(ex, depth), chunksPerBlock, chunkSize, nullptr, nullptr, minBlocks, refillTarget);
}

void* zeroedChunk(korEx* ex, uint8_t depth, korPool* pool)
{
    void* chunk = _korPool_Get(KOR_AT(ex, depth), pool);
    if (chunk != nullptr) {
        memset(chunk, 0, _korPool_ChunkSize(pool));
    }
    return chunk;
}

// The old chunk goes back whether or not there is something to take its place.
void* fromPoolToHeap(korEx* ex, uint8_t depth, korDra* array, int32_t capacity)
{
    void* bytes = requestZeroed<uint8_t>(KOR_AT(ex, depth), static_cast<size_t>(capacity));
    if (bytes != nullptr) {
        memcpy(bytes, array->bytes, static_cast<size_t>(array->capacity));
    }
    _korPool_Return(KOR_AT_D(depth, ex), array->storagePool, array->bytes);
    array->storagePool = nullptr;
    return bytes;
}

void* growOnHeap(korEx* ex, uint8_t depth, korDra* array, int32_t capacity)
{
    auto* bytes = granted<uint8_t>(KOR_AT(ex, depth),
                                   _kor_realloc(KOR_AT(ex, depth), array->bytes, static_cast<size_t>(capacity)));
    if (bytes == nullptr) {
        _kor_free(KOR_AT_D(depth, ex), array->bytes);
        return nullptr;
    }
    memset(bytes + array->capacity, 0, static_cast<size_t>(capacity - array->capacity));
    return bytes;
}

bool hasStorage(korEx* ex, uint8_t depth, const korDra* array)
{
    if (array->bytes == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, nullptr);
    }
    return array->bytes != nullptr;
}

} // namespace
} // namespace kor

using namespace kor;

// ---- Making and giving back -----------------------------------------------------------------------------------------

void _korDra_CreatePools(korEx* ex, uint8_t depth, korPool** objects, korPool** storages, int32_t size,
                         int32_t recordSize)
{
    int64_t chunkSize = static_cast<int64_t>(size) * recordSize;
    if (objects != nullptr) {
        *objects = nullptr;
    }
    if (storages != nullptr) {
        *storages = nullptr;
        if (size < 1 || recordSize < 1 || chunkSize > INT32_MAX) {
            KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        }
    }
    if (objects != nullptr) {
        *objects = createPool(KOR_AT(ex, depth), sizeof(korDra));
    }
    if (storages != nullptr) {
        *storages = createPool(KOR_AT(ex, depth), static_cast<int32_t>(chunkSize));
        if (*storages == nullptr && objects != nullptr) {
            _korPool_Destroy(KOR_AT_D(depth, ex), *objects);
            *objects = nullptr;
        }
    }
}

void _korDra_PerformInit(korEx* ex, uint8_t depth, korDra* array, int32_t size, int32_t recordSize, korPool* storages)
{
    memset(array, 0, sizeof *array);
    array->recordSize = static_cast<uint32_t>(std::max(recordSize, 1));
    if (ex->code != 0) {
        return;
    }
    int64_t hint = std::max(size, 1);
    int64_t slots = storages != nullptr ? _korPool_ChunkSize(storages) / array->recordSize : heapRecords;
    int64_t capacity = std::max(hint, slots) * array->recordSize;
    if (capacity > INT32_MAX) {
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, nullptr);
        return;
    }
    korPool* pool = slots >= hint ? storages : nullptr;
    void* bytes = pool != nullptr
                      ? zeroedChunk(KOR_AT(ex, depth), pool)
                      : granted<void>(KOR_AT(ex, depth),
                                      _kor_calloc(KOR_AT(ex, depth), static_cast<size_t>(std::max(hint, slots)),
                                                  array->recordSize));
    if (bytes == nullptr) {
        return;
    }
    array->capacity = static_cast<int32_t>(capacity);
    array->bytes = static_cast<uint8_t*>(bytes);
    array->storagePool = pool;
    check(array);
}

korDra* _korDra_PerformCreate(korEx* ex, uint8_t depth, int32_t size, int32_t recordSize, korPool* objects,
                              korPool* storages)
{
    if (ex->code != 0) {
        return nullptr;
    }
    void* object = objects != nullptr ? _korPool_Get(KOR_AT(ex, depth), objects) : request<korDra>(KOR_AT(ex, depth));
    if (object == nullptr) {
        return nullptr;
    }
    auto* array = static_cast<korDra*>(object);
    _korDra_PerformInit(KOR_AT(ex, depth), array, size, recordSize, storages);
    array->objectPool = objects;
    if (ex->code != 0) {
        _korDra_Destroy(KOR_AT_D(depth, ex), array);
        return nullptr;
    }
    return array;
}

void _korDra_Clear(uint8_t depth, korEx* ex, korDra* array)
{
    if (array == nullptr || array->bytes == nullptr) {
        return;
    }
    if (array->storagePool != nullptr) {
        _korPool_Return(KOR_AT_D(depth, ex), array->storagePool, array->bytes);
    } else {
        _kor_free(KOR_AT_D(depth, ex), array->bytes);
    }
}

void _korDra_Destroy(uint8_t depth, korEx* ex, korDra* array)
{
    if (array == nullptr) {
        return;
    }
    _korDra_Clear(KOR_AT_D(depth, ex), array);
    if (array->objectPool != nullptr) {
        _korPool_Return(KOR_AT_D(depth, ex), array->objectPool, array);
    } else {
        _kor_free(KOR_AT_D(depth, ex), array);
    }
}

korDra* _korDra_Copy(korEx* ex, uint8_t depth, const korDra* source)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto recordSize = static_cast<int32_t>(source->recordSize);
    korDra* copy = _korDra_Create(KOR_AT(ex, depth), source->used / recordSize, recordSize);
    if (copy != nullptr) {
        _korDra_AddDra(KOR_AT(ex, depth), copy, source);
    }
    if (ex->code != 0) {
        _korDra_Destroy(KOR_AT_D(depth, ex), copy);
        return nullptr;
    }
    return copy;
}

// ---- Adding and removing --------------------------------------------------------------------------------------------

void _korDra_AddDra(korEx* ex, uint8_t depth, korDra* array, const korDra* source)
{
    if (ex->code != 0 || !hasStorage(KOR_AT(ex, depth), array) || source->bytes == nullptr) {
        return;
    }
    int32_t added = source->used;
    int32_t room = array->capacity - array->used;
    if (added > room) {
        _korDra_GrowBytes(KOR_AT(ex, depth), array, added - room);
        if (ex->code != 0) {
            return;
        }
    }
    memcpy(array->bytes + array->used, source->bytes, static_cast<size_t>(added));
    array->used += added;
    check(array);
}

void _korDra_GrowBytes(korEx* ex, uint8_t depth, korDra* array, int32_t bytes)
{
    if (ex->code != 0 || !hasStorage(KOR_AT(ex, depth), array)) {
        return;
    }
    if (bytes < 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return;
    }
    if (bytes > INT32_MAX - array->capacity) { // no such size: the array stays as it was
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, nullptr);
        return;
    }
    int32_t capacity = array->capacity + bytes;
    void* storage = array->storagePool != nullptr ? fromPoolToHeap(KOR_AT(ex, depth), array, capacity)
                                                  : growOnHeap(KOR_AT(ex, depth), array, capacity);
    array->bytes = static_cast<uint8_t*>(storage);
    array->capacity = capacity;
    hasStorage(KOR_AT(ex, depth), array);
}

void* _korDra_NewGrow(uint8_t depth, korEx* ex, korDra* array)
{
    if (array == nullptr) {
        return nullptr;
    }
    KOR_EX_CHAINED(local, ex, depth); // clean-up paths append with an error pending
    if (!hasStorage(KOR_AT(&local, depth), array)) {
        return nullptr;
    }
    auto recordSize = static_cast<int32_t>(array->recordSize);
    if (array->capacity - array->used < recordSize) { // records of another size may have left less than one
        int32_t added = array->capacity > INT32_MAX / 3 ? INT32_MAX : array->capacity * 2;
        _korDra_GrowBytes(KOR_AT(&local, depth), array, added);
        if (local.code != 0) {
            return nullptr;
        }
    }
    void* record = array->bytes + array->used;
    array->used += recordSize;
    check(array);
    return record;
}

void* _korDra_GetNewAtIndex(korEx* ex, uint8_t depth, korDra* array, int32_t index)
{
    if (ex->code != 0 || !hasStorage(KOR_AT(ex, depth), array)) {
        return nullptr;
    }
    if (index < 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return nullptr;
    }
    int64_t offset = static_cast<int64_t>(index) * array->recordSize;
    int64_t end = offset + array->recordSize;
    if (end > array->capacity) {
        int64_t missing = end - array->capacity;
        _korDra_GrowBytes(KOR_AT(ex, depth), array, static_cast<int32_t>(std::min<int64_t>(missing, INT32_MAX)));
        if (ex->code != 0) {
            return nullptr;
        }
    }
    if (offset > array->used) {
        memset(array->bytes + array->used, 0, static_cast<size_t>(offset - array->used));
    }
    if (offset >= array->used) {
        array->used = static_cast<int32_t>(end);
    }
    check(array);
    return array->bytes + offset;
}

bool _korDra_RemoveIndex(korDra* array, int32_t index)
{
    int64_t offset = static_cast<int64_t>(index) * array->recordSize;
    int64_t behind = offset + array->recordSize;
    if (array->bytes == nullptr || index < 0 || behind > array->used) {
        return false;
    }
    memmove(array->bytes + offset, array->bytes + behind, static_cast<size_t>(array->used - behind));
    array->used -= static_cast<int32_t>(array->recordSize);
    return true;
}
