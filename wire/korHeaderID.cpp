// korHeaderID.cpp - identifiers of message headers.

#include "korutil/korHeaderID.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"
#include "korutil/korBuf.h"
#include "korutil/korRand.h"
#include "korutil/korText.h"

#include <cstring>

static_assert(sizeof(korHeaderID) == 24 && sizeof(korHeaderID::uuid) == KOR_UUID_SIZE);

namespace kor {
namespace {

bool hasUuidRoom(korEx* ex, uint8_t depth, const uint8_t* cursor, const uint8_t* end)
{
    bool fits = end - cursor >= KOR_UUID_SIZE;
    if (!fits) {
        KOR_RAISE(ex, depth, KOR_ERROR_END_OF_BUFFER, "Buffer too small");
    }
    return fits;
}

} // namespace
} // namespace kor

using namespace kor;

void _korBuf_ReadHeaderID(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, korHeaderID* record)
{
    _korBuf_ReadHeaderInt(KOR_AT(ex, depth), cursor, end, &record->id);
    if (ex->code == 0 && record->id == 0 && hasUuidRoom(KOR_AT(ex, depth), *cursor, end)) {
        memcpy(record->uuid, *cursor, KOR_UUID_SIZE);
        *cursor += KOR_UUID_SIZE;
    }
}

void _korBuf_WriteHeaderID(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, const korHeaderID* record)
{
    _korBuf_WriteHeaderInt(KOR_AT(ex, depth), cursor, end, record->id);
    if (ex->code == 0 && record->id == 0 && hasUuidRoom(KOR_AT(ex, depth), *cursor, end)) {
        memcpy(*cursor, record->uuid, KOR_UUID_SIZE);
        *cursor += KOR_UUID_SIZE;
    }
}

korHeaderID* _korHeaderID_CreateFromBuffer(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto* record = requestZeroed<korHeaderID>(KOR_AT(ex, depth));
    if (record == nullptr) {
        return nullptr;
    }
    _korBuf_ReadHeaderID(KOR_AT(ex, depth), cursor, end, record);
    if (ex->code != 0) {
        _kor_free(KOR_AT_D(depth, ex), record);
        return nullptr;
    }
    return record;
}

korHeaderID* _korHeaderID_Copy(korEx* ex, uint8_t depth, const korHeaderID* source)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto* record = requestZeroed<korHeaderID>(KOR_AT(ex, depth));
    if (record != nullptr) {
        *record = *source;
    }
    return record;
}

int32_t _korHeaderID_ToString(korEx* ex, uint8_t depth, const korHeaderID* record, char* text, int32_t size)
{
    constexpr int32_t uuidLength = KOR_HEADERID_TEXT_SIZE - 1;
    if (ex->code != 0) {
        return -1;
    }
    if (size < KOR_HEADERID_TEXT_SIZE) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "Buffer size must be greater HEADERID_TOSTRING_MAX_SIZE");
        return -1;
    }
    if (record->id != 0) {
        auto number = static_cast<long long>(record->id);
        return static_cast<int32_t>(_kor_snprintf(text, static_cast<size_t>(size), "%lld", number));
    }
    text[0] = '{';
    _korRand_GetBinaryUUIDAsText(KOR_AT(ex, depth), reinterpret_cast<const uint8_t*>(record->uuid), KOR_UUID_SIZE,
                                 text + 1, size - 1);
    text[uuidLength - 1] = '}';
    text[uuidLength] = '\0';
    return uuidLength;
}

void _korHeaderID_Destroy(uint8_t depth, korEx* ex, korHeaderID* record)
{
    if (record != nullptr) {
        _kor_free(KOR_AT_D(depth, ex), record);
    }
}
