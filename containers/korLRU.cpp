// korLRU.cpp - the list in the order of last use. Both ends are items inside the list's record, so no link of an item
// in a list is NULL, and nothing here asks whether an item is the first or the last.

#include "korutil/korLRU.h"
#include "foundation/hostile.h"

static_assert(sizeof(korLRUItem) == 16 && offsetof(korLRUItem, prev) == 8);
static_assert(offsetof(korLRU, tailPrev) == offsetof(korLRU, tailNext) + offsetof(korLRUItem, prev));
static_assert(offsetof(korLRU, headPrev) == offsetof(korLRU, headNext) + offsetof(korLRUItem, prev));

namespace kor {
namespace {

korLRUItem* tailOf(korLRU* lru)
{
    return reinterpret_cast<korLRUItem*>(&lru->tailNext);
}

korLRUItem* headOf(korLRU* lru)
{
    return reinterpret_cast<korLRUItem*>(&lru->headNext);
}

bool isListed(const korLRUItem* item)
{
    return item->prev != nullptr;
}

// The item itself, unless it is the tail end.
korLRUItem* unlessTail(korLRUItem* item)
{
    return item == nullptr || item->next == nullptr ? nullptr : item;
}

void check([[maybe_unused]] korLRU* lru)
{
    KOR_INVARIANT(lru->tailNext == nullptr && lru->headPrev == nullptr);
    KOR_INVARIANT((lru->count == 0) == (lru->headNext == tailOf(lru)));
    KOR_INVARIANT((lru->count == 0) == (lru->tailPrev == headOf(lru)));
}

void link(korLRU* lru, korLRUItem* item)
{
    korLRUItem* tail = tailOf(lru);
    item->next = tail;
    item->prev = tail->prev;
    item->prev->next = item;
    tail->prev = item;
    lru->count++;
    check(lru);
}

void unlink(korLRU* lru, korLRUItem* item)
{
    item->prev->next = item->next;
    item->next->prev = item->prev;
    item->next = nullptr;
    item->prev = nullptr;
    lru->count--;
    check(lru);
}

} // namespace
} // namespace kor

using namespace kor;

void _korLRU_Init(korLRU* lru)
{
    if (lru != nullptr) {
        *lru = {};
        lru->tailPrev = headOf(lru);
        lru->headNext = tailOf(lru);
    }
}

void _korLRU_Clear(korLRU*) {}

void _korLRU_Add(korLRU* lru, korLRUItem* item)
{
    if (lru != nullptr && item != nullptr && !isListed(item)) {
        link(lru, item);
    }
}

void _korLRU_Use(korLRU* lru, korLRUItem* item)
{
    if (lru == nullptr || item == nullptr) {
        return;
    }
    if (isListed(item)) {
        unlink(lru, item);
    }
    link(lru, item);
}

void _korLRU_Remove(korLRU* lru, korLRUItem* item)
{
    if (lru != nullptr && item != nullptr && isListed(item)) {
        unlink(lru, item);
    }
}

korLRUItem* _korLRU_RemoveLast(korLRU* lru)
{
    korLRUItem* item = _korLRU_Last(lru);
    _korLRU_Remove(lru, item);
    return item;
}

korLRUItem* _korLRU_Last(const korLRU* lru)
{
    return lru == nullptr ? nullptr : unlessTail(lru->headNext);
}

korLRUItem* _korLRU_Prev(const korLRUItem* item)
{
    return item == nullptr ? nullptr : unlessTail(item->next);
}
