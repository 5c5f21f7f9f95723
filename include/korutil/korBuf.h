// korBuf.h - the fields of a binary message: read and written at a cursor, bounded by an end.
//
// Nothing is owned and nothing remembered. `cursor` is the address of the caller's pointer to the next byte; an
// operation that succeeds leaves it just behind the field. `end` points just behind the last byte that may be used.
//
//     uint8_t bytes[64];
//     uint8_t* cursor = bytes;
//     _korBuf_WriteHeaderInt(KOR_AT(ex, 0), &cursor, bytes + sizeof bytes, 300);  // 81 2c
//     _korBuf_EncodeUTF8(KOR_AT(ex, 0), &cursor, bytes + sizeof bytes, "name");
//
// All operations are (ex, depth): with an error pending they do nothing and give 0. Unless told otherwise a failure
// leaves the cursor where it was. Code 12 (End of buffer) has one of two descriptions, "End of buffer" or "Buffer too
// small"; each operation names its own. A cursor and its bytes belong to one thread at a time.

#ifndef KORUTIL_KORBUF_H
#define KORUTIL_KORBUF_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

// ---- Fixed fields, little-endian ------------------------------------------------------------------------------------

/// Writes 4 bytes. Code 12 "End of buffer".
KOR_API void _korBuf_EncodeInt32(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, int32_t value);
/// Reads 4 bytes. Code 12 "End of buffer".
KOR_API void _korBuf_DecodeInt32(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, int32_t* value);
/// Writes 4 bytes. Code 12 "End of buffer".
KOR_API void _korBuf_EncodeUInt32(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, uint32_t value);
/// Reads 4 bytes. Code 12 "End of buffer".
KOR_API void _korBuf_DecodeUInt32(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, uint32_t* value);
/// Writes 8 bytes. Code 12 "Buffer too small".
KOR_API void _korBuf_EncodeInt64(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, int64_t value);
/// Reads 8 bytes. Code 12 "End of buffer".
KOR_API void _korBuf_DecodeInt64(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, int64_t* value);

// ---- Texts and runs of bytes ----------------------------------------------------------------------------------------

/// Writes a text with its NUL, which ends the field. The bytes are not checked. Code 12 "Buffer too small".
KOR_API void _korBuf_EncodeUTF8(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, const char* text);

/// Reads a text up to its NUL. With `duplicate` 0 `*text` points into the message; else it is a copy on the heap, which
/// the caller frees with _korUtil_Free. Code 12 "End of buffer" if no NUL lies before `end`; code 2 if there is no
/// memory for the copy: `*text` is then NULL and the cursor behind the field.
KOR_API void _korBuf_DecodeUTF8(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, char** text,
                                uint8_t duplicate);

/// Writes `length` as 4 bytes and then so many bytes of `data`. A negative length is written and has no bytes behind
/// it. Code 12 "End of buffer".
KOR_API void _korBuf_EncodeBytes(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, const void* data,
                                 int32_t length);

/// Reads a length of 4 bytes and then so many bytes. With `copy` 0 `*data` comes to point into the message; else the
/// bytes are copied to where `*data` points, and the caller answers for the room there. Code 12 "End of buffer": for
/// want of a length the cursor stays, for want of the bytes it stands behind the length and nothing is stored.
///
/// A message may hold a negative length: it passes and has no bytes, nothing is copied, and the cursor stands behind
/// the length. A reader tests `*length` before it uses it as a size.
KOR_API void _korBuf_DecodeBytes(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, void** data,
                                 int32_t* length, uint8_t copy);

/// Writes `length` bytes; the reader is told their number elsewhere. A negative length has no bytes. Code 12 "End of
/// buffer".
KOR_API void _korBuf_EncodeNBytes(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, const void* data,
                                  int32_t length);

/// Reads `length` bytes, as a pointer or a copy like _korBuf_DecodeBytes. A negative length has no bytes. Code 12 "End
/// of buffer".
KOR_API void _korBuf_DecodeNBytes(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, void** data,
                                  int32_t length, uint8_t copy);

// ---- Header integers: unsigned, below 2^63, 1 to 9 bytes ------------------------------------------------------------

// The leading ones of the first byte tell how many bytes follow; the rest of it and what follows are the value,
// big-endian. Behind a first byte ff stand 8 bytes, the first of them with its top bit clear.

/// Reads a header integer and gives its bytes, 0 on an error. A form longer than the value needs is accepted.
///
/// Code 12 "Buffer too small". Code 1 "ILLEGAL_VALUE" for nine bytes that hold 2^63 or more: `*value` is then 0.
KOR_API int32_t _korBuf_ReadHeaderIntImpl(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end,
                                          uint64_t* value);

/// Writes a header integer in its shortest form and gives its bytes, 0 on an error.
///
/// Code 1 "ILLEGAL_VALUE" for 2^63 or more, whatever the room; then code 12 "Buffer too small".
KOR_API int32_t _korBuf_WriteHeaderIntImpl(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end,
                                           uint64_t value);

/// The same in a form of at least `minimumWidth` bytes (over 9 counts as 9): a length field that is filled in later.
/// Needs room for 9 bytes whatever it writes, but changes no byte behind the field.
///
/// Code 12 "Buffer too small", then code 1 "ILLEGAL_VALUE".
KOR_API int32_t _korBuf_WriteHeaderIntExpanded(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end,
                                               uint64_t value, int32_t minimumWidth);

/// The bytes of the shortest form. Code 1 "ILLEGAL_VALUE" and 0 for 2^63 or more.
KOR_API int32_t _korBuf_HeaderIntWireSizeImpl(korEx* ex, uint8_t depth, uint64_t value);

/// _korBuf_ReadHeaderIntImpl with the form of one byte in line.
KOR_INLINE int32_t _korBuf_ReadHeaderInt(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end,
                                         uint64_t* value)
{
    if (KOR_LIKELY(ex->code == 0 && end - *cursor > 0 && **cursor < 0x80)) {
        *value = *(*cursor)++;
        return 1;
    }
    return _korBuf_ReadHeaderIntImpl(KOR_AT(ex, depth), cursor, end, value);
}

/// _korBuf_WriteHeaderIntImpl with the form of one byte in line.
KOR_INLINE int32_t _korBuf_WriteHeaderInt(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end,
                                          uint64_t value)
{
    if (KOR_LIKELY(ex->code == 0 && end - *cursor > 0 && value < 0x80)) {
        *(*cursor)++ = (uint8_t)value;
        return 1;
    }
    return _korBuf_WriteHeaderIntImpl(KOR_AT(ex, depth), cursor, end, value);
}

// ---- Variable integers: signed, 1 to 9 bytes ------------------------------------------------------------------------

// The trailing ones of the first byte, with the zero above them, are the mark of the form; the value stands above the
// mark in two's complement, the whole little-endian. Behind a first byte 7f stand 7 bytes, behind ff 8.

/// Reads a variable integer and gives the length of its form. `end` is the end of the field's data, `limit` of the
/// memory that may be read: with 8 bytes of it the reader loads a whole word.
///
/// Code 12 "Buffer too small" for a field that ends early. Callers test the exception and not the result: in the forms
/// of one to eight bytes `*value` and the cursor have changed by then, the cursor lies behind `end`, and the length is
/// given all the same; in the form of nine bytes the result is 0, `*value` is as it was and the cursor one byte in.
KOR_API int32_t _korBuf_ReadVarInt(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, const uint8_t* limit,
                                   int64_t* value);

/// Writes a variable integer and gives its bytes, 0 on an error. Needs room for 9 bytes whatever it writes, and leaves
/// those behind the field undefined. Forms are chosen by magnitude, so -64 takes two bytes as 64 does, though a reader
/// knows it in one. Code 12 "Buffer too small".
KOR_API int32_t _korBuf_WriteVarInt(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, int64_t value);

/// The bytes that _korBuf_WriteVarInt takes for `value`. Raises nothing.
KOR_API int32_t _korBuf_VarIntWireSize(korEx* ex, uint8_t depth, int64_t value);

// ---- Sparse bitmasks ------------------------------------------------------------------------------------------------

// An array of bytes that are mostly zero, sent as a tree: the number of levels, then depth first the nodes that are not
// zero. A bit of a node, the most significant first, says whether the byte below it is sent.

/// Writes the `count` bytes of an array that the reader knows the size of. Needs room for twice the count and 8 bytes
/// whatever it writes: the tree is built in the last bytes before `end`, and all bytes behind the field are undefined
/// afterwards. Code 12 "End of buffer"; code 1 "ILLEGAL_VALUE" for a negative count.
KOR_API void _korBuf_EncodeBitmask(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, const uint8_t* bytes,
                                   int32_t count);

/// Reads a bitmask into an array of `count` bytes. The array is zeroed first; what the field has beyond it is dropped,
/// and so all of it for a count below 1.
/// Code 12 "End of buffer", code 16 "Corrupt message header" for more than 11 levels: in both cases the cursor stands
/// behind the last byte read and the array is filled up to there.
KOR_API void _korBuf_DecodeBitmask(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, uint8_t* bytes,
                                   int32_t count);

KOR_END_DECLS

#endif
