// korAlloc.h - the allocation family: the heap, with failures raised in the caller's exception object, the memory
// reserve given back and the request repeated before a failure, and the debug allocator in its place if the environment
// asks for it.
//
// The family is in line: its plain path costs a test of a byte and the heap call. Memory goes back to the routine that
// matches: _kor_free or _korUtil_Free for heap pointers, _kor_freealign for aligned ones.
//
// Errors of the family: code 2 (No memory), no description, raised by the routine's own frame. On the plain path an
// error that is pending does not stop a request; callers test before they allocate.

#ifndef KORUTIL_KORALLOC_H
#define KORUTIL_KORALLOC_H

#include "korutil/korEx.h"
#include "korutil/korMemReserve.h"

#include <stdlib.h>
#include <string.h>

KOR_BEGIN_DECLS

/// 1 = the debug allocator is off and the family takes its plain path. 0 until the first allocation has read the
/// configuration. Set once, read by everyone.
KOR_DATA uint8_t gMemNoDebug;
/// 1 = chunk pools hand every chunk out of the heap. Set by the debug configuration.
KOR_DATA uint8_t gPoolDisable;
/// 1 = an outside memory checker is in use, so locks spin 10 rounds by default, not 1024. Set by the debug
/// configuration.
KOR_DATA uint8_t gMemDebugExternalMemcheck;

// ---- The routines behind the in-line ones ---------------------------------------------------------------------------

/// _kor_malloc while the debug allocator is on or undecided. The first call of the process reads KOR_MEM_DEBUG_CONF; if
/// that leaves the debug allocator off, this call is a plain one that reports a failure by NULL alone. With an error
/// pending gives NULL. Any thread, as all of them.
KOR_API void* _kor_mallocDebug(korEx* ex, uint8_t depth, size_t size);
/// _kor_calloc while the debug allocator is on or undecided.
KOR_API void* _kor_callocDebug(korEx* ex, uint8_t depth, size_t count, size_t size);
/// _kor_realloc while the debug allocator is on or undecided.
KOR_API void* _kor_reallocDebug(korEx* ex, uint8_t depth, void* pointer, size_t size);
/// _kor_strdup while the debug allocator is on or undecided.
KOR_API char* _kor_strdupDebug(korEx* ex, uint8_t depth, const char* text);
/// _kor_memalign while the debug allocator is on or undecided. When it is on, the size is rounded up to a multiple of
/// the alignment and the address is not: the tracking header takes its place.
KOR_API void* _kor_memalignDebug(korEx* ex, uint8_t depth, size_t alignment, size_t size);
/// _kor_free while the debug allocator is on or undecided. NULL is accepted.
KOR_API void _kor_freeDebug(uint8_t depth, korEx* ex, void* pointer);
/// _kor_freealign while the debug allocator is on or undecided. NULL is accepted.
KOR_API void _kor_freealignDebug(uint8_t depth, korEx* ex, void* pointer);

// ---- The family -----------------------------------------------------------------------------------------------------

/// The aligned pair of the C library.
KOR_INLINE void* korAlloc_aligned(size_t alignment, size_t size)
{
#if defined(_WIN32)
    return _aligned_malloc(size, alignment);
#else
    size_t padded = (size + alignment - 1) & ~(alignment - 1);
    return padded < size ? NULL : aligned_alloc(alignment, padded);
#endif
}

/// Its other half.
KOR_INLINE void korAlloc_freeAligned(void* pointer)
{
#if defined(_WIN32)
    _aligned_free(pointer);
#else
    free(pointer);
#endif
}

/// Asks the heap; on a failure gives the memory reserve back, asks once more, and raises if that fails too.
#define KOR_HEAP_REQUEST(result, request)                    \
    if (KOR_UNLIKELY(((result) = (request)) == NULL)) {      \
        _korMemReserve_Free(KOR_AT_D(depth, ex));            \
        if (((result) = (request)) == NULL) {                \
            KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, NULL); \
        }                                                    \
    }

/// `size` bytes of the heap, or NULL and code 2.
KOR_INLINE void* _kor_malloc(korEx* ex, uint8_t depth, size_t size)
{
    void* result;
    if (KOR_UNLIKELY(!KOR_ATOMIC_LOAD_RELAXED(&gMemNoDebug))) {
        return _kor_mallocDebug(KOR_AT(ex, depth), size);
    }
    KOR_HEAP_REQUEST(result, malloc(size))
    return result;
}

/// `count` times `size` bytes of the heap, zeroed, or NULL and code 2.
KOR_INLINE void* _kor_calloc(korEx* ex, uint8_t depth, size_t count, size_t size)
{
    void* result;
    if (KOR_UNLIKELY(!KOR_ATOMIC_LOAD_RELAXED(&gMemNoDebug))) {
        return _kor_callocDebug(KOR_AT(ex, depth), count, size);
    }
    KOR_HEAP_REQUEST(result, calloc(count, size))
    return result;
}

/// Resizes a block of the family to `size` bytes; NULL is a new block. On a failure gives NULL and code 2, and the old
/// block stays as it was. A size of 0 gives a block of the smallest size, never a freed one.
KOR_INLINE void* _kor_realloc(korEx* ex, uint8_t depth, void* pointer, size_t size)
{
    void* result;
    if (KOR_UNLIKELY(!KOR_ATOMIC_LOAD_RELAXED(&gMemNoDebug))) {
        return _kor_reallocDebug(KOR_AT(ex, depth), pointer, size);
    }
    if (size == 0) {
        size = 1; // a C library may free the block and give NULL, which would read as a failure
    }
    KOR_HEAP_REQUEST(result, realloc(pointer, size))
    return result;
}

/// A copy of `text` on the heap, or NULL and code 2.
KOR_INLINE char* _kor_strdup(korEx* ex, uint8_t depth, const char* text)
{
    void* result;
    size_t size;
    if (KOR_UNLIKELY(!KOR_ATOMIC_LOAD_RELAXED(&gMemNoDebug))) {
        return _kor_strdupDebug(KOR_AT(ex, depth), text);
    }
    size = strlen(text) + 1;
    KOR_HEAP_REQUEST(result, malloc(size))
    return result == NULL ? NULL : (char*)memcpy(result, text, size);
}

/// `size` bytes at a multiple of `alignment`, a power of two, or NULL and code 2. Freed with _kor_freealign.
KOR_INLINE void* _kor_memalign(korEx* ex, uint8_t depth, size_t alignment, size_t size)
{
    void* result;
    if (KOR_UNLIKELY(!KOR_ATOMIC_LOAD_RELAXED(&gMemNoDebug))) {
        return _kor_memalignDebug(KOR_AT(ex, depth), alignment, size);
    }
    KOR_HEAP_REQUEST(result, korAlloc_aligned(alignment, size))
    return result;
}

#undef KOR_HEAP_REQUEST

/// Gives a block of the family back. NULL is accepted.
KOR_INLINE void _kor_free(uint8_t depth, korEx* ex, void* pointer)
{
    if (KOR_UNLIKELY(!KOR_ATOMIC_LOAD_RELAXED(&gMemNoDebug))) {
        _kor_freeDebug(KOR_AT_D(depth, ex), pointer);
        return;
    }
    free(pointer);
}

/// Gives an aligned block of the family back. NULL is accepted.
KOR_INLINE void _kor_freealign(uint8_t depth, korEx* ex, void* pointer)
{
    if (KOR_UNLIKELY(!KOR_ATOMIC_LOAD_RELAXED(&gMemNoDebug))) {
        _kor_freealignDebug(KOR_AT_D(depth, ex), pointer);
        return;
    }
    korAlloc_freeAligned(pointer);
}

// ---- For callers outside the library --------------------------------------------------------------------------------

/// The same as _kor_strdup, as a call.
KOR_API char* _korUtil_Strdup(korEx* ex, uint8_t depth, const char* text);

/// Frees what the library has given to a caller. NULL is accepted. Works with an error pending.
KOR_API void _korUtil_Free(uint8_t depth, korEx* ex, void* pointer);

/// Prints "#memory_bytes_allocated: N" to standard output, unless the debug allocator is off.
KOR_API void _kor_allocPrintStat(void);

KOR_END_DECLS

#endif
