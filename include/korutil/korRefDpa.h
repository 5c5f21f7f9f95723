// korRefDpa.h - an array with a reference count, taken from a pool that the library shares.
//
// The count is the holders' business: one that shares the array raises `refCount`, one that lets go lowers it, and the
// last one gives the object back to `pool` with _korPool_Return, or with a NULL pool clears `array` and frees the
// object. An object that goes back to its pool keeps its storage for the next use.

#ifndef KORUTIL_KORREFDPA_H
#define KORUTIL_KORREFDPA_H

#include "korutil/korDpa.h"

KOR_BEGIN_DECLS

/// A counted array.
typedef struct korRefDpa {
    int64_t refCount; ///< holders
    korDpa array;     ///< the values
    korPool* pool;    ///< where the object came from, or NULL for the heap
} korRefDpa;

/// Makes the shared pool. Part of the library's start; does nothing if the pool stands. Code 2. Under the library's
/// lock.
KOR_API void _korRefDpa_Open(korEx* ex, uint8_t depth);

/// Destroys the shared pool, which otherwise lasts until the library is unloaded: no object of it may be in use. Under
/// the library's lock.
KOR_API void _korRefDpa_Close(uint8_t depth, korEx* ex);

/// An empty counted array with one reference. `size` is the hint of _korDpa_PerformInit if there is no shared pool;
/// with it an array starts with 16 slots or what its last use left. NULL and code 2 if memory is short. Any thread.
KOR_API korRefDpa* _korRefDpa_Create(korEx* ex, uint8_t depth, int32_t size);

KOR_END_DECLS

#endif
