// korRand.h - the library's one source of randomness, behind a pair of hooks, and what is made from it: names, UUIDs,
// a number in the unit interval, a shuffle.
//
// The built-in hooks draw from the system's cryptographic generator. While an error is pending nothing here does
// anything; a failure to get random bytes is code 6 "Random data not available." with the system's number, unless
// other hooks raise something else. Any thread; hooks are set at start, before others draw.

#ifndef KORUTIL_KORRAND_H
#define KORUTIL_KORRAND_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// A source: `put` gives `length` bytes of entropy to it and may overwrite them; `get` fills `length` bytes.
typedef struct korRandHooks {
    void (*put)(korEx* ex, uint8_t depth, void* data, int32_t length);
    void (*get)(korEx* ex, uint8_t depth, void* buffer, int32_t length);
} korRandHooks;

#define KOR_UUID_SIZE 16      ///< bytes of a UUID
#define KOR_UUID_TEXT_SIZE 37 ///< bytes of its text, with the terminator

/// Opens the system's source and puts the built-in hooks in force. Called as the library starts. Code 6 "No
/// cryptographic context for entropy source." with the system's number; the hooks are in force all the same.
KOR_API void _korRand_Open(korEx* ex, uint8_t depth);

/// Gives the system's source back. Called as the library stops. Not 0 if that worked.
KOR_API int32_t _korRand_Close(uint8_t depth, korEx* ex);

/// Puts the caller's hooks in force, which must stay in place as long; NULL is the built-in pair. The first two
/// arguments are not used.
KOR_API void _korRand_SetHooks(korEx* ex, uint8_t depth, const korRandHooks* hooks);

/// Puts the built-in hooks in force again and gives them.
KOR_API const korRandHooks* _korRand_ResetHooks(korEx* ex, uint8_t depth);

/// Gives entropy to the source. The data may be overwritten. A length below 1 does nothing.
KOR_API void _korRand_AddEntropy(korEx* ex, uint8_t depth, void* data, int32_t length);

/// Fills `length` bytes. A length below 1 does nothing.
KOR_API void _korRand_GetRandomBytes(korEx* ex, uint8_t depth, void* buffer, int32_t length);

/// A random name of `size` - 1 upper-case letters and digits, terminated. The text is empty after a failure.
KOR_API void _korRand_GetRandomName(korEx* ex, uint8_t depth, char* buffer, int32_t size);

/// A random UUID of KOR_UUID_SIZE bytes, version 4. Zeros after a failure.
KOR_API void _korRand_GetRandomUUID(korEx* ex, uint8_t depth, uint8_t* uuid);

/// The same with the library's mark, which shows as version 5: it tells, from the value alone, that this library made
/// the identifier for a special role. It is no name-based UUID.
KOR_API void _korRand_GetMarkedUUID(korEx* ex, uint8_t depth, uint8_t* uuid);

/// Stamps version and variant on 16 bytes that the caller has: marked if `marked` is not 0. The second argument is not
/// used.
KOR_API void _korRand_StampUUID(uint8_t* uuid, int32_t length, uint8_t marked);

/// 1 if the UUID has the mark; 0 if not, for NULL, or for a length below 16.
KOR_API uint8_t _korRand_IsMarkedUUID(const uint8_t* uuid, int32_t length);

/// Writes a UUID as text, 8-4-4-4-12 digits in upper case, into at least KOR_UUID_TEXT_SIZE bytes. `length` and `size`
/// are not looked at.
KOR_API void _korRand_GetBinaryUUIDAsText(korEx* ex, uint8_t depth, const uint8_t* uuid, int32_t length, char* text,
                                          int32_t size);

/// Reads a UUID from 36 characters; what stands in the places of the dashes does not matter. Code 1: "Invalid UUID" for
/// NULL or a shorter text, with `size` bytes zeroed; "binhex binary buffer too small" for a `size` below 16.
KOR_API void _korRand_GetTextUUIDAsBinary(korEx* ex, uint8_t depth, uint8_t* uuid, int32_t size, const char* text,
                                          int32_t length);

/// A random number from 0.0 to 1.0, both ends possible; -1.0 after a failure.
KOR_API double _korRand_Get01Interval(korEx* ex, uint8_t depth);

/// Brings the `count` values into a random order (Fisher and Yates). If random bytes fail to come the rest is still
/// permuted, with 0 for each number.
KOR_API void _korRand_ShuffleList(korEx* ex, uint8_t depth, uint64_t* values, int32_t count);

KOR_END_DECLS

#endif
