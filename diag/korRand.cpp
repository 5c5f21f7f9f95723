// korRand.cpp - random bytes through the hooks in force, and what is made from them.

#include "korutil/korRand.h"
#include "korutil/korEncoding.h"
#include "platform/error.h"
#include "platform/random.h"

#include <atomic>
#include <cstring>
#include <utility>

namespace kor {
namespace {

// ---- The built-in source ----

void raiseOs(korEx* ex, uint8_t depth, const char* text)
{
    ex->osError = platform::lastSystemError();
    KOR_RAISE(ex, depth, KOR_ERROR_OS, text);
}

void basicInit(korEx* ex, uint8_t depth)
{
    if (!platform::openRandom()) {
        raiseOs(KOR_AT(ex, depth), "No cryptographic context for entropy source.");
    }
}

void basicGet(korEx* ex, uint8_t depth, void* buffer, int32_t length)
{
    if (!platform::fillRandom(buffer, static_cast<uint32_t>(length))) {
        raiseOs(KOR_AT(ex, depth), "Random data not available.");
    }
}

// The system's generator keeps its own entropy; what is drawn over the data leaves no trace of it.
void basicPut(korEx* ex, uint8_t depth, void* data, int32_t length)
{
    basicGet(KOR_AT(ex, depth), data, length);
}

const korRandHooks basicHooks = {basicPut, basicGet};
const korRandHooks* currentHooks = &basicHooks;

const korRandHooks* hooks()
{
    return std::atomic_ref(currentHooks).load(std::memory_order_acquire);
}

void install(const korRandHooks* table)
{
    std::atomic_ref(currentHooks).store(table, std::memory_order_release);
}

// ---- What is made from random bytes ----

// 0 after a failure.
uint32_t randomNumber(korEx* ex, uint8_t depth)
{
    uint32_t number = 0;
    _korRand_GetRandomBytes(KOR_AT(ex, depth), &number, sizeof number);
    return ex->code == 0 ? number : 0;
}

void makeUUID(korEx* ex, uint8_t depth, uint8_t* uuid, uint8_t marked)
{
    memset(uuid, 0, KOR_UUID_SIZE);
    _korRand_GetRandomBytes(KOR_AT(ex, depth), uuid, KOR_UUID_SIZE);
    if (ex->code == 0) {
        _korRand_StampUUID(uuid, KOR_UUID_SIZE, marked);
    } else {
        memset(uuid, 0, KOR_UUID_SIZE);
    }
}

// The five groups of a UUID's text.
struct Group {
    int32_t byte;  // where it starts in the UUID
    int32_t count; // bytes
    int32_t place; // where it starts in the text
};

constexpr Group groups[] = {{0, 4, 0}, {4, 2, 9}, {6, 2, 14}, {8, 2, 19}, {10, 6, 24}};
constexpr int32_t uuidTextLength = KOR_UUID_TEXT_SIZE - 1;

} // namespace
} // namespace kor

using namespace kor;

void _korRand_Open(korEx* ex, uint8_t depth)
{
    if (ex->code == 0) {
        basicInit(KOR_AT(ex, depth));
        install(&basicHooks);
    }
}

int32_t _korRand_Close(uint8_t, korEx*)
{
    return platform::closeRandom() ? 1 : 0;
}

void _korRand_SetHooks(korEx*, uint8_t, const korRandHooks* table)
{
    install(table == nullptr ? &basicHooks : table);
}

const korRandHooks* _korRand_ResetHooks(korEx*, uint8_t)
{
    install(&basicHooks);
    return &basicHooks;
}

void _korRand_AddEntropy(korEx* ex, uint8_t depth, void* data, int32_t length)
{
    if (ex->code == 0 && length > 0) {
        hooks()->put(KOR_AT(ex, depth), data, length);
    }
}

void _korRand_GetRandomBytes(korEx* ex, uint8_t depth, void* buffer, int32_t length)
{
    if (ex->code == 0 && length > 0) {
        hooks()->get(KOR_AT(ex, depth), buffer, length);
    }
}

void _korRand_GetRandomName(korEx* ex, uint8_t depth, char* buffer, int32_t size)
{
    constexpr char characters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    if (ex->code != 0 || size < 1) {
        return;
    }
    _korRand_GetRandomBytes(KOR_AT(ex, depth), buffer, size - 1);
    int32_t length = ex->code == 0 ? size - 1 : 0;
    for (int32_t i = 0; i < length; i++) {
        // A byte is signed here whatever a plain char is, and widened with its sign.
        auto wide = static_cast<uint32_t>(static_cast<int32_t>(static_cast<int8_t>(buffer[i])));
        buffer[i] = characters[wide % 36];
    }
    buffer[length] = '\0';
}

void _korRand_GetRandomUUID(korEx* ex, uint8_t depth, uint8_t* uuid)
{
    if (ex->code == 0) {
        makeUUID(KOR_AT(ex, depth), uuid, 0);
    }
}

void _korRand_GetMarkedUUID(korEx* ex, uint8_t depth, uint8_t* uuid)
{
    if (ex->code == 0) {
        makeUUID(KOR_AT(ex, depth), uuid, 1);
    }
}

void _korRand_StampUUID(uint8_t* uuid, int32_t, uint8_t marked)
{
    uuid[6] = static_cast<uint8_t>((uuid[6] & 0x0f) | (marked != 0 ? 0x50 : 0x40));
    uuid[8] = static_cast<uint8_t>((uuid[8] & 0x3f) | 0x80);
}

uint8_t _korRand_IsMarkedUUID(const uint8_t* uuid, int32_t length)
{
    return uuid != nullptr && length >= KOR_UUID_SIZE && (uuid[6] & 0x10) != 0;
}

void _korRand_GetBinaryUUIDAsText(korEx* ex, uint8_t depth, const uint8_t* uuid, int32_t, char* text, int32_t)
{
    if (ex->code != 0) {
        return;
    }
    for (const Group& group : groups) {
        int32_t room = 2 * group.count + 1;
        _korutil_writeBinHex(KOR_AT(ex, depth), uuid + group.byte, group.count, text + group.place, room);
        text[group.place + 2 * group.count] = '-';
    }
    text[uuidTextLength] = '\0';
}

void _korRand_GetTextUUIDAsBinary(korEx* ex, uint8_t depth, uint8_t* uuid, int32_t size, const char* text,
                                  int32_t length)
{
    if (ex->code != 0) {
        return;
    }
    if (text == nullptr || length < uuidTextLength) {
        memset(uuid, 0, size > 0 ? static_cast<size_t>(size) : 0);
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "Invalid UUID");
        return;
    }
    for (const Group& group : groups) {
        _korutil_readBinHex(KOR_AT(ex, depth), uuid + group.byte, size - group.byte, text + group.place,
                            2 * group.count);
    }
}

double _korRand_Get01Interval(korEx* ex, uint8_t depth)
{
    if (ex->code != 0) {
        return -1.0;
    }
    uint32_t number = randomNumber(KOR_AT(ex, depth));
    return ex->code == 0 ? number / 4294967295.0 : -1.0;
}

void _korRand_ShuffleList(korEx* ex, uint8_t depth, uint64_t* values, int32_t count)
{
    if (ex->code != 0) {
        return;
    }
    for (int32_t i = count; i >= 2; i--) {
        uint32_t index = randomNumber(KOR_AT(ex, depth)) % static_cast<uint32_t>(i);
        std::swap(values[index], values[i - 1]);
    }
}
