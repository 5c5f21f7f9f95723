// korDpq.cpp - the dynamic ring of 64-bit values.
//
// Invariant: the values stand at `first` and the `count` - 1 ring indexes after it, the last of them is `last`, and
// `count` never exceeds `mask`: one slot is always empty.

#include "korutil/korDpq.h"
#include "foundation/hostile.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"
#include "pools/order.h"

#include <algorithm>
#include <bit>
#include <cstring>

static_assert(sizeof(korDpq) == 24 && offsetof(korDpq, items) == 16);

namespace kor {
namespace {

constexpr uint64_t maxCapacity = uint64_t{1} << 31; // an index is a signed number of 32 bits

uint64_t capacityOf(const korDpq* queue)
{
    return uint64_t{queue->mask} + 1;
}

// Steps up from one ring index to another.
uint32_t distance(const korDpq* queue, int32_t from, int32_t to)
{
    return (static_cast<uint32_t>(to) - static_cast<uint32_t>(from)) & queue->mask;
}

int32_t after(const korDpq* queue, int32_t index)
{
    return korDpq_wrap(queue, static_cast<uint32_t>(index) + 1);
}

int32_t before(const korDpq* queue, int32_t index)
{
    return korDpq_wrap(queue, static_cast<uint32_t>(index) - 1);
}

void check([[maybe_unused]] const korDpq* queue)
{
    KOR_INVARIANT(queue->count >= 0 && static_cast<uint32_t>(queue->count) <= queue->mask);
    KOR_INVARIANT(distance(queue, queue->first, queue->last) == static_cast<uint32_t>(std::max(queue->count - 1, 0)));
}

// Moves `count` values that begin at `from` down by one place, piece by piece between the ends of the storage.
void moveDown(korDpq* queue, int32_t from, uint32_t count)
{
    uint64_t left = count;
    uint64_t source = static_cast<uint32_t>(from);
    uint64_t target = static_cast<uint32_t>(before(queue, from));
    while (left > 0) {
        uint64_t piece = std::min(left, capacityOf(queue) - std::max(source, target));
        memmove(&queue->items[target], &queue->items[source], piece * sizeof(uint64_t));
        source = (source + piece) & queue->mask;
        target = (target + piece) & queue->mask;
        left -= piece;
    }
}

// The mirror of it: moves `count` values that end at `to` up by one place. Source and target are one past the pieces.
void moveUp(korDpq* queue, int32_t to, uint32_t count)
{
    uint64_t left = count;
    uint64_t source = static_cast<uint32_t>(to) + uint64_t{1};
    uint64_t target = static_cast<uint32_t>(after(queue, to)) + uint64_t{1};
    while (left > 0) {
        uint64_t piece = std::min({left, source, target});
        source -= piece;
        target -= piece;
        memmove(&queue->items[target], &queue->items[source], piece * sizeof(uint64_t));
        source = source == 0 ? capacityOf(queue) : source;
        target = target == 0 ? capacityOf(queue) : target;
        left -= piece;
    }
}

// In 64 bits: in a wrapped ring the sum of two positions can pass 32.
template <class Order>
int32_t search(const korDpq* queue, uint64_t value, Order order)
{
    int64_t low = queue->first;
    int64_t high = low + queue->count - 1;
    while (low <= high) {
        int64_t middle = (low + high) / 2;
        int32_t index = korDpq_wrap(queue, static_cast<uint32_t>(middle));
        int32_t side = order(value, queue->items[index]);
        if (side == 0) {
            return index;
        }
        if (side < 0) {
            high = middle - 1;
        } else {
            low = middle + 1;
        }
    }
    return ~korDpq_wrap(queue, static_cast<uint32_t>(low));
}

// Puts a value in front of the one at `index`, moving the shorter side; of two equal ones the front.
void insertAt(korDpq* queue, int32_t index, uint64_t value)
{
    uint32_t toFirst = distance(queue, queue->first, index);
    uint32_t toLast = distance(queue, index, queue->last);
    if (toFirst <= toLast) {
        moveDown(queue, queue->first, toFirst);
        queue->first = before(queue, queue->first);
        index = before(queue, index);
    } else {
        moveUp(queue, queue->last, toLast + 1);
        queue->last = after(queue, queue->last);
    }
    queue->items[index] = value;
    queue->count++;
}

// Closes the gap that a value in the middle leaves, moving the shorter side; of two equal ones the back. Gives the
// index of the value that followed.
int32_t closeGap(korDpq* queue, int32_t index)
{
    uint32_t toFirst = distance(queue, queue->first, index);
    uint32_t toLast = distance(queue, index, queue->last);
    queue->count--;
    if (toFirst >= toLast) {
        moveDown(queue, after(queue, index), toLast);
        queue->last = before(queue, queue->last);
        return index;
    }
    moveUp(queue, before(queue, index), toFirst);
    queue->first = after(queue, queue->first);
    return after(queue, index);
}

bool holdsValue(const korDpq* queue, int32_t index)
{
    return distance(queue, queue->first, index) < static_cast<uint32_t>(queue->count);
}

} // namespace
} // namespace kor

using namespace kor;

// ---- Making and giving back -----------------------------------------------------------------------------------------

void _korDpq_Init(korEx* ex, uint8_t depth, korDpq* queue, int32_t size)
{
    if (ex->code != 0) {
        return;
    }
    *queue = {};
    if (size < 1) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return;
    }
    uint64_t capacity = std::bit_ceil(static_cast<uint64_t>(size));
    queue->items = request<uint64_t>(KOR_AT(ex, depth), capacity * sizeof(uint64_t));
    if (queue->items == nullptr) {
        return;
    }
    queue->mask = static_cast<uint32_t>(capacity - 1);
}

korDpq* _korDpq_Create(korEx* ex, uint8_t depth, int32_t size)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto* queue = request<korDpq>(KOR_AT(ex, depth));
    if (queue == nullptr) {
        return nullptr;
    }
    _korDpq_Init(KOR_AT(ex, depth), queue, size);
    if (ex->code != 0) {
        _kor_free(KOR_AT_D(depth, ex), queue);
        return nullptr;
    }
    return queue;
}

void _korDpq_Clear(uint8_t depth, korEx* ex, korDpq* queue)
{
    if (queue != nullptr) {
        _kor_free(KOR_AT_D(depth, ex), queue->items);
        queue->items = nullptr;
    }
}

void _korDpq_Destroy(uint8_t depth, korEx* ex, korDpq* queue)
{
    if (queue != nullptr) {
        _korDpq_Clear(KOR_AT_D(depth, ex), queue);
        _kor_free(KOR_AT_D(depth, ex), queue);
    }
}

void _korDpq_Grow(korEx* ex, uint8_t depth, korDpq* queue)
{
    if (ex->code != 0) {
        return;
    }
    uint64_t old = capacityOf(queue);
    uint64_t* items = nullptr;
    if (old < maxCapacity) {
        size_t size = 2 * old * sizeof(uint64_t);
        items = granted<uint64_t>(KOR_AT(ex, depth), _kor_realloc(KOR_AT(ex, depth), queue->items, size));
    }
    if (items == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, nullptr);
        return;
    }
    if (queue->last < queue->first) { // the part at the bottom goes on where the storage used to end
        memcpy(&items[old], items, (static_cast<size_t>(queue->last) + 1) * sizeof(uint64_t));
        queue->last = queue->first + (queue->count - 1);
    }
    queue->items = items;
    queue->mask = static_cast<uint32_t>(2 * old - 1);
    check(queue);
}

// ---- Sorted use -----------------------------------------------------------------------------------------------------

int32_t _korDpq_FindOrdered(const korDpq* queue, uint64_t value, korDpqCompare compare)
{
    if (queue->count == 0) {
        return -1;
    }
    return compare == nullptr ? search(queue, value, ByValue{}) : search(queue, value, ByCompare{compare});
}

void _korDpq_AddOrderedEx(korEx* ex, uint8_t depth, korDpq* queue, uint64_t value, korDpqCompare compare,
                          uint8_t duplicates)
{
    if (ex->code != 0) {
        return;
    }
    if (value == 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return;
    }
    if (static_cast<uint32_t>(queue->count) == queue->mask) {
        _korDpq_Grow(KOR_AT(ex, depth), queue);
        if (ex->code != 0) {
            return;
        }
    }
    int32_t found = _korDpq_FindOrdered(queue, value, compare);
    if (found >= 0 && duplicates == 0) {
        return;
    }
    int32_t index = found >= 0 ? found : ~found;
    if (queue->count == 0 || index == after(queue, queue->last)) {
        _korDpq_Push(KOR_AT(ex, depth), queue, value);
    } else {
        insertAt(queue, index, value); // at the first value nothing has to move
    }
    check(queue);
}

int32_t _korDpq_Remove(korDpq* queue, int32_t index)
{
    if (index < 0) {
        return -1;
    }
    index = korDpq_wrap(queue, static_cast<uint32_t>(index));
    if (!holdsValue(queue, index)) {
        return -1;
    }
    int32_t next = -1;
    if (index == queue->first) {
        korDpq_popFirst(queue);
        next = queue->count == 0 ? -1 : queue->first;
    } else if (index == queue->last) {
        queue->last = before(queue, queue->last);
        queue->count--;
    } else {
        next = closeGap(queue, index);
    }
    check(queue);
    return next;
}
