/* A key on its way through texts: hexadecimal, Z85, base64 for URLs; and ids, of which some have the library's mark. */
#include <korutil/korEncoding.h>
#include <korutil/korLib.h>
#include <korutil/korRand.h>

#include <stdio.h>
#include <string.h>

static void printKey(korEx* ex, uint8_t depth, const uint8_t* key, int32_t length)
{
    char text[64];
    _korutil_writeBinHex(KOR_AT(ex, depth), key, length, text, sizeof(text));
    printf("hexadecimal %s\n", text);
    _korBase85_Encode(KOR_AT(ex, depth), key, length, text, sizeof(text));
    printf("Z85         %s\n", text);
    _korBase64Url_Encode(KOR_AT(ex, depth), key, length, text, sizeof(text));
    printf("base64url   %s\n", text);

    uint8_t decoded[32] = {0};
    int32_t bytes = _korBase64Url_Decode(KOR_AT(ex, depth), decoded, sizeof(decoded), text, (int32_t)strlen(text));
    printf("%s\n", bytes == length && memcmp(decoded, key, (size_t)length) == 0 ? "and back" : "lost");
}

static void printIds(korEx* ex, uint8_t depth)
{
    uint8_t plain[KOR_UUID_SIZE];
    uint8_t marked[KOR_UUID_SIZE];
    char text[KOR_UUID_TEXT_SIZE];
    _korRand_GetRandomUUID(KOR_AT(ex, depth), plain);
    _korRand_GetMarkedUUID(KOR_AT(ex, depth), marked);
    _korRand_GetBinaryUUIDAsText(KOR_AT(ex, depth), marked, KOR_UUID_SIZE, text, sizeof(text));
    if (korEx_GetErrorCode(ex) != 0) {
        return;
    }
    _korRand_GetTextUUIDAsBinary(KOR_AT(ex, depth), marked, KOR_UUID_SIZE, text, (int32_t)strlen(text));
    printf("an id of %zu characters, version %c, %s; the other one is %s\n", strlen(text), text[14],
           _korRand_IsMarkedUUID(marked, KOR_UUID_SIZE) ? "marked" : "not marked",
           _korRand_IsMarkedUUID(plain, KOR_UUID_SIZE) ? "marked" : "not marked");
}

int main(void)
{
    static const uint8_t key[] = {0x86, 0x4f, 0xd2, 0x6f, 0xb5, 0x59, 0xf7, 0x5b};
    korEx* ex = korEx_Create();
    _korutil_Open(KOR_AT(ex, 0), KORUTIL_LEVEL); /* the source of random numbers */
    printKey(KOR_AT(ex, 0), key, sizeof(key));
    printIds(KOR_AT(ex, 0));
    int failed = korEx_GetErrorCode(ex) != 0;
    if (failed) {
        korEx_Print(ex);
    }
    _korutil_Close(KOR_AT_D(0, ex));
    korEx_Destroy(ex);
    return failed;
}
