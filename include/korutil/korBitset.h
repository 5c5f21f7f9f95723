// korBitset.h - a growable set of small numbers.
//
//     korBitset* seen = _korBitset_Create(KOR_AT(ex, depth));
//     _korBitset_Add(KOR_AT(ex, depth), seen, 17);
//     if (_korBitset_IsPresent(KOR_AT(ex, depth), seen, 17)) ...
//     _korBitset_Destroy(KOR_AT_D(depth, ex), seen);
//
// Eight members share a word: member b is bit b % 8 of word b / 8, and the upper 56 bits of a word stay 0. The layout
// is part of the interface. A set grows to twice the word that is asked for, also when it is only asked; it never
// shrinks.
//
// With an error pending all but the destroy does nothing, and gives false or NULL. All of them raise code 1 (no
// description) for a NULL set or one without words. A set has no lock, and a question can make it grow.

#ifndef KORUTIL_KORBITSET_H
#define KORUTIL_KORBITSET_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// The set. Made and freed by the library alone.
typedef struct korBitset {
    uint64_t wordCount; ///< words
    uint64_t* words;    ///< owned; members in the low byte of each
} korBitset;

/// Makes an empty set of 64 words. The caller destroys it. NULL on an error. Code 2.
KOR_API korBitset* _korBitset_Create(korEx* ex, uint8_t depth);

/// Puts a number into the set. Code 2, with the set as it was.
KOR_API void _korBitset_Add(korEx* ex, uint8_t depth, korBitset* bitset, uint64_t bit);

/// Takes a number out of the set. Code 2, with the set as it was.
KOR_API void _korBitset_Remove(korEx* ex, uint8_t depth, korBitset* bitset, uint64_t bit);

/// True if the number is in the set. Code 2 if it lies beyond the words and there is no memory for them.
KOR_API bool _korBitset_IsPresent(korEx* ex, uint8_t depth, korBitset* bitset, uint64_t bit);

/// A new set with the same words, which the caller destroys. NULL on an error. Code 2.
KOR_API korBitset* _korBitset_Duplicate(korEx* ex, uint8_t depth, const korBitset* bitset);

/// Makes `target` hold what `source` holds. A larger target keeps its size, a smaller one grows to the source's. Code
/// 2, with the target as it was.
KOR_API void _korBitset_CopyBitset(korEx* ex, uint8_t depth, korBitset* target, const korBitset* source);

/// Takes all numbers out; the size stays.
KOR_API void _korBitset_Clear(korEx* ex, uint8_t depth, korBitset* bitset);

/// Frees a set. NULL is accepted. Works with an error pending.
KOR_API void _korBitset_Destroy(uint8_t depth, korEx* ex, korBitset* bitset);

KOR_END_DECLS

#endif
