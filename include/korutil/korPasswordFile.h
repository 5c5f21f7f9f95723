// korPasswordFile.h - a user name and password kept in a small text file.
//
// Two forms. The two-line file has the user on line 1 and the password on line 2, plain or behind the marker "_mng_" in
// mangled form: base64 of the password with every byte XORed with 0xA7, which is a mere disguise and no encryption. The
// one-value file has a plain password alone. Lines end at LF, NUL or the end of the file; CR is dropped wherever it
// stands. Errors of _korFile_Open come first.

#ifndef KORUTIL_KORPASSWORDFILE_H
#define KORUTIL_KORPASSWORDFILE_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// Reads the two-line form. `userSize` must exceed the longest user name: a longer one is cut without a terminator, and
/// its rest is taken for the password line. A password line counts up to 4096 bytes. A short file leaves empty texts.
/// Code 1 "Not enough room for base64 encoding." if a mangled password may not fit into `passwordSize` bytes; a plain
/// one is cut. Invalid base64 is not detected, and a marker with nothing behind it leaves the password as it was.
KOR_API void _korPasswordFile_GetUsernamePassword(korEx* ex, uint8_t depth, const char* path, char* user,
                                                  int32_t userSize, char* password, int32_t passwordSize);

/// Reads the one-value form and takes the white space off its two ends. Code 16: "password file PATH is too large
/// (limit SIZE bytes)" for a file of `size` bytes or more, "password mangling is not supported" if it begins with the
/// marker. Code 15 if a read fails, code 2. After these the buffer is zeroed; a file that cannot be opened leaves it.
KOR_API void _korPasswordFile_GetPassword(korEx* ex, uint8_t depth, const char* path, char* buffer, int32_t size);

KOR_END_DECLS

#endif
