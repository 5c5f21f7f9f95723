/* A journal of fixed-size entries in a file: written at offsets, read back, and what a failure says. */
#include <korutil/korFile.h>
#include <korutil/korLib.h>

#include <stdio.h>
#include <string.h>

#define ENTRY 32

static void writeEntry(korEx* ex, uint8_t depth, korFile* journal, int64_t number, const char* text)
{
    char entry[ENTRY] = {0};
    uint8_t fatal = 0;
    snprintf(entry, sizeof(entry), "%s", text);
    if (_korFile_Write(KOR_AT(ex, depth), journal, number * ENTRY, entry, ENTRY, &fatal) < 0) {
        printf("entry %d is lost, %s\n", (int)number, fatal != 0 ? "for good" : "but there may be room for it later");
    }
}

static void printEntries(korEx* ex, uint8_t depth, korFile* journal)
{
    char entry[ENTRY];
    for (int64_t number = 0; _korFile_Read(KOR_AT(ex, depth), journal, number * ENTRY, entry, ENTRY) == ENTRY;
         number++) {
        printf("%d: %s\n", (int)number, entry);
    }
}

int main(void)
{
    korEx* ex = korEx_Create();
    char path[400];
    char name[KOR_FILE_TEMP_NAME_SIZE];
    _korutil_Open(KOR_AT(ex, 0), KORUTIL_LEVEL);
    _korFile_MakeTempFileName(KOR_AT(ex, 0), name);
    _korFile_MkDir(KOR_AT(ex, 0), _korFile_GetTempKorDir(), 1);
    snprintf(path, sizeof(path), "%s", _korFile_GetTempKorDir());
    _korFile_AppendPath(KOR_AT(ex, 0), path, sizeof(path), name, 0);

    korFile* journal = _korFile_Open(KOR_AT(ex, 0), path, KOR_FILE_CREATE | KOR_FILE_MUST_BE_NEW | KOR_FILE_NO_SYNC);
    if (journal != NULL) {
        writeEntry(KOR_AT(ex, 0), journal, 0, "opened");
        writeEntry(KOR_AT(ex, 0), journal, 2, "closed");
        writeEntry(KOR_AT(ex, 0), journal, 1, "an order was taken");
        printEntries(KOR_AT(ex, 0), journal);
        _korFile_Close(KOR_AT_D(0, ex), journal);
        _korFile_DeletePath(KOR_AT(ex, 0), path);
    }
    if (korEx_GetErrorCode(ex) == 0) {
        _korFile_Open(KOR_AT(ex, 0), path, 0); /* it has gone */
        printf("%s %s\n", korEx_GetSummaryString(ex), ex->description);
    } else {
        korEx_Print(ex);
    }
    _korutil_Close(KOR_AT_D(0, ex));
    korEx_Destroy(ex);
    return 0;
}
