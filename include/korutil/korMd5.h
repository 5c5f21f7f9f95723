// korMd5.h - MD5, the digest of RFC 1321. It is broken as a signature; it serves as a check sum and for old protocols.
//
//     korMd5State state;
//     md5_init(&state);
//     md5_append(&state, data, count);             // as often as there is data
//     md5_finish(&state, digest);
//
// The state is the caller's: nothing is allocated, nothing shared.

#ifndef KORUTIL_KORMD5_H
#define KORUTIL_KORMD5_H

#include "korutil/korBase.h"

KOR_BEGIN_DECLS

#define KOR_MD5_DIGEST_SIZE 16
#define KOR_MD5_BLOCK_SIZE 64

/// A digest under way.
typedef struct korMd5State {
    uint32_t bitCount[2];                ///< bits taken so far, low word first
    uint32_t chain[4];                   ///< the chaining values
    uint8_t pending[KOR_MD5_BLOCK_SIZE]; ///< input that does not fill a block yet
} korMd5State;

/// Begins a digest.
KOR_API void md5_init(korMd5State* state);

/// Takes `count` bytes in. A count below 1 does nothing.
KOR_API void md5_append(korMd5State* state, const uint8_t* data, int32_t count);

/// Ends the digest and gives it. The state must go through md5_init before it is used again.
KOR_API void md5_finish(korMd5State* state, uint8_t digest[KOR_MD5_DIGEST_SIZE]);

KOR_END_DECLS

#endif
