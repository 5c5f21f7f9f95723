// korHashChain.h - the walk that the plain chained tables share: korI32Hash and kor128Hash.
//
// An iterator is the caller's record, made ready by the table's IteratorInit; each table's header has the functions.
// Several walks of a table may run at once if none removes.

#ifndef KORUTIL_KORHASHCHAIN_H
#define KORUTIL_KORHASHCHAIN_H

#include "korutil/korBase.h"

KOR_BEGIN_DECLS

/// A walk over a table, bin by bin and in a bin from the newest entry on.
typedef struct korHashChainIterator {
    int64_t binIndex; ///< the next bin to open
    void* current;    ///< the current entry, or the one after it if it has been removed; NULL = none
    void* link;       ///< the pointer that leads to `current`
    void* hash;       ///< the table
    uint8_t removed;  ///< 1 = the current entry was removed, and `current` has not been given out yet
} korHashChainIterator;

KOR_END_DECLS

#endif
