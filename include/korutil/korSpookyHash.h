// korSpookyHash.h - SpookyHash V2, Bob Jenkins' published 128-bit hash of byte strings, with both seeds 0.
//
// The caller picks the form: up to and including 191 bytes the short one, from 192 bytes on the long one, gives the
// published hash. Fast and well mixed, not secret: a peer that chooses keys can make them collide. Any thread, any
// alignment.

#ifndef KORUTIL_KORSPOOKYHASH_H
#define KORUTIL_KORSPOOKYHASH_H

#include "korutil/korBase.h"

KOR_BEGIN_DECLS

/// The least length, in bytes, that goes to the long form.
#define KOR_SPOOKY_LONG_LENGTH 192

/// The short form. Gives the first half of the hash; `second`, unless NULL, gets the other one. `data` may be NULL for
/// a length of 0.
KOR_API uint64_t _korSpookyHash_Short(const void* data, uint64_t length, uint64_t* second);

/// The long form, in blocks of 96 bytes: slower to begin and to end, much faster on the way. Result as above.
KOR_API uint64_t _korSpookyHash_Long(const void* data, uint64_t length, uint64_t* second);

KOR_END_DECLS

#endif
