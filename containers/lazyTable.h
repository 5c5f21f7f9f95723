// lazyTable.h - the engine of the chained tables that change size lazily; korHash and its kin are policies over it.
//
// The first entry of each chain lies in its slot, and a null `listNext` there is the sole mark of an empty slot. All
// entries, those of the old table too, stand on the main table's list in insertion order; the table is the list's
// sentinel. A size change swaps in a new slot array and leaves the full one to `oldHash`, from which later operations
// move two entries each, so that no operation pays for a whole rehash.
//
// A policy supplies what differs:
//     Table, Entry, Iterator, Code, Pools, Item   the records, the code that picks the slot, where memory comes from,
//     and
//                                                 what a Set stores: { key, ..., value }
//     shrinkFrom                                  the fewest slots of a table that shrinks
//     releasesOpenly                              true: what a remove releases may raise in the caller's object
//     codeOf(entry)                               the code that picks the slot
//     pools(table), setPools(table, pools)
//     takeTable, releaseTable, takeEntry, releaseEntry, poolsEntries(pools)
//     keepsKey(entry)                             true: a Set of a present key leaves the stored key as it is
//     storeKey(ex, depth, table, entry, item), releaseKey(depth, ex, table, entry)
//     mark(cursor, entry), clearMark(cursor),     what the cursor remembers of the current entry, and the key to search
//     isMarked(cursor), markedKey(cursor)         for that makes of it
// A key to search for is any type with `code` and `matches(entry)`.

#pragma once

#include "foundation/hostile.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"

#include <bit>
#include <cstdint>
#include <utility>

namespace kor {

template <class Policy>
struct LazyTable {
    using Table = typename Policy::Table;
    using Entry = typename Policy::Entry;
    using Iterator = typename Policy::Iterator;
    using Code = typename Policy::Code;
    using Pools = typename Policy::Pools;
    using Item = typename Policy::Item;

    struct Found {
        bool present;
        uint64_t value;
    };

    /// What an operation moves while a size change runs.
    static constexpr int64_t stepBudget = 2;

    // ---- Making -----------------------------------------------------------------------------------------------------

    /// Leaves the object zeroed and gives false on an error.
    static bool performInit(korEx* ex, uint8_t depth, Table* table, int64_t slots, const Pools& pools)
    {
        *table = Table{};
        if (ex->code != 0) {
            return false;
        }
        if (slots <= 0) {
            KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "Number of slots must be greater than zero");
            return false;
        }
        uint64_t slotCount = std::bit_ceil(static_cast<uint64_t>(slots));
        Entry* cursor = Policy::takeEntry(KOR_AT(ex, depth), pools);
        Entry* array = cursor == nullptr ? nullptr : takeSlots(KOR_AT(ex, depth), pools, slotCount);
        if (array == nullptr) {
            Policy::releaseEntry(KOR_AT_D(depth, ex), pools, cursor);
            return false;
        }
        *cursor = Entry{};
        cursor->listNext = cursor->listPrev = sentinel(table);
        table->slotCount = static_cast<int64_t>(slotCount);
        table->slots = array;
        table->firstEntry = table->lastEntry = sentinel(table);
        table->cursor = cursor;
        Policy::setPools(table, pools);
        return true;
    }

    static Table* performCreate(korEx* ex, uint8_t depth, int64_t slots, const Pools& pools)
    {
        Table* table = ex->code == 0 ? Policy::takeTable(KOR_AT(ex, depth), pools) : nullptr;
        if (table == nullptr || performInit(KOR_AT(ex, depth), table, slots, pools)) {
            return table;
        }
        Policy::releaseTable(KOR_AT_D(depth, ex), pools, table);
        return nullptr;
    }

    /// Accepts NULL, a cleared table and one that a failed init has zeroed.
    static void clear(uint8_t depth, korEx* ex, Table* table)
    {
        if (table == nullptr || table->slotCount == 0) {
            return;
        }
        Pools pools = Policy::pools(table);
        unlink(table, table->cursor);
        Policy::releaseEntry(KOR_AT_D(depth, ex), pools, table->cursor);
        table->cursor = nullptr;
        releaseEntries(KOR_AT_D(depth, ex), table);
        destroy(KOR_AT_D(depth, ex), table->oldHash);
        table->oldHash = nullptr;
        releaseSlots(KOR_AT_D(depth, ex), table);
        table->slots = nullptr;
        table->count = table->slotCount = table->moveIndex = 0;
    }

    static void destroy(uint8_t depth, korEx* ex, Table* table)
    {
        if (table != nullptr) {
            Pools pools = Policy::pools(table);
            clear(KOR_AT_D(depth, ex), table);
            Policy::releaseTable(KOR_AT_D(depth, ex), pools, table);
        }
    }

    // ---- Using ------------------------------------------------------------------------------------------------------

    /// A hit in the table only reads; whatever misses it pushes a running size change forward.
    template <class Key>
    static Found lookup(korEx* ex, uint8_t depth, Table* table, const Key& key)
    {
        if (const Entry* entry = search(table, key)) {
            return {true, entry->value};
        }
        if (KOR_LIKELY(table->oldHash == nullptr)) {
            return {false, 0};
        }
        const Entry* entry = search(table->oldHash, key);
        Found found = {entry != nullptr, entry != nullptr ? entry->value : 0}; // read before the entry moves away
        lazyMove(KOR_AT(ex, depth), table, stepBudget);
        return found;
    }

    /// The growth test stands before the search: a full table grows even if the key is there already.
    static uint64_t set(korEx* ex, uint8_t depth, Table* table, const Item& item)
    {
        if (KOR_UNLIKELY(table->count >= table->slotCount && table->oldHash == nullptr) &&
            !startLazyChange(KOR_AT(ex, depth), table, table->slotCount * 2)) {
            return 0;
        }
        Place place = locate(table, item.key);
        if (place.entry == nullptr) {
            insert(KOR_AT(ex, depth), table, item);
            return 0;
        }
        if (!Policy::keepsKey(place.entry) && !Policy::storeKey(KOR_AT(ex, depth), table, place.entry, item)) {
            return 0;
        }
        return std::exchange(place.entry->value, item.value);
    }

    /// Works with an error pending, on an object of its own: a shrink or a move that fails is passed over. The shrink
    /// test counts the entry that is about to go, and stands before the search.
    template <class Key>
    static uint64_t performRemove(uint8_t depth, korEx* ex, Table* table, const Key& key)
    {
        KOR_EX_PRIVATE(local, ex, depth);
        if (table->slotCount >= Policy::shrinkFrom && table->count <= table->slotCount / 4 &&
            table->oldHash == nullptr) {
            startLazyChange(KOR_AT(&local, depth), table, table->slotCount / 2);
        }
        Place place = locate(table, key);
        if (place.entry == nullptr) {
            return 0;
        }
        uint64_t value = place.entry->value;
        korEx* releasing = Policy::releasesOpenly ? ex : &local;
        Policy::releaseKey(KOR_AT_D(depth, releasing), table, place.entry);
        detach(KOR_AT_D(depth, releasing), table, place);
        if (table->oldHash != nullptr) {
            lazyMove(KOR_AT(&local, depth), table, stepBudget);
        }
        checkTable(table);
        return value;
    }

    /// Moves up to `budget` entries out of the old table, if there is one, and destroys it once it is empty. Empty
    /// slots on the way cost no budget.
    static void lazyMove(korEx* ex, uint8_t depth, Table* table, int64_t budget)
    {
        Table* old = table->oldHash;
        if (old == nullptr) {
            return;
        }
        while (budget > 0 && old->moveIndex < old->slotCount) {
            if (!isLive(&old->slots[old->moveIndex])) {
                ++old->moveIndex;
            } else if (moveEntry(KOR_AT(ex, depth), table, old)) {
                --budget;
            } else {
                break;
            }
        }
        if (liveEntries(old) == 0) {
            destroy(KOR_AT_D(depth, ex), old);
            table->oldHash = nullptr;
        }
        checkTable(table);
    }

    // ---- Walking ----------------------------------------------------------------------------------------------------

    static void startWalk(Table* table, Iterator* iterator)
    {
        iterator->hash = table;
        if (Entry* cursor = cursorOf(iterator)) {
            unlink(table, cursor);
            Policy::clearMark(cursor);
            linkBetween(table, sentinel(table), cursor, table->firstEntry);
            iterator->skipAdvance = 1;
        }
    }

    /// The entry that is now the current one, NULL at the end.
    static Entry* advance(Iterator* iterator)
    {
        Entry* cursor = cursorOf(iterator);
        Entry* passed = currentEntry(iterator);
        if (passed == nullptr) {
            return nullptr;
        }
        if (!iterator->skipAdvance) {
            unlink(iterator->hash, cursor);
            linkBetween(iterator->hash, passed, cursor, passed->listNext);
        }
        Entry* current = currentEntry(iterator);
        if (current != nullptr) {
            iterator->skipAdvance = 0;
            Policy::mark(cursor, current);
        }
        return current;
    }

    /// The entry behind the cursor, NULL at the end.
    static Entry* currentEntry(const Iterator* iterator)
    {
        const Entry* cursor = cursorOf(iterator);
        return cursor == nullptr || cursor->listNext == sentinel(iterator->hash) ? nullptr : cursor->listNext;
    }

    /// Removes what the cursor remembers, unless the walk is at its end or has no current entry. The cursor then stands
    /// before an entry that the walk has not visited.
    static void removeCurrent(uint8_t depth, korEx* ex, Iterator* iterator)
    {
        if (iterator == nullptr || currentEntry(iterator) == nullptr || iterator->skipAdvance) {
            return;
        }
        Entry* cursor = iterator->hash->cursor;
        if (Policy::isMarked(cursor)) {
            iterator->skipAdvance = 1;
            performRemove(KOR_AT_D(depth, ex), iterator->hash, Policy::markedKey(cursor));
            Policy::clearMark(cursor);
        }
    }

    // ---- Measuring --------------------------------------------------------------------------------------------------

    static bool isLive(const Entry* slot) { return slot->listNext != nullptr; }

    /// The length of a slot's chain without the entry in the slot.
    static int64_t chainLength(const Entry* slot)
    {
        int64_t length = 0;
        if (isLive(slot)) {
            for (const Entry* entry = slot->chainNext; entry != nullptr; entry = entry->chainNext) {
                ++length;
            }
        }
        return length;
    }

private:
    /// Where an entry stands: in which table, and behind which entry of its chain (NULL: in the slot).
    struct Place {
        Table* holder;
        Entry* before;
        Entry* entry;
    };

    /// The table as its list's sentinel; compared with, never read through.
    static Entry* sentinel(Table* table) { return reinterpret_cast<Entry*>(table); }

    static Entry* cursorOf(const Iterator* iterator)
    {
        return iterator->hash == nullptr ? nullptr : iterator->hash->cursor;
    }

    static Entry* slotFor(const Table* table, Code code)
    {
        return &table->slots[code & static_cast<Code>(table->slotCount - 1)];
    }

    // ---- Searching --------------------------------------------------------------------------------------------------

    template <class Key>
    static Entry* search(const Table* table, const Key& key, Entry** before = nullptr)
    {
        if (KOR_UNLIKELY(table->slotCount == 0)) { // cleared
            return nullptr;
        }
        Entry* previous = nullptr;
        Entry* entry = slotFor(table, key.code);
        if (!isLive(entry)) {
            return nullptr;
        }
        for (; entry != nullptr; previous = entry, entry = entry->chainNext) {
            if (key.matches(entry)) {
                if (before != nullptr) {
                    *before = previous;
                }
                return entry;
            }
        }
        return nullptr;
    }

    template <class Key>
    static Place locate(Table* table, const Key& key)
    {
        Place place = {table, nullptr, nullptr};
        place.entry = search(table, key, &place.before);
        if (place.entry == nullptr && table->oldHash != nullptr) {
            place.holder = table->oldHash;
            place.entry = search(place.holder, key, &place.before);
        }
        return place;
    }

    // ---- The list ---------------------------------------------------------------------------------------------------

    static void setNext(Table* table, Entry* entry, Entry* next)
    {
        (entry == sentinel(table) ? table->firstEntry : entry->listNext) = next;
    }

    static void setPrevious(Table* table, Entry* entry, Entry* previous)
    {
        (entry == sentinel(table) ? table->lastEntry : entry->listPrev) = previous;
    }

    static void linkBetween(Table* table, Entry* previous, Entry* entry, Entry* next)
    {
        entry->listPrev = previous;
        entry->listNext = next;
        setNext(table, previous, entry);
        setPrevious(table, next, entry);
    }

    /// A cursor that was never used points at the table without being on its list; the tests leave the list alone then.
    static void unlink(Table* table, const Entry* entry)
    {
        if (entry->listPrev != sentinel(table) || table->firstEntry == entry) {
            setNext(table, entry->listPrev, entry->listNext);
        }
        if (entry->listNext != sentinel(table) || table->lastEntry == entry) {
            setPrevious(table, entry->listNext, entry->listPrev);
        }
    }

    /// Copies a record to another place and tells its neighbours on the list. The source is then dead.
    static void relocate(Table* table, const Entry* source, Entry* target)
    {
        *target = *source;
        setNext(table, target->listPrev, target);
        setPrevious(table, target->listNext, target);
    }

    static void linkBehind(Entry* slot, Entry* entry)
    {
        entry->chainNext = slot->chainNext;
        slot->chainNext = entry;
    }

    // ---- Entries ----------------------------------------------------------------------------------------------------

    static void insert(korEx* ex, uint8_t depth, Table* table, const Item& item)
    {
        Pools pools = Policy::pools(table);
        Entry* slot = slotFor(table, item.key.code);
        bool chained = isLive(slot);
        Entry* entry = chained ? Policy::takeEntry(KOR_AT(ex, depth), pools) : slot;
        if (entry == nullptr) {
            return;
        }
        if (!Policy::storeKey(KOR_AT(ex, depth), table, entry, item)) {
            if (chained) {
                Policy::releaseEntry(KOR_AT_D(depth, ex), pools, entry);
            }
            return;
        }
        entry->chainNext = nullptr;
        if (chained) {
            linkBehind(slot, entry);
        }
        entry->value = item.value;
        linkBetween(table, table->lastEntry, entry, sentinel(table));
        ++table->count;
        lazyMove(KOR_AT(ex, depth), table, stepBudget);
        checkTable(table);
    }

    /// Takes an entry off the list and out of its chain. An entry in a slot makes room for its successor.
    static void detach(uint8_t depth, korEx* ex, Table* table, const Place& place)
    {
        Entry* dead = place.entry;
        unlink(table, dead);
        if (place.before != nullptr) {
            place.before->chainNext = dead->chainNext;
        } else if (Entry* successor = dead->chainNext) {
            relocate(table, successor, dead);
            dead = successor;
        } else {
            dead->listNext = nullptr;
            dead = nullptr;
        }
        --place.holder->count;
        if (dead != nullptr) {
            Policy::releaseEntry(KOR_AT_D(depth, ex), Policy::pools(table), dead);
        }
    }

    static bool liesIn(const Table* table, const Entry* entry)
    {
        return entry >= table->slots && entry < table->slots + table->slotCount;
    }

    static void releaseEntries(uint8_t depth, korEx* ex, Table* table)
    {
        const Table* old = table->oldHash;
        for (Entry* entry = table->firstEntry; entry != sentinel(table);) {
            Entry* next = entry->listNext;
            Policy::releaseKey(KOR_AT_D(depth, ex), table, entry);
            if (!liesIn(table, entry) && (old == nullptr || !liesIn(old, entry))) {
                Policy::releaseEntry(KOR_AT_D(depth, ex), Policy::pools(table), entry);
            }
            entry = next;
        }
    }

    // ---- Slots and the size change ----------------------------------------------------------------------------------

    /// A one-slot array is an entry's size and comes from the entry pool, if there is one.
    static Entry* takeSlots(korEx* ex, uint8_t depth, const Pools& pools, uint64_t slotCount)
    {
        if (slotCount != 1 || !Policy::poolsEntries(pools)) {
            return requestZeroed<Entry>(KOR_AT(ex, depth), slotCount);
        }
        Entry* slot = Policy::takeEntry(KOR_AT(ex, depth), pools);
        if (slot != nullptr) {
            *slot = Entry{};
        }
        return slot;
    }

    static void releaseSlots(uint8_t depth, korEx* ex, Table* table)
    {
        if (table->slotCount == 1 && Policy::poolsEntries(Policy::pools(table))) {
            Policy::releaseEntry(KOR_AT_D(depth, ex), Policy::pools(table), table->slots);
        } else {
            _kor_free(KOR_AT_D(depth, ex), table->slots);
        }
    }

    /// The new object becomes the old table: the table's own address is its list's sentinel and must stay.
    static bool startLazyChange(korEx* ex, uint8_t depth, Table* table, int64_t slots)
    {
        Table* old = performCreate(KOR_AT(ex, depth), slots, Policy::pools(table));
        if (old == nullptr) {
            return false;
        }
        std::swap(table->slots, old->slots);
        std::swap(table->slotCount, old->slotCount);
        std::swap(table->count, old->count);
        table->oldHash = old;
        return true;
    }

    /// Moves one entry of the slot at `moveIndex`: the last of its chain, so that the entry in the slot goes last and
    /// the chain stays whole. The old table's count is lowered first; if the move then fails it runs one low, and the
    /// old table's cursor, which no walk uses, counts the entries that stayed behind.
    static bool moveEntry(korEx* ex, uint8_t depth, Table* table, Table* old)
    {
        Pools pools = Policy::pools(table);
        Entry* home = &old->slots[old->moveIndex];
        Entry* before = nullptr;
        Entry* source = home;
        for (; source->chainNext != nullptr; source = source->chainNext) {
            before = source;
        }
        --old->count;
        Entry* target = slotFor(table, Policy::codeOf(source));
        Entry* moved = target;
        if (isLive(target)) {
            moved = source == home ? Policy::takeEntry(KOR_AT(ex, depth), pools) : source;
            if (moved == nullptr) {
                ++old->cursor->value;
                return false;
            }
        }
        if (moved != source) {
            relocate(table, source, moved);
        }
        if (moved != target) {
            linkBehind(target, moved);
        }
        if (source == home) {
            home->listNext = nullptr;
            ++old->moveIndex;
        } else {
            before->chainNext = nullptr;
            if (moved != source) {
                Policy::releaseEntry(KOR_AT_D(depth, ex), pools, source);
            }
        }
        ++table->count;
        return true;
    }

    /// Entries that an old table really holds.
    static int64_t liveEntries(const Table* old) { return old->count + static_cast<int64_t>(old->cursor->value); }

    // ---- The hostile build ------------------------------------------------------------------------------------------

    static int64_t checkSlots([[maybe_unused]] const Table* table)
    {
        int64_t live = 0;
        for (int64_t index = 0; index < table->slotCount; ++index) {
            const Entry* slot = &table->slots[index];
            for (const Entry* entry = isLive(slot) ? slot : nullptr; entry != nullptr; entry = entry->chainNext) {
                KOR_INVARIANT(slotFor(table, Policy::codeOf(entry)) == slot);
                KOR_INVARIANT(isLive(entry));
                ++live;
            }
        }
        return live;
    }

    /// Counts and lists of both tables, of tables small enough to be looked through after each change.
    static void checkTable([[maybe_unused]] Table* table)
    {
        if constexpr (hostile) {
            if (table->slotCount > 2048) {
                return;
            }
            int64_t live = checkSlots(table);
            KOR_INVARIANT(live == table->count);
            if (const Table* old = table->oldHash) {
                int64_t oldLive = checkSlots(old);
                KOR_INVARIANT(oldLive == liveEntries(old));
                live += oldLive;
            }
            const Entry* previous = sentinel(table);
            for (const Entry* entry = table->firstEntry; entry != sentinel(table); entry = entry->listNext) {
                KOR_INVARIANT(entry->listPrev == previous);
                live -= entry != table->cursor;
                previous = entry;
            }
            KOR_INVARIANT(table->lastEntry == previous);
            KOR_INVARIANT(live == 0);
        }
    }
};

} // namespace kor
