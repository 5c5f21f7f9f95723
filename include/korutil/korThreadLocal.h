// korThreadLocal.h - the thread-local store: 2047 keys over a single slot of the system, with destructors.
//
// A value is 64 bits, opaque: a pointer, an id, a number. Reading takes no lock and no call. A set takes a spinning
// lock and, for a key with a destructor, two look-ups: values that change often should be stable pointers whose target
// is changed in place.
//
// Recipe of use:
//
//     int32_t key = _korThreadLocal_Create(KOR_AT(ex, depth), freeSession);
//     _korThreadLocal_Set(KOR_AT(ex, depth), key, (uint64_t)session);
//     session = (korSession*)_korThreadLocal_Get(key);
//     _korThreadLocal_Destroy(KOR_AT_D(depth, ex), key);
//
// A destructor runs when its thread ends, and on a thread that asks for it, never under a lock of the store: it may set
// values and take locks. A value keeps its destructor when its key is destroyed; who gets the key's number next sees
// nothing of it. Destructors must not depend on the order in which the values of other keys have gone.

#ifndef KORUTIL_KORTHREADLOCAL_H
#define KORUTIL_KORTHREADLOCAL_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// Keys run from 1 to one less than this; key 0 is never valid.
#define KOR_THREAD_LOCAL_KEYS 2048

/// Ends a value. It runs on the value's thread, with no lock held; its failures are its own.
typedef void (*korThreadLocalDestructor)(uint64_t value);

// ---- The read -------------------------------------------------------------------------------------------------------

/// `__tlsInfo` while there is no store: no thread has an array.
#define KOR_THREAD_LOCAL_NONE 0x7FFFFFFF

/// Where the calling thread's array of values is found: on Windows the index of the system's slot, on Linux the
/// distance from the thread pointer to the library's pointer. Written once, atomically, when the store is set up.
KOR_DATA int32_t __tlsInfo;

#if defined(_WIN32)

__declspec(dllimport) void* __stdcall TlsGetValue(unsigned long index);

/// Slots that lie in the thread's own block; the others lie behind a pointer, and the system finds them.
#define KOR_THREAD_LOCAL_NEAR_SLOTS 64
#define KOR_THREAD_LOCAL_NEAR_OFFSET 0x1480

/// The calling thread's values, or NULL if it has none yet. Unlike TlsGetValue it mostly leaves the thread's last error
/// alone.
KOR_INLINE uint64_t* korThreadLocal_array(void)
{
    int32_t index = KOR_ATOMIC_LOAD_RELAXED(&__tlsInfo);
    const char* block;
    if (KOR_UNLIKELY(index >= KOR_THREAD_LOCAL_NEAR_SLOTS)) {
        return (uint64_t*)TlsGetValue((unsigned long)index);
    }
    __asm__("movq %%gs:0x30, %0" : "=r"(block));
    return *(uint64_t* const*)(const void*)(block + KOR_THREAD_LOCAL_NEAR_OFFSET + (size_t)index * sizeof(void*));
}

#else

/// The calling thread's values, or NULL if it has none yet.
KOR_INLINE uint64_t* korThreadLocal_array(void)
{
    int32_t offset = KOR_ATOMIC_LOAD_RELAXED(&__tlsInfo);
    const char* self;
    if (KOR_UNLIKELY(offset == KOR_THREAD_LOCAL_NONE)) {
        return NULL;
    }
    __asm__("movq %%fs:0, %0" : "=r"(self)); // the same for all of a thread's life: the compiler may keep it
    return *(uint64_t* const*)(const void*)(self + offset);
}

#endif

/// The calling thread's value under `key`; 0 if it has none, for a value of all ones, and for a key that cannot be
/// valid. Only the low 16 bits of a key count, here and everywhere.
KOR_INLINE uint64_t _korThreadLocal_Get(int32_t key)
{
    uint64_t* values = korThreadLocal_array();
    uint16_t index = (uint16_t)key;
    uint64_t value;
    if (KOR_UNLIKELY(values == NULL || index >= KOR_THREAD_LOCAL_KEYS)) {
        return 0;
    }
    value = KOR_ATOMIC_LOAD_RELAXED(&values[index]);
    return value == UINT64_MAX ? 0 : value;
}

/// Reads the bare value, without the test for all ones; 0 if the thread has no values or the key cannot be valid.
KOR_API uint64_t _korThreadLocal_GetRawDebug(int32_t key);

// ---- Keys -----------------------------------------------------------------------------------------------------------

/// Makes a key whose value is 0 in every thread. `destructor` may be NULL. Sets the store up if that has not happened.
/// 0 on an error: code 2 "kor Thread Local Store exhausted" with all 2047 keys in use, code 2 (no description) without
/// memory. Any thread.
KOR_API int32_t _korThreadLocal_Create(korEx* ex, uint8_t depth, korThreadLocalDestructor destructor);

/// Gives the key back; its number may be used again at once. The calling thread's own value under it meets its
/// destructor before the call returns; the values of other threads when those call _korThreadLocal_RunDestructors, or
/// end. A key that cannot be valid is ignored. (depth, ex): works with an error pending.
KOR_API void _korThreadLocal_Destroy(uint8_t depth, korEx* ex, int32_t key);

// ---- Values ---------------------------------------------------------------------------------------------------------

/// Sets the calling thread's value under `key`, and has the key's destructor, if any, meet it. The value before it gets
/// no destructor: it is the caller's again, and so is a value that is replaced by 0. With an error pending it does
/// nothing. Code 1 "Thread Local Store key not valid"; code 2 (no description) without memory.
KOR_API void _korThreadLocal_Set(korEx* ex, uint8_t depth, int32_t key, uint64_t value);

/// Runs the destructors of this thread's values whose keys are gone. Values of living keys stay. Works with an error
/// pending; code 2 (no description) without memory, and what could not be listed stays for the next time.
KOR_API void _korThreadLocal_RunDestructors(uint8_t depth, korEx* ex);

/// Runs the destructors of all this thread's values, now, and sets the slots of their keys to 0: for a thread whose end
/// the system does not tell. Values that a destructor sets stay. Errors as for _korThreadLocal_RunDestructors.
KOR_API void _korThreadLocal_ForceDestructors(uint8_t depth, korEx* ex);

/// Keeps destructors from running when the library is unloaded, for a host that ends its threads by itself. There is no
/// way back. The end of a thread runs them all the same.
KOR_API void _kor_SetDotNetEnvironment(void);

KOR_END_DECLS

#endif
