// korHeaderID.h - an identifier in a message header: a small number, cheap on the wire, or a UUID.
//
// On the wire it is the header integer of `id` (korBuf.h) and, only if that is 0, the 16 bytes of the UUID. An
// identifier is plain data and belongs to whoever made it.

#ifndef KORUTIL_KORHEADERID_H
#define KORUTIL_KORHEADERID_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// The identifier.
typedef struct korHeaderID {
    uint64_t id;      ///< not 0: the identifier is this number; 0: it is the UUID
    uint64_t uuid[2]; ///< the binary UUID, 16 bytes
} korHeaderID;

/// Room that _korHeaderID_ToString asks for, whatever the form.
#define KOR_HEADERID_TEXT_SIZE 39

/// Reads an identifier at the cursor, which moves behind it; the `uuid` of a record stays as it was if the `id` read is
/// not 0. Errors of _korBuf_ReadHeaderInt; code 12 "Buffer too small" if the UUID is cut, with the cursor behind `id`.
KOR_API void _korBuf_ReadHeaderID(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, korHeaderID* record);

/// Writes an identifier at the cursor, which moves behind it. Errors of _korBuf_WriteHeaderInt; code 12 "Buffer too
/// small" if there is no room for the UUID, with the cursor behind `id`.
KOR_API void _korBuf_WriteHeaderID(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end,
                                   const korHeaderID* record);

/// A new record read at the cursor, freed with _korHeaderID_Destroy. NULL after a failure: code 2, or those of
/// _korBuf_ReadHeaderID.
KOR_API korHeaderID* _korHeaderID_CreateFromBuffer(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end);

/// A new record of the same contents; NULL after a failure (code 2).
KOR_API korHeaderID* _korHeaderID_Copy(korEx* ex, uint8_t depth, const korHeaderID* source);

/// The identifier as text: the number in decimal, or the UUID in braces, upper case. Gives the characters without the
/// terminator. Code 1 "Buffer size must be greater HEADERID_TOSTRING_MAX_SIZE" and -1 for a `size` below
/// KOR_HEADERID_TEXT_SIZE, for a number too.
KOR_API int32_t _korHeaderID_ToString(korEx* ex, uint8_t depth, const korHeaderID* record, char* text, int32_t size);

/// Frees a record. NULL is accepted. Works with an error pending.
KOR_API void _korHeaderID_Destroy(uint8_t depth, korEx* ex, korHeaderID* record);

KOR_END_DECLS

#endif
