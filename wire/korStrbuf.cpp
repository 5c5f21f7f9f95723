// korStrbuf.cpp - the string builder over an array of copies.

#include "korutil/korStrbuf.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"
#include "korutil/korText.h"

#include <cstring>

namespace kor {
namespace {

char* pieceAt(const korStrbuf* builder, int32_t index)
{
    return reinterpret_cast<char*>(builder->pieces.items[index]);
}

bool refuseNull(korEx* ex, uint8_t depth, const void* pointer)
{
    if (ex->code == 0 && pointer == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
    }
    return ex->code != 0;
}

// The total stays: the next join has more room than it needs.
void clear_strings(uint8_t depth, korEx* ex, korStrbuf* builder)
{
    for (int32_t i = 0; i < builder->pieces.count; i++) {
        _kor_free(KOR_AT_D(depth, ex), pieceAt(builder, i));
    }
    builder->pieces.count = 0;
    _kor_free(KOR_AT_D(depth, ex), builder->text);
    builder->text = nullptr;
    builder->dirty = 0;
}

void join(korStrbuf* builder)
{
    char* end = builder->text;
    size_t room = builder->totalLength + 1;
    for (int32_t i = 0; i < builder->pieces.count; i++) {
        size_t length = strlen(pieceAt(builder, i));
        _kor_StringCat(end, room, pieceAt(builder, i), length); // at the end, so that what stands is not measured again
        end += length;
        room -= length;
    }
}

} // namespace
} // namespace kor

using namespace kor;

korStrbuf* _korStrbuf_Create(korEx* ex, uint8_t depth)
{
    constexpr int32_t firstPieces = 64;
    if (ex->code != 0) {
        return nullptr;
    }
    auto* builder = requestZeroed<korStrbuf>(KOR_AT(ex, depth));
    if (builder == nullptr) {
        return nullptr;
    }
    _korDpa_PerformInit(KOR_AT(ex, depth), &builder->pieces, firstPieces, nullptr);
    if (ex->code != 0) {
        _korStrbuf_Destroy(KOR_AT_D(depth, ex), builder);
        return nullptr;
    }
    return builder;
}

void _korStrbuf_Append(korEx* ex, uint8_t depth, korStrbuf* builder, const char* text)
{
    if (refuseNull(KOR_AT(ex, depth), builder) || refuseNull(KOR_AT(ex, depth), text)) {
        return;
    }
    char* copy = requestCopy(KOR_AT(ex, depth), text);
    if (copy == nullptr) {
        return;
    }
    _korDpa_AddSafe(KOR_AT(ex, depth), &builder->pieces, reinterpret_cast<uint64_t>(copy));
    if (ex->code != 0) {
        _kor_free(KOR_AT_D(depth, ex), copy);
        return;
    }
    builder->totalLength += strlen(copy);
    builder->dirty = 1;
}

const char* _korStrbuf_Finalize(korEx* ex, uint8_t depth, korStrbuf* builder)
{
    if (refuseNull(KOR_AT(ex, depth), builder)) {
        return nullptr;
    }
    if (builder->dirty == 0 && builder->text != nullptr) {
        return builder->text;
    }
    _kor_free(KOR_AT_D(depth, ex), builder->text);
    builder->text = requestZeroed<char>(KOR_AT(ex, depth), builder->totalLength + 1);
    if (builder->text != nullptr) {
        join(builder);
        builder->dirty = 0;
    }
    return builder->text;
}

void _korStrbuf_Reset(korEx* ex, uint8_t depth, korStrbuf* builder)
{
    if (!refuseNull(KOR_AT(ex, depth), builder)) {
        clear_strings(KOR_AT_D(depth, ex), builder);
    }
}

void _korStrbuf_Destroy(uint8_t depth, korEx* ex, korStrbuf* builder)
{
    if (builder != nullptr) {
        clear_strings(KOR_AT_D(depth, ex), builder);
        _korDpa_Clear(KOR_AT_D(depth, ex), &builder->pieces);
        _kor_free(KOR_AT_D(depth, ex), builder);
    }
}
