// korEncoding.h - bytes as text and back: base64, base64 for URLs, Z85 and hexadecimal.
//
// Every operation works between two buffers of the caller, with their sizes given, and allocates nothing. If the output
// does not fit, code 1 is raised; an encoder then leaves an empty text behind. The decoders take no offence at
// characters outside their alphabet: such a character counts as a digit (0, except in Z85), so bad text decodes to
// something. A caller who must tell good text from bad encodes the result and compares. Any thread.

#ifndef KORUTIL_KORENCODING_H
#define KORUTIL_KORENCODING_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// Base64 of RFC 4648 with "=" padding. `size` must be at least 4 * `length` / 3 + 5, else code 1 "Not enough room for
/// base64 encoding." and 0. The text is terminated. Gives its length, 4 characters for each group of up to 3 bytes; 0
/// for a length below 1.
KOR_API int32_t _korBase64_Encode(korEx* ex, uint8_t depth, const void* bytes, int32_t length, char* text,
                                  int32_t size);

/// Decodes `length` characters of base64, of either alphabet, padded or not; what is missing from the last group counts
/// as padding. `size` must be at least 3 / 4 of the length, rounded up to whole groups, plus 3, else code 1 "Not enough
/// room for base64 encoding." and 0. Gives the bytes decoded. Whole groups of 3 bytes are written, so up to 2 bytes
/// behind the result change as well. Each "=", wherever it stands, takes one from the result.
KOR_API int32_t _korBase64_Decode(korEx* ex, uint8_t depth, void* bytes, int32_t size, const char* text,
                                  int32_t length);

/// Base64 with the URL alphabet of RFC 4648 and no padding. Room and error are those of _korBase64_Encode. The result
/// counts the padding that is not written, so that behind a last group of one or two bytes it is more than the text's
/// length: take strlen for that.
KOR_API int32_t _korBase64Url_Encode(korEx* ex, uint8_t depth, const void* bytes, int32_t length, char* text,
                                     int32_t size);

/// The same as _korBase64_Decode.
KOR_API int32_t _korBase64Url_Decode(korEx* ex, uint8_t depth, void* bytes, int32_t size, const char* text,
                                     int32_t length);

/// Z85 (ZeroMQ RFC 32): five characters for each four bytes, read big-endian. Meant for short keys: positions are
/// counted in 16 bits, so an output beyond 65535 characters wraps round to the start of the buffer. Gives the
/// characters written, without the terminator. Code 1: "Accepts byte arrays bounded to 4 bytes" unless `length` is a
/// multiple of 4, "Not enough room for base85 encoding." unless `size` is more than 5 / 4 of it.
KOR_API int32_t _korBase85_Encode(korEx* ex, uint8_t depth, const void* bytes, int32_t length, char* text,
                                  int32_t size);

/// Decodes the terminated `text`. Gives the bytes written, counted in 16 bits as in _korBase85_Encode. Code 1: "Accepts
/// strings bounded to 5 bytes" unless the text's own length is a multiple of 5, "Not enough room for base85 encoding."
/// if 4 / 5 of it, or of `length`, is more than `size`.
KOR_API int32_t _korBase85_Decode(korEx* ex, uint8_t depth, void* bytes, int32_t size, const char* text,
                                  int32_t length);

/// Hexadecimal in upper case, two characters a byte, terminated. Code 1 "binhex text buffer too small" unless `size` is
/// at least 2 * `length` + 1.
KOR_API void _korutil_writeBinHex(korEx* ex, uint8_t depth, const void* bytes, int32_t length, char* text,
                                  int32_t size);

/// Reads `length` hexadecimal characters of either case. Code 1: "binhex text not an even size" for an odd length,
/// "binhex binary buffer too small" if half of it is more than `size`.
KOR_API void _korutil_readBinHex(korEx* ex, uint8_t depth, void* bytes, int32_t size, const char* text, int32_t length);

KOR_END_DECLS

#endif
