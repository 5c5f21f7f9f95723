// korMutex.h - the mutex that everything else rests on: recursive, kept in place, entered and left in line.
//
// Windows: a critical section. Linux: a futex word with an owner and a depth. A free mutex is entered with one
// compare-and-swap and left with one exchange, and no system call is made unless a thread has to sleep.
//
// Recipe of use:
//
//     korMutex mutex;
//     _korMutex_Init(KOR_AT(ex, depth), &mutex);
//     korMutex_enter(&mutex);                      // may be repeated by the thread that holds it
//     ...
//     korMutex_leave(&mutex);                      // once for each enter
//     _korMutex_Clear(KOR_AT(ex, depth), &mutex);

#ifndef KORUTIL_KORMUTEX_H
#define KORUTIL_KORMUTEX_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

// ---- The record, enter and leave ------------------------------------------------------------------------------------

#if defined(_WIN32)

/// Storage of a critical section: 40 bytes, the same as on Linux.
typedef struct korMutex {
    uint64_t section[5];
} korMutex;

// Declared by hand, exactly as the system's header does, so that no caller gets that header and none is disturbed who
// includes it as well.
struct _RTL_CRITICAL_SECTION;
__declspec(dllimport) void __stdcall EnterCriticalSection(struct _RTL_CRITICAL_SECTION* section);
__declspec(dllimport) void __stdcall LeaveCriticalSection(struct _RTL_CRITICAL_SECTION* section);
__declspec(dllimport) int __stdcall TryEnterCriticalSection(struct _RTL_CRITICAL_SECTION* section);

/// Takes the mutex, waiting for as long as another thread holds it. A thread may take what it holds already.
KOR_INLINE void korMutex_enter(korMutex* mutex)
{
    EnterCriticalSection((struct _RTL_CRITICAL_SECTION*)mutex->section);
}

/// Takes the mutex if no other thread holds it; false if one does. Never waits.
KOR_INLINE bool korMutex_tryEnter(korMutex* mutex)
{
    return TryEnterCriticalSection((struct _RTL_CRITICAL_SECTION*)mutex->section) != 0;
}

/// Gives back one enter. The calling thread must hold the mutex.
KOR_INLINE void korMutex_leave(korMutex* mutex)
{
    LeaveCriticalSection((struct _RTL_CRITICAL_SECTION*)mutex->section);
}

#else

/// A zeroed record is a free mutex: 40 bytes, the same as on Windows.
typedef struct korMutex {
    uint32_t word;        ///< atomic: 0 = free, 1 = held, 2 = held and a thread may sleep
    uint32_t depth;       ///< enters beyond the first; the holder's
    uint64_t owner;       ///< atomic: thread pointer of the holder, 0 = none
    uint64_t reserved[3]; ///< keeps the size
} korMutex;

#define KOR_FUTEX_WAIT 0
#define KOR_FUTEX_WAKE 1
#define KOR_FUTEX_PRIVATE 128

/// The system call itself: errno stays as it is, and no system header is needed. Gives 0 or more, or a negated error
/// number. `timeout` is a relative struct timespec or NULL.
KOR_INLINE long korMutex_futex(uint32_t* word, long operation, uint32_t value, const void* timeout)
{
    long result;
    register const void* timeoutRegister __asm__("r10") = timeout;
    __asm__ volatile("syscall"
                     : "=a"(result)
                     : "a"(202L), "D"(word), "S"(operation), "d"((unsigned long)value), "r"(timeoutRegister)
                     : "rcx", "r11", "memory");
    return result;
}

/// The thread pointer: different for each living thread, and one load away.
KOR_INLINE uint64_t korMutex_self(void)
{
    uint64_t self;
    __asm__("movq %%fs:0, %0" : "=r"(self));
    return self;
}

/// The first step of every enter: a free mutex becomes the caller's.
KOR_INLINE bool korMutex_take(korMutex* mutex)
{
    uint32_t expected = 0;
    if (KOR_UNLIKELY(!KOR_ATOMIC_CAS(&mutex->word, &expected, 1))) {
        return false;
    }
    KOR_ATOMIC_STORE_RELAXED(&mutex->owner, korMutex_self());
    return true;
}

/// Enters a second time what the caller holds. No other thread ever finds its own pointer in `owner`, so a stale value
/// does no harm.
KOR_INLINE bool korMutex_recur(korMutex* mutex)
{
    if (KOR_ATOMIC_LOAD_RELAXED(&mutex->owner) != korMutex_self()) {
        return false;
    }
    mutex->depth++;
    return true;
}

/// Rounds of looking for a free word before a thread goes to sleep: about what a sleep and its wake-up would cost.
#define KOR_MUTEX_SPIN 100

static __attribute__((cold, noinline, unused)) void korMutex_enterSlow(korMutex* mutex)
{
    if (korMutex_recur(mutex)) {
        return;
    }
    for (int round = 0; round < KOR_MUTEX_SPIN; round++) {
        if (KOR_ATOMIC_LOAD_RELAXED(&mutex->word) == 0 && korMutex_take(mutex)) {
            return;
        }
        __builtin_ia32_pause();
    }
    // From here on the word is 2 for whoever holds the mutex, this thread included: one wake-up too many does no harm,
    // a sleeper whom the next leave knows nothing of would never wake.
    while (KOR_ATOMIC_EXCHANGE(&mutex->word, 2) != 0) {
        korMutex_futex(&mutex->word, KOR_FUTEX_WAIT | KOR_FUTEX_PRIVATE, 2, NULL);
    }
    KOR_ATOMIC_STORE_RELAXED(&mutex->owner, korMutex_self());
}

static __attribute__((cold, noinline, unused)) void korMutex_wakeOne(korMutex* mutex)
{
    korMutex_futex(&mutex->word, KOR_FUTEX_WAKE | KOR_FUTEX_PRIVATE, 1, NULL);
}

/// Takes the mutex, waiting for as long as another thread holds it. A thread may take what it holds already.
KOR_INLINE void korMutex_enter(korMutex* mutex)
{
    if (KOR_UNLIKELY(!korMutex_take(mutex))) {
        korMutex_enterSlow(mutex);
    }
}

/// Takes the mutex if no other thread holds it; false if one does. Never waits.
KOR_INLINE bool korMutex_tryEnter(korMutex* mutex)
{
    return korMutex_take(mutex) || korMutex_recur(mutex);
}

/// Gives back one enter. The calling thread must hold the mutex.
KOR_INLINE void korMutex_leave(korMutex* mutex)
{
    if (KOR_UNLIKELY(mutex->depth != 0)) {
        mutex->depth--;
        return;
    }
    KOR_ATOMIC_STORE_RELAXED(&mutex->owner, 0);
    if (KOR_UNLIKELY(KOR_ATOMIC_EXCHANGE(&mutex->word, 0) == 2)) {
        korMutex_wakeOne(mutex); // by address alone: the next holder may have freed the memory
    }
}

#endif

// ---- Objects --------------------------------------------------------------------------------------------------------

/// Makes a free mutex of a caller's storage. Cannot fail, and works with an error pending.
KOR_API void _korMutex_Init(korEx* ex, uint8_t depth, korMutex* mutex);

/// Ends a mutex of _korMutex_Init that nobody holds. The storage stays the caller's. Works with an error pending.
KOR_API void _korMutex_Clear(korEx* ex, uint8_t depth, korMutex* mutex);

/// Makes a free mutex on the heap. Gives NULL with an error pending, or with code 2 (no description) if there is no
/// memory. Freed with _korMutex_Destroy.
KOR_API korMutex* _korMutex_Create(korEx* ex, uint8_t depth);

/// Frees a mutex of _korMutex_Create that nobody holds. NULL is accepted.
KOR_API void _korMutex_Destroy(uint8_t depth, korEx* ex, korMutex* mutex);

/// Part of opening the library: prints "Found settings for Thread contention, but not compiled for it\n" to standard
/// output if KOR_EXEC_CONF asks for contention warnings ("warnOnTaskDur=", "warnOnLockHeldDur=").
KOR_API void _korMutex_Open(korEx* ex, uint8_t depth);

KOR_END_DECLS

#endif
