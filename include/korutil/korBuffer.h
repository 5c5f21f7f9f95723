// korBuffer.h - a counted record around an area of bytes, shared by all who read it.
//
// The area is of one of three kinds: the buffer's own, from the heap; inline, in one chunk with the record; or wrapped,
// which is somebody else's. A buffer of a pooled size costs no heap work.
//
//     korPool* pool = _korBuffer_GetPoolWithData(KOR_AT(ex, depth), 100, 512);
//     korBuffer* packet = _korBuffer_CreateFromCacheOrPool(KOR_AT(ex, depth), NULL, pool, 512);
//     _korBuf_EncodeUTF8(KOR_AT(ex, depth), &packet->position, packet->end, "name");
//     KOR_ATOMIC_ADD(&packet->refCount, 1);                      // one more holder, on any thread
//     _korBuffer_ReleaseToCache(KOR_AT_D(depth, ex), packet, NULL); // once by each holder
//
// The count is raised by the holders themselves and is all that several threads may touch; the rest of a buffer belongs
// to one thread at a time. With an error pending nothing is made or changed; a release does its work.

#ifndef KORUTIL_KORBUFFER_H
#define KORUTIL_KORBUFFER_H

#include "korutil/korPoolCache.h"

KOR_BEGIN_DECLS

/// The record: 48 bytes. An inline area begins just behind it.
typedef struct korBuffer {
    uint8_t* data;      ///< the area
    uint8_t* position;  ///< the caller's cursor within the area; starts at `data`
    uint8_t* end;       ///< just behind the valid data; starts at `data` + `capacity`
    int64_t refCount;   ///< atomic: holders; starts at 1
    korPool* pool;      ///< where the record came from, or NULL for the heap
    int32_t capacity;   ///< size of the area
    uint8_t wrapped;    ///< 1 = the area is somebody else's: never freed, cannot grow
    uint8_t inlineData; ///< 1 = the area lies behind the record
} korBuffer;

// ---- Pools ----------------------------------------------------------------------------------------------------------

/// Makes the default pool of bare records and the list of pools with data. Part of the library's start; does nothing if
/// they stand. After a failure there is neither. Code 2. Under the library's lock.
KOR_API void _korBuffer_CreatePool(korEx* ex, uint8_t depth);

/// Destroys the default pool and every pool with data. Part of the library's stop: no buffer of them may be in use.
/// Works with an error pending. Under the library's lock.
KOR_API void _korBuffer_DestroyPool(korEx* ex, uint8_t depth);

/// The pool of records with `dataSize` bytes behind them, `count` to a block of memory. Equal arguments give the same
/// pool, which the library keeps until its stop. NULL on a failure: code 1 for a count below 1, a negative size, or a
/// block of 4 GiB; code 2; code 5 if the library is not open. Any thread.
KOR_API korPool* _korBuffer_GetPoolWithData(korEx* ex, uint8_t depth, int32_t count, int32_t dataSize);

/// What _korPool_Memory gives for the default pool: the bytes of its records, their number and how many of them no
/// thread has. All 0 while there is no such pool. Either pointer may be NULL.
KOR_API uint32_t _korBuffer_PoolMemory(uint32_t* total, uint32_t* free);

// ---- Buffers --------------------------------------------------------------------------------------------------------

/// A buffer with one reference around `data`, which must come from the allocation family and is the buffer's from now
/// on. With NULL an area of `size` bytes is allocated, 32 at least, and `capacity` tells how many. NULL on a failure,
/// with `data` still the caller's: code 2; code 1 (no description) for data of a negative size.
KOR_API korBuffer* _korBuffer_CreateWithData(korEx* ex, uint8_t depth, void* data, int32_t size);

/// A buffer with one reference and `size` bytes, its record from `cache` or else from `pool`; both may be NULL, which
/// takes it from the heap. A pool whose chunks are made for records with `size` bytes of data gives the area as well, a
/// pool of bare records only the record; in place of any other pool the default pool is taken, and the cache left
/// alone. An area that is not inline is allocated, with 32 bytes at least. Inline bytes are as the last user left them.
/// NULL on a failure: code 2. The calling thread must own the cache.
KOR_API korBuffer* _korBuffer_CreateFromCacheOrPool(korEx* ex, uint8_t depth, korPoolCache* cache, korPool* pool,
                                                    int32_t size);

/// Gives up one reference. The last one frees an area of the buffer's own, and the record goes to `cache` if both are
/// of one pool and the cache has room, else to its pool or the heap. `buffer` and `cache` may be NULL. Works with an
/// error pending and reports nothing. The calling thread must own the cache.
KOR_API void _korBuffer_ReleaseToCache(uint8_t depth, korEx* ex, korBuffer* buffer, korPoolCache* cache);

/// A new buffer with `length` bytes of the source's area from `offset` on; `end` stands behind them. It has room for
/// `capacity` bytes, 32 at least. NULL on a failure: code 2; code 1 (no description) for a length above the capacity or
/// bytes that the source does not have.
KOR_API korBuffer* _korBuffer_Copy(korEx* ex, uint8_t depth, const korBuffer* source, int32_t offset, int32_t capacity,
                                   int32_t length);

/// Makes a buffer stand for `size` bytes of somebody else's, without a copy, and gives the buffer to use in place of
/// the argument: the same one with its old area gone, or a new one if the argument is NULL or has further holders, who
/// keep it; the caller's reference to it is then given up. On a failure the result is the argument, unchanged: code 2;
/// code 1 (no description) for a negative size, or for NULL with any size but 0.
KOR_API korBuffer* _korBuffer_ReplaceDataWrappedOrCreate(korEx* ex, uint8_t depth, korBuffer* buffer, void* data,
                                                         int32_t size);

/// Grows the area by `extra` bytes. Its contents stay, `position` keeps its distance from `data`, and `end` stands
/// behind the whole area. On a failure the buffer is as it was: code 8 "Cannot expand a wrapped buffer."; code 1 (no
/// description) for a negative `extra` or a capacity of 2 GiB; code 2.
KOR_API void _korBuffer_Expand(korEx* ex, uint8_t depth, korBuffer* buffer, int32_t extra);

KOR_END_DECLS

#endif
