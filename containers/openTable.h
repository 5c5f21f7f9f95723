// openTable.h - the engine of the plain chained tables, korI32Hash and kor128Hash: an array of chain heads, doubled at
// once when there are as many entries as slots. A new entry goes to the head of its chain.
//
// A policy supplies what differs:
//     Table, Entry, Count, Key    the records, the width of their counts, and a key to search for
//     maxGrowingMask              a table with this mask or a greater one keeps its size
//     hashOf(key), keyOf(entry), storeKey(entry, key)
//     takeEntry(ex, depth, table), releaseEntry(depth, ex, table, entry)
//     grow(ex, depth, table)      the family's own routine, which a trace names, over `doubleBins`

#pragma once

#include "foundation/hostile.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"
#include "korutil/korHashChain.h"

#include <cstdint>
#include <utility>

namespace kor {

template <class Policy>
struct OpenTable {
    using Table = typename Policy::Table;
    using Entry = typename Policy::Entry;
    using Count = typename Policy::Count;
    using Key = typename Policy::Key;

    // ---- Using ------------------------------------------------------------------------------------------------------

    static Entry* find(const Table* table, const Key& key)
    {
        Entry* entry = *binOf(table, key);
        while (entry != nullptr && Policy::keyOf(entry) != key) {
            entry = entry->next;
        }
        return entry;
    }

    static uint64_t get(const Table* table, const Key& key)
    {
        const Entry* entry = find(table, key);
        return entry != nullptr ? entry->value : 0;
    }

    /// The growth test stands behind the search: only a new key makes a table grow.
    static uint64_t set(korEx* ex, uint8_t depth, Table* table, const Key& key, uint64_t value)
    {
        if (Entry* entry = find(table, key)) {
            return std::exchange(entry->value, value);
        }
        if (table->count > table->mask && table->mask < Policy::maxGrowingMask &&
            !Policy::grow(KOR_AT(ex, depth), table)) {
            return 0;
        }
        Entry* entry = Policy::takeEntry(KOR_AT(ex, depth), table);
        if (entry == nullptr) {
            KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, nullptr);
            return 0;
        }
        Policy::storeKey(entry, key);
        entry->value = value;
        pushFront(binOf(table, key), entry);
        ++table->count;
        return 0;
    }

    static uint64_t remove(uint8_t depth, korEx* ex, Table* table, const Key& key)
    {
        for (Entry** link = binOf(table, key); *link != nullptr; link = &(*link)->next) {
            if (Policy::keyOf(*link) == key) {
                uint64_t value = (*link)->value;
                removeAt(KOR_AT_D(depth, ex), table, link);
                return value;
            }
        }
        return 0;
    }

    // ---- Walking ----------------------------------------------------------------------------------------------------

    static void startWalk(Table* table, korHashChainIterator* iterator)
    {
        *iterator = {};
        iterator->hash = table;
    }

    static Entry* currentOf(const korHashChainIterator* iterator) { return static_cast<Entry*>(iterator->current); }

    /// After a removal `current` stands on the following entry already, and is given out as it is.
    static Entry* advance(korHashChainIterator* iterator)
    {
        const auto* table = static_cast<const Table*>(iterator->hash);
        Entry* current = currentOf(iterator);
        if (iterator->removed == 0 && current != nullptr) {
            iterator->link = &current->next;
            current = current->next;
        }
        iterator->removed = 0;
        while (current == nullptr && iterator->binIndex <= table->mask) {
            Entry** bin = &table->bins[iterator->binIndex++];
            iterator->link = bin;
            current = *bin;
        }
        iterator->current = current;
        return current;
    }

    /// Removes where the iterator stands: after a removal that is the following entry.
    static void removeCurrent(uint8_t depth, korEx* ex, korHashChainIterator* iterator)
    {
        if (iterator == nullptr || iterator->current == nullptr) {
            return;
        }
        iterator->current = currentOf(iterator)->next;
        iterator->removed = 1;
        removeAt(KOR_AT_D(depth, ex), static_cast<Table*>(iterator->hash), static_cast<Entry**>(iterator->link));
    }

    // ---- Slots ------------------------------------------------------------------------------------------------------

    static Entry** takeBins(korEx* ex, uint8_t depth, uint64_t slots)
    {
        return requestZeroed<Entry*>(KOR_AT(ex, depth), slots);
    }

    /// Moves all entries to twice as many slots; false, with nothing changed, if memory is short.
    static bool doubleBins(korEx* ex, uint8_t depth, Table* table)
    {
        uint64_t slots = 2 * (static_cast<uint64_t>(table->mask) + 1);
        Entry** bins = takeBins(KOR_AT(ex, depth), slots);
        if (bins == nullptr) {
            return false;
        }
        Entry** old = table->bins;
        Count oldMask = std::exchange(table->mask, static_cast<Count>(slots - 1));
        table->bins = bins;
        for (int64_t bin = 0; bin <= oldMask; ++bin) {
            while (Entry* entry = old[bin]) {
                old[bin] = entry->next;
                pushFront(binOf(table, Policy::keyOf(entry)), entry);
            }
        }
        _kor_free(KOR_AT_D(depth, ex), old);
        checkTable(table);
        return true;
    }

    /// Releases all entries and the slots; the object is its owner's.
    static void clear(uint8_t depth, korEx* ex, Table* table)
    {
        for (int64_t bin = 0; bin <= table->mask; ++bin) {
            while (Entry* entry = table->bins[bin]) {
                table->bins[bin] = entry->next;
                Policy::releaseEntry(KOR_AT_D(depth, ex), table, entry);
            }
        }
        _kor_free(KOR_AT_D(depth, ex), table->bins);
    }

private:
    static Entry** binOf(const Table* table, const Key& key)
    {
        return &table->bins[Policy::hashOf(key) & static_cast<uint64_t>(table->mask)];
    }

    static void pushFront(Entry** bin, Entry* entry)
    {
        entry->next = *bin;
        *bin = entry;
    }

    static void removeAt(uint8_t depth, korEx* ex, Table* table, Entry** link)
    {
        Entry* entry = *link;
        *link = entry->next;
        --table->count;
        Policy::releaseEntry(KOR_AT_D(depth, ex), table, entry);
    }

    // The hostile build: every entry is in its own chain, and there are as many as the table counts.
    static void checkTable([[maybe_unused]] const Table* table)
    {
        if constexpr (hostile) {
            int64_t entries = 0;
            for (int64_t bin = 0; bin <= table->mask; ++bin) {
                for (const Entry* entry = table->bins[bin]; entry != nullptr; entry = entry->next) {
                    KOR_INVARIANT(binOf(table, Policy::keyOf(entry)) == &table->bins[bin]);
                    ++entries;
                }
            }
            KOR_INVARIANT(entries == table->count);
        }
    }
};

} // namespace kor
