// korDpa.cpp - the dynamic array of 64-bit values.
//
// An array of capacity 1 lives in its object and owns nothing; any other owns its storage, which came from the pool in
// `inlineOrPool`, or with none from the heap. Every operation leaves one of these two states behind, failures included.

#include "korutil/korDpa.h"
#include "foundation/hostile.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"
#include "korutil/korPool.h"
#include "pools/order.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

static_assert(sizeof(korDpa) == 24 && offsetof(korDpa, items) == 8 && offsetof(korDpa, inlineOrPool) == 16);

namespace kor {
namespace {

constexpr int32_t heapSlots = 5;                                // the least that is asked of the heap
constexpr int32_t maxChunkSlots = INT32_MAX / sizeof(uint64_t); // beyond it a chunk's size is no 32-bit number

size_t bytesOf(int32_t slots)
{
    return static_cast<size_t>(slots) * sizeof(uint64_t);
}

// The pool that the storage came from, or null: the inline slot and the heap have none.
korPool* poolOf(const korDpa* dpa)
{
    return dpa->capacity == 1 ? nullptr : reinterpret_cast<korPool*>(dpa->inlineOrPool);
}

void makeEmpty(korDpa* dpa)
{
    dpa->count = 0;
    dpa->capacity = 1;
    dpa->items = &dpa->inlineOrPool;
    dpa->inlineOrPool = 0;
}

void check([[maybe_unused]] const korDpa* dpa)
{
    KOR_INVARIANT(dpa->count >= 0 && dpa->count <= dpa->capacity);
    KOR_INVARIANT((dpa->capacity == 1) == (dpa->items == &dpa->inlineOrPool));
}

// A pooled array keeps its pool where an unpooled one has its single slot, so its least capacity is 2.
int32_t capacityFor(int32_t size, int32_t slots, bool pooled)
{
    if (size < 2) {
        return pooled ? 2 : 1;
    }
    return std::max(size, slots);
}

// What a full array grows by: twice its capacity on top of it. Held below overflow; the growth itself refuses the
// result.
int32_t tripling(const korDpa* dpa)
{
    return dpa->capacity > INT32_MAX / 2 ? INT32_MAX : std::max(dpa->capacity * 2, 2);
}

void insertAt(korDpa* dpa, int32_t index, uint64_t value)
{
    uint64_t* slot = &dpa->items[index];
    memmove(slot + 1, slot, bytesOf(dpa->count - index));
    *slot = value;
    dpa->count++;
}

// ---- Order ----

// The index of an equal value, or the complement of the insertion index. Which one of several equal values is found is
// part of the promise: where an ordered add places its value follows from it.
template <class Order>
int32_t search(const korDpa* dpa, uint64_t value, Order order)
{
    int32_t low = 0;
    int32_t high = dpa->count - 1;
    while (low <= high) {
        int32_t middle = low + (high - low) / 2;
        int32_t side = order(value, dpa->items[middle]);
        if (side == 0) {
            return middle;
        }
        if (side < 0) {
            high = middle - 1;
        } else {
            low = middle + 1;
        }
    }
    return ~low;
}

// Among equal values the place before the last of them; in a run that reaches the end, where the search met the run.
template <class Order>
int32_t placeFor(const korDpa* dpa, uint64_t value, Order order)
{
    int32_t found = search(dpa, value, order);
    if (found < 0) {
        return ~found;
    }
    for (int32_t i = found + 1; i < dpa->count; i++) {
        if (order(dpa->items[i], value) > 0) {
            return i - 1;
        }
    }
    return found;
}

// Merges into an array that has room: its own values move to the top, and the merge fills up from the bottom. It can
// not run into the values not yet read: as many slots are free below them as values of the source are left.
template <bool unique, class Order>
void mergeInto(korDpa* dpa, const korDpa* source, Order order)
{
    int32_t added = source->count;
    memmove(&dpa->items[added], dpa->items, bytesOf(dpa->count));
    const uint64_t* own = &dpa->items[added];
    const uint64_t* ownEnd = own + dpa->count;
    const uint64_t* other = source == dpa ? own : source->items;
    const uint64_t* otherEnd = other + added;
    uint64_t* out = dpa->items;

    auto put = [&](uint64_t value) {
        if (!unique || out == dpa->items || order(value, out[-1]) != 0) {
            *out++ = value;
        }
    };
    while (own != ownEnd && other != otherEnd) {
        put(order(*other, *own) <= 0 ? *other++ : *own++);
    }
    while (other != otherEnd) {
        put(*other++);
    }
    while (own != ownEnd) {
        put(*own++);
    }
    dpa->count = static_cast<int32_t>(out - dpa->items);
    check(dpa);
}

template <bool unique>
void mergeOrdered(korEx* ex, uint8_t depth, korDpa* dpa, const korDpa* source, korDpaCompare compare)
{
    if (ex->code != 0 || source->count == 0) {
        return;
    }
    int32_t room = dpa->capacity - dpa->count;
    if (source->count > room) {
        _korDpa_Grow(KOR_AT(ex, depth), dpa, source->count - room);
        if (ex->code != 0) {
            return;
        }
    }
    if (compare == nullptr) {
        mergeInto<unique>(dpa, source, ByValue{});
    } else {
        mergeInto<unique>(dpa, source, ByCompare{compare});
    }
}

korPool* createPool(korEx* ex, uint8_t depth, int32_t chunkSize)
{
    constexpr int32_t chunksPerBlock = 100;
    constexpr int32_t minBlocks = 1;
    constexpr int32_t refillTarget = 10;
    return _korPool_Create(KOR_AT(ex, depth), chunksPerBlock, chunkSize, nullptr, nullptr, minBlocks, refillTarget);
}

} // namespace
} // namespace kor

using namespace kor;

// ---- Making and giving back -----------------------------------------------------------------------------------------

void _korDpa_CreatePools(korEx* ex, uint8_t depth, korPool** objects, korPool** arrays, int32_t size)
{
    korPool* unused;
    objects = objects != nullptr ? objects : &unused;
    *objects = nullptr;
    if (arrays != nullptr) {
        *arrays = nullptr;
        if (size < 1 || size > maxChunkSlots) {
            KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        }
    }
    if (objects != &unused) {
        *objects = createPool(KOR_AT(ex, depth), sizeof(korDpa));
    }
    if (arrays != nullptr) {
        *arrays = createPool(KOR_AT(ex, depth), size * static_cast<int32_t>(sizeof(uint64_t)));
        if (*arrays == nullptr) {
            _korPool_Destroy(KOR_AT_D(depth, ex), *objects);
            *objects = nullptr;
        }
    }
}

void _korDpa_PerformInit(korEx* ex, uint8_t depth, korDpa* dpa, int32_t size, korPool* arrays)
{
    makeEmpty(dpa); // and so it stays if anything below fails
    if (ex->code != 0) {
        return;
    }
    int32_t slots = arrays != nullptr ? static_cast<int32_t>(_korPool_ChunkSize(arrays) / sizeof(uint64_t)) : heapSlots;
    int32_t capacity = capacityFor(size, slots, arrays != nullptr);
    if (capacity == 1) {
        return;
    }
    korPool* pool = capacity == slots ? arrays : nullptr; // only a whole chunk is worth one
    void* items =
        pool != nullptr ? _korPool_Get(KOR_AT(ex, depth), pool) : request<void>(KOR_AT(ex, depth), bytesOf(capacity));
    if (items == nullptr) {
        return;
    }
    dpa->capacity = capacity;
    dpa->items = static_cast<uint64_t*>(items);
    dpa->inlineOrPool = reinterpret_cast<uint64_t>(pool);
}

korDpa* _korDpa_PerformCreate(korEx* ex, uint8_t depth, int32_t size, korPool* objects, korPool* arrays)
{
    if (ex->code != 0) {
        return nullptr;
    }
    void* object = objects != nullptr ? _korPool_Get(KOR_AT(ex, depth), objects) : request<korDpa>(KOR_AT(ex, depth));
    if (object == nullptr) {
        return nullptr;
    }
    korDpa* dpa = static_cast<korDpa*>(object);
    _korDpa_PerformInit(KOR_AT(ex, depth), dpa, size, arrays);
    if (ex->code != 0) {
        _korDpa_DestroyPooled(KOR_AT_D(depth, ex), dpa, objects);
        return nullptr;
    }
    return dpa;
}

void _korDpa_Clear(uint8_t depth, korEx* ex, korDpa* dpa)
{
    if (dpa == nullptr) {
        return;
    }
    if (korPool* pool = poolOf(dpa)) {
        _korPool_Return(KOR_AT_D(depth, ex), pool, dpa->items);
    } else if (dpa->capacity != 1) {
        _kor_free(KOR_AT_D(depth, ex), dpa->items);
    }
    makeEmpty(dpa);
}

void _korDpa_DestroyPooled(uint8_t depth, korEx* ex, korDpa* dpa, korPool* objects)
{
    if (dpa == nullptr) {
        return;
    }
    _korDpa_Clear(KOR_AT_D(depth, ex), dpa);
    if (objects != nullptr) {
        _korPool_Return(KOR_AT_D(depth, ex), objects, dpa);
    } else {
        _kor_free(KOR_AT_D(depth, ex), dpa);
    }
}

void _korDpa_DeepDestroy(uint8_t depth, korEx* ex, korDpa* dpa, korDpaDestroy destroy)
{
    if (dpa == nullptr || destroy == nullptr) {
        return;
    }
    for (int32_t i = 0; i < dpa->count; i++) {
        destroy(KOR_AT_D(depth, ex), dpa->items[i]);
    }
    _korDpa_DestroyPooled(KOR_AT_D(depth, ex), dpa, nullptr);
}

korDpa* _korDpa_Copy(korEx* ex, uint8_t depth, const korDpa* source)
{
    if (ex->code != 0) {
        return nullptr;
    }
    korDpa* copy = _korDpa_Create(KOR_AT(ex, depth), source->count);
    _korDpa_AddDpa(KOR_AT(ex, depth), copy, source);
    return copy;
}

korDpa* _korDpa_DeepCopy(korEx* ex, uint8_t depth, const korDpa* source, korDpaCopy copy, korDpaDestroy destroy)
{
    if (ex->code != 0) {
        return nullptr;
    }
    korDpa* copies = _korDpa_Create(KOR_AT(ex, depth), source->count);
    for (int32_t i = 0; i < source->count && ex->code == 0; i++) {
        uint64_t value = copy(KOR_AT(ex, depth), source->items[i]);
        if (ex->code == 0) {
            _korDpa_AddSafe(KOR_AT(ex, depth), copies, value);
        }
        if (ex->code != 0 && destroy != nullptr) {
            destroy(KOR_AT_D(depth, ex), value);
        }
    }
    if (ex->code == 0) {
        return copies;
    }
    if (destroy != nullptr) {
        _korDpa_DeepDestroy(KOR_AT_D(depth, ex), copies, destroy);
    } else {
        _korDpa_DestroyPooled(KOR_AT_D(depth, ex), copies, nullptr);
    }
    return nullptr;
}

// ---- Adding ---------------------------------------------------------------------------------------------------------

void _korDpa_Grow(korEx* ex, uint8_t depth, korDpa* dpa, int32_t slots)
{
    if (ex->code != 0 || slots == 0) {
        return;
    }
    if (slots < 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return;
    }
    if (slots > INT32_MAX - dpa->capacity) {
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, nullptr);
        return;
    }
    korPool* pool = poolOf(dpa);
    bool onHeap = dpa->capacity != 1 && pool == nullptr;
    void* old = onHeap ? dpa->items : nullptr;
    auto* items =
        granted<uint64_t>(KOR_AT(ex, depth), _kor_realloc(KOR_AT(ex, depth), old, bytesOf(dpa->capacity + slots)));
    if (items == nullptr) {
        return;
    }
    if (!onHeap) {
        memcpy(items, dpa->items, bytesOf(dpa->capacity));
    }
    if (pool != nullptr) {
        _korPool_Return(KOR_AT_D(depth, ex), pool, dpa->items);
    }
    dpa->items = items;
    dpa->capacity += slots;
    dpa->inlineOrPool = 0;
    check(dpa);
}

void _korDpa_AddGrow(uint8_t depth, korEx* ex, korDpa* dpa, uint64_t value)
{
    if (dpa == nullptr) {
        return;
    }
    KOR_EX_CHAINED(local, ex, depth); // clean-up paths append with an error pending
    if (dpa->count >= dpa->capacity) {
        _korDpa_Grow(KOR_AT(&local, depth), dpa, tripling(dpa));
    }
    if (local.code == 0) {
        dpa->items[dpa->count++] = value;
    }
}

void _korDpa_AddOrdered(korEx* ex, uint8_t depth, korDpa* dpa, uint64_t value, korDpaCompare compare)
{
    if (ex->code != 0) {
        return;
    }
    int32_t index = compare == nullptr ? placeFor(dpa, value, ByValue{}) : placeFor(dpa, value, ByCompare{compare});
    if (dpa->count >= dpa->capacity) {
        _korDpa_Grow(KOR_AT(ex, depth), dpa, tripling(dpa));
        if (ex->code != 0) {
            return;
        }
    }
    insertAt(dpa, index, value);
    check(dpa);
}

void _korDpa_AddIndex(korEx* ex, uint8_t depth, korDpa* dpa, uint64_t value, int32_t index)
{
    if (ex->code != 0) {
        return;
    }
    if (index < 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return;
    }
    if (index >= dpa->capacity) {
        _korDpa_Grow(KOR_AT(ex, depth), dpa, index - (dpa->capacity - 1));
        if (ex->code != 0) {
            return;
        }
    }
    if (index >= dpa->count) {
        memset(&dpa->items[dpa->count], 0, bytesOf(index - dpa->count));
        dpa->count = index + 1;
    }
    dpa->items[index] = value;
    check(dpa);
}

void _korDpa_AddDpaOrdered(korEx* ex, uint8_t depth, korDpa* dpa, const korDpa* source, korDpaCompare compare)
{
    mergeOrdered<false>(KOR_AT(ex, depth), dpa, source, compare);
}

void _korDpa_AddDpaOrderedUnique(korEx* ex, uint8_t depth, korDpa* dpa, const korDpa* source, korDpaCompare compare)
{
    mergeOrdered<true>(KOR_AT(ex, depth), dpa, source, compare);
}

// ---- Finding and removing -------------------------------------------------------------------------------------------

int32_t _korDpa_FindOrdered(const korDpa* dpa, uint64_t value, korDpaCompare compare)
{
    return compare == nullptr ? search(dpa, value, ByValue{}) : search(dpa, value, ByCompare{compare});
}

int32_t _korDpa_Find(const korDpa* dpa, uint64_t value)
{
    const uint64_t* end = dpa->items + dpa->count;
    const uint64_t* found = std::find(static_cast<const uint64_t*>(dpa->items), end, value);
    return found != end ? static_cast<int32_t>(found - dpa->items) : ~dpa->count;
}

int32_t _korDpa_Remove(korDpa* dpa, uint64_t value)
{
    int32_t index = _korDpa_Find(dpa, value);
    if (index >= 0) {
        int32_t last = --dpa->count;
        dpa->items[index] = index == last ? 0 : dpa->items[last];
    }
    return index;
}

int32_t _korDpa_RemoveOrdered(korDpa* dpa, uint64_t value, korDpaCompare compare)
{
    int32_t index = _korDpa_FindOrdered(dpa, value, compare);
    if (index >= 0) {
        _korDpa_RemoveIndexOrdered(dpa, index);
    }
    return index;
}

bool _korDpa_RemoveIndexOrdered(korDpa* dpa, int32_t index)
{
    if (index < 0 || index >= dpa->count) {
        return false;
    }
    uint64_t* slot = &dpa->items[index];
    dpa->count--;
    memmove(slot, slot + 1, bytesOf(dpa->count - index));
    return true;
}

int32_t _korDpa_Zero(korDpa* dpa, uint64_t value)
{
    int32_t index = _korDpa_Find(dpa, value);
    if (index >= 0) {
        dpa->items[index] = 0;
    }
    return index;
}
