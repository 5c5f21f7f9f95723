// korPasswordFile.cpp - password files. What held a password on the way is zeroed.

#include "korutil/korPasswordFile.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"
#include "korutil/korEncoding.h"
#include "korutil/korFile.h"
#include "korutil/korText.h"

#include <cstring>

namespace kor {
namespace {

constexpr char marker[] = "_mng_";
constexpr size_t markerLength = sizeof marker - 1;
constexpr uint8_t disguise = 0xA7;
constexpr int32_t longestLine = 4096;

// Zeroes memory that nobody reads afterwards, which a compiler would otherwise leave out.
void wipe(void* memory, size_t size)
{
    memset(memory, 0, size);
    __asm__ volatile("" : : "r"(memory) : "memory");
}

bool isMangled(const char* text)
{
    return strncmp(text, marker, markerLength) == 0;
}

// Reads up to the end of a line, or until the buffer is full: only a line that ended gets a terminator. `*offset` is
// where the next line begins. What fails ends the line.
int32_t readLine(korEx* ex, uint8_t depth, korFile* file, int64_t* offset, char* line, int32_t size)
{
    KOR_EX_PRIVATE(local, ex, depth);
    int32_t length = 0;
    while (length < size) {
        char byte = '\0';
        bool read = _korFile_Read(KOR_AT(&local, depth), file, *offset, &byte, 1) == 1;
        *offset += read ? 1 : 0;
        if (!read || byte == '\n' || byte == '\0') {
            line[length] = '\0';
            break;
        }
        if (byte != '\r') {
            line[length++] = byte;
        }
    }
    return length;
}

void unmangle(korEx* ex, uint8_t depth, const char* text, int32_t length, char* password, int32_t size)
{
    int32_t decoded = _korBase64_Decode(KOR_AT(ex, depth), password, size, text, length);
    for (int32_t i = 0; i < decoded; i++) {
        password[i] = static_cast<char>(static_cast<uint8_t>(password[i]) ^ disguise);
    }
    if (decoded > 0) {
        password[decoded] = '\0';
    }
}

// As much as fits.
int32_t readWhole(korEx* ex, uint8_t depth, korFile* file, char* buffer, int32_t size)
{
    int32_t length = 0;
    int32_t step = 1;
    while (step > 0 && length < size) {
        step = _korFile_Read(KOR_AT(ex, depth), file, length, buffer + length, size - length);
        length += step > 0 ? step : 0;
    }
    return length;
}

void trim(korEx* ex, uint8_t depth, char* text, int32_t size)
{
    char* copy = requestCopy(KOR_AT(ex, depth), text);
    if (copy != nullptr) {
        _kor_TrimWhitespace(text, static_cast<size_t>(size), copy, 0);
        wipe(copy, strlen(copy));
        _kor_free(KOR_AT_D(depth, ex), copy);
    }
}

void readPassword(korEx* ex, uint8_t depth, korFile* file, const char* path, char* buffer, int32_t size)
{
    int32_t length = readWhole(KOR_AT(ex, depth), file, buffer, size);
    if (ex->code != 0) {
        return;
    }
    if (size < 1 || length >= size) {
        KOR_RAISE_F(ex, depth, KOR_ERROR_INVALID_VALUE, "password file %s is too large (limit %d bytes)", path, size);
        return;
    }
    buffer[length] = '\0';
    trim(KOR_AT(ex, depth), buffer, size);
    if (ex->code == 0 && isMangled(buffer)) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_VALUE, "password mangling is not supported");
    }
}

} // namespace
} // namespace kor

using namespace kor;

void _korPasswordFile_GetUsernamePassword(korEx* ex, uint8_t depth, const char* path, char* user, int32_t userSize,
                                          char* password, int32_t passwordSize)
{
    korFile* file = _korFile_Open(KOR_AT(ex, depth), path, KOR_FILE_NO_SYNC);
    if (file == nullptr) {
        return;
    }
    char line[longestLine + 1];
    int64_t offset = 0;
    readLine(KOR_AT(ex, depth), file, &offset, user, userSize);
    int32_t length = readLine(KOR_AT(ex, depth), file, &offset, line, longestLine);
    line[length] = '\0';
    if (isMangled(line)) {
        unmangle(KOR_AT(ex, depth), line + markerLength, length - static_cast<int32_t>(markerLength), password,
                 passwordSize);
    } else if (passwordSize > 0) {
        _kor_StringCopy(password, static_cast<size_t>(passwordSize), line, static_cast<size_t>(length));
    }
    wipe(line, sizeof line);
    _korFile_Close(KOR_AT_D(depth, ex), file);
}

void _korPasswordFile_GetPassword(korEx* ex, uint8_t depth, const char* path, char* buffer, int32_t size)
{
    korFile* file = _korFile_Open(KOR_AT(ex, depth), path, KOR_FILE_NO_SYNC);
    if (file == nullptr) {
        return;
    }
    readPassword(KOR_AT(ex, depth), file, path, buffer, size);
    if (ex->code != 0 && size > 0) {
        wipe(buffer, static_cast<size_t>(size));
    }
    _korFile_Close(KOR_AT_D(depth, ex), file);
}
