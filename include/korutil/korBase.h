// korBase.h - what every public header rests on: linkage, in-line routines, atomics for records that are shared.
//
// The system differences that a caller can see stand here and in korMutex.h and korThreadLocal.h, nowhere else.

#ifndef KORUTIL_KORBASE_H
#define KORUTIL_KORBASE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define KOR_BEGIN_DECLS extern "C" {
#define KOR_END_DECLS }
#else
#define KOR_BEGIN_DECLS
#define KOR_END_DECLS
#endif

/// Marks an exported function. In-line routines carry KOR_INLINE instead and are no exports.
/// KOR_DATA marks an exported object; on Windows a caller must know that it lies in another module.
#if defined(_WIN32)
#if defined(KOR_BUILDING_LIBRARY)
#define KOR_API
#define KOR_DATA extern
#else
#define KOR_API __declspec(dllimport)
#define KOR_DATA extern __declspec(dllimport)
#endif
#else
#define KOR_API __attribute__((visibility("default")))
#define KOR_DATA extern __attribute__((visibility("default")))
#endif

/// A routine that is expanded at its call site in every build, the unoptimised one included, so that what it costs and
/// what a trace shows do not depend on the compiler's mood.
#define KOR_INLINE static inline __attribute__((always_inline, unused))

#define KOR_LIKELY(condition) __builtin_expect(!!(condition), 1)
#define KOR_UNLIKELY(condition) __builtin_expect(!!(condition), 0)

/// Lets the compiler check a printf-like function's arguments. The formats are those of C99 on every platform.
#if defined(_WIN32) && !defined(__clang__)
#define KOR_PRINTF(text, arguments) __attribute__((__format__(__gnu_printf__, text, arguments)))
#else
#define KOR_PRINTF(text, arguments) __attribute__((__format__(__printf__, text, arguments)))
#endif

/// Atomic access to plain integers in public records, for the in-line routines of these headers (C and C++ alike).
/// Sequentially consistent unless the name says otherwise.
#define KOR_ATOMIC_LOAD(pointer) __atomic_load_n(pointer, __ATOMIC_SEQ_CST)
#define KOR_ATOMIC_LOAD_ACQUIRE(pointer) __atomic_load_n(pointer, __ATOMIC_ACQUIRE)
#define KOR_ATOMIC_LOAD_RELAXED(pointer) __atomic_load_n(pointer, __ATOMIC_RELAXED)
#define KOR_ATOMIC_STORE(pointer, value) __atomic_store_n(pointer, value, __ATOMIC_SEQ_CST)
#define KOR_ATOMIC_STORE_RELEASE(pointer, value) __atomic_store_n(pointer, value, __ATOMIC_RELEASE)
#define KOR_ATOMIC_STORE_RELAXED(pointer, value) __atomic_store_n(pointer, value, __ATOMIC_RELAXED)
#define KOR_ATOMIC_EXCHANGE(pointer, value) __atomic_exchange_n(pointer, value, __ATOMIC_SEQ_CST)
/// Adds and gives the value before.
#define KOR_ATOMIC_ADD(pointer, value) __atomic_fetch_add(pointer, value, __ATOMIC_SEQ_CST)
/// Compare-and-swap: true if `*pointer` was `*expected` and is now `desired`; else `*expected` is what stood there.
#define KOR_ATOMIC_CAS(pointer, expected, desired) \
    __atomic_compare_exchange_n(pointer, expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)

#endif
