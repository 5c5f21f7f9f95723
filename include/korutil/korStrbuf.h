// korStrbuf.h - a string builder: gathers pieces and joins them once, when the whole is asked for.
//
// A builder is for one thread at a time. Code 2 if memory is short; a NULL builder or text is code 1 without
// description.

#ifndef KORUTIL_KORSTRBUF_H
#define KORUTIL_KORSTRBUF_H

#include "korutil/korDpa.h"

KOR_BEGIN_DECLS

/// The builder.
typedef struct korStrbuf {
    uint64_t totalLength; ///< bytes of all pieces appended since creation, those before a reset included
    korDpa pieces;        ///< copies of the pieces
    char* text;           ///< what was joined last, or NULL
    uint8_t dirty;        ///< 1 = something was appended since
} korStrbuf;

/// Makes a builder, freed with _korStrbuf_Destroy. NULL after a failure.
KOR_API korStrbuf* _korStrbuf_Create(korEx* ex, uint8_t depth);

/// Appends a copy of `text`.
KOR_API void _korStrbuf_Append(korEx* ex, uint8_t depth, korStrbuf* builder, const char* text);

/// The whole text, which stays the builder's. It is valid until the next append is finalized, a reset or the end; with
/// nothing appended since, the same text is given again without work. NULL after a failure.
KOR_API const char* _korStrbuf_Finalize(korEx* ex, uint8_t depth, korStrbuf* builder);

/// Drops all pieces and the text.
KOR_API void _korStrbuf_Reset(korEx* ex, uint8_t depth, korStrbuf* builder);

/// Frees a builder and its text. NULL is accepted. Works with an error pending.
KOR_API void _korStrbuf_Destroy(uint8_t depth, korEx* ex, korStrbuf* builder);

KOR_END_DECLS

#endif
