// korLRU.h - a list of the caller's items in the order of their last use. The links lie in the items: nothing is
// allocated, and every operation takes constant time.
//
//     struct Page { korLRUItem use; ... };          // the links come first; zeroed before the first use
//
//     korLRU pages;
//     _korLRU_Init(&pages);
//     _korLRU_Use(&pages, &page->use);              // added, or moved to the newest place
//     Page* victim = (Page*)_korLRU_RemoveLast(&pages);
//
// A walk from the oldest to the newest item:
//
//     for (korLRUItem* item = _korLRU_Last(&pages); item != NULL; item = _korLRU_Prev(item))
//
// Items are the caller's. An item is in one list at a time. Every function accepts NULL for every argument, and then
// does nothing. A list has no lock.

#ifndef KORUTIL_KORLRU_H
#define KORUTIL_KORLRU_H

#include "korutil/korBase.h"

KOR_BEGIN_DECLS

/// The links, at the start of the caller's record. A NULL `prev` says that the item is in no list. The ends of a list
/// stand as items, too, inside the record of the list: hence the attribute.
typedef struct korLRUItem {
    struct korLRUItem* next; ///< toward the more recently used
    struct korLRUItem* prev; ///< toward the less recently used
} __attribute__((may_alias)) korLRUItem;

/// The list. Its last four fields are two items, the ends: (`tailNext`, `tailPrev`) behind the newest item,
/// (`headNext`, `headPrev`) before the oldest.
typedef struct korLRU {
    int64_t count;        ///< items in the list
    korLRUItem* tailNext; ///< always NULL: no other `next` of a list is, so this is how its end is recognised
    korLRUItem* tailPrev; ///< the most recently used item, or the head end
    korLRUItem* headNext; ///< the least recently used item, or the tail end
    korLRUItem* headPrev; ///< always NULL
} korLRU;

/// Makes an empty list of a caller's storage. It points into itself and must stay where it is.
KOR_API void _korLRU_Init(korLRU* lru);

/// Does nothing: items are the caller's. There for the pair with the init.
KOR_API void _korLRU_Clear(korLRU* lru);

/// Adds an item as the most recently used. An item that is in a list stays where it is.
KOR_API void _korLRU_Add(korLRU* lru, korLRUItem* item);

/// Makes an item the most recently used; one that is in no list is added.
KOR_API void _korLRU_Use(korLRU* lru, korLRUItem* item);

/// Takes an item out and clears its links. An item in no list is passed over.
KOR_API void _korLRU_Remove(korLRU* lru, korLRUItem* item);

/// Takes the least recently used item out, or gives NULL.
KOR_API korLRUItem* _korLRU_RemoveLast(korLRU* lru);

/// The least recently used item, left in place, or NULL.
KOR_API korLRUItem* _korLRU_Last(const korLRU* lru);

/// The next item toward the newest, or NULL behind the newest.
KOR_API korLRUItem* _korLRU_Prev(const korLRUItem* item);

KOR_END_DECLS

#endif
