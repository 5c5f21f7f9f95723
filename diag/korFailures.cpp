// korFailures.cpp - failure injection: a table of named points, loaded from JSON, and the test of whether one fires.
//
// The mutex guards the table while it is loaded and while a name is looked up. What a look-up has found is used without
// it: no failure is freed before the close, and one that a later entry has replaced is not freed at all.

#include "korutil/korFailures.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"
#include "korutil/korFile.h"
#include "korutil/korLogger.h"
#include "korutil/korMutex.h"
#include "korutil/korRand.h"
#include "korutil/korStrHash.h"
#include "korutil/korText.h"
#include "korutil/korThread.h"
#include "korutil/korTime.h"
#include "korutil/kor_cJSON.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

uint8_t fmInitialized;

namespace kor {
namespace {

constexpr uint8_t component = 50;
constexpr uint32_t textSize = 4096;

struct korFailureProperties {
    uint64_t reserved;
    char* name;
    char* onOffFile;
    uint64_t interval;
    uint64_t offset;
    int64_t numOfFailures;
    int64_t delay;
    double chance;
    uint8_t skip;
    uint8_t abort;
};

struct korFailure {
    korFailureProperties* properties;
    uint64_t checkCount;   // atomic
    uint64_t triggerCount; // atomic, but not counted up in one step: a limit may be passed by one or two
    korFailure* retired;   // the one that was replaced before this one, once this one has been replaced
};

struct FailureTable {
    korStrHash* failures;
    korLogSource source;
};

korThreadOnce once;
korMutex mutex;
FailureTable* table;         // atomic: read by each check before anything else
korFailure* retiredFailures; // what has been replaced: checks may still use it, so it is never freed
uint8_t closed;              // a close is the end, and nothing runs beside it

FailureTable* currentTable()
{
    return std::atomic_ref(table).load(std::memory_order_acquire);
}

#define KOR_LOG_FAILURES(level, ...)                                                                               \
    (korLogger_isLoggable(component, (level))                                                                      \
         ? _korLogger_LogExN_v3(component, table->source.name, table->source.label, (level), NULL, 0, __VA_ARGS__) \
         : (void)0)

void _korFailures_Once()
{
    KOR_EX_LOCAL(ex);
    _korMutex_Init(KOR_AT(&ex, 0), &mutex);
}

// ---- Failures -------------------------------------------------------------------------------------------------------

void _korFailure_Destroy(uint8_t depth, korEx* ex, korFailure* failure)
{
    if (failure == nullptr) {
        return;
    }
    if (failure->properties != nullptr) {
        _kor_free(KOR_AT_D(depth, ex), failure->properties->name);
        _kor_free(KOR_AT_D(depth, ex), failure->properties->onOffFile);
        _kor_free(KOR_AT_D(depth, ex), failure->properties);
    }
    _kor_free(KOR_AT_D(depth, ex), failure);
}

korFailure* _korFailure_Create(korEx* ex, uint8_t depth)
{
    auto* failure = requestZeroed<korFailure>(KOR_AT(ex, depth));
    if (failure == nullptr) {
        return nullptr;
    }
    failure->properties = requestZeroed<korFailureProperties>(KOR_AT(ex, depth));
    if (failure->properties == nullptr) {
        _korFailure_Destroy(KOR_AT_D(depth, ex), failure);
        return nullptr;
    }
    return failure;
}

// ---- Configuration --------------------------------------------------------------------------------------------------

int32_t typeOf(const kor_cJSON* item)
{
    return item->type & 0xFF;
}

void storeText(korEx* ex, uint8_t depth, char** place, const char* text)
{
    char* copy = requestCopy(KOR_AT(ex, depth), text);
    _kor_free(KOR_AT_D(depth, ex), *place);
    *place = copy;
}

bool storeString(korEx* ex, uint8_t depth, korFailureProperties* properties, const kor_cJSON* member)
{
    char** place = strcmp(member->string, "name") == 0       ? &properties->name
                   : strcmp(member->string, "onoffile") == 0 ? &properties->onOffFile
                                                             : nullptr;
    if (place == nullptr || typeOf(member) != KOR_CJSON_STRING) {
        return false;
    }
    storeText(KOR_AT(ex, depth), place, member->valuestring);
    return true;
}

bool storeNumber(korFailureProperties* properties, const kor_cJSON* member)
{
    const char* key = member->string;
    if (typeOf(member) != KOR_CJSON_NUMBER) {
        return false;
    }
    if (strcmp(key, "interval") == 0) {
        properties->interval = static_cast<uint64_t>(member->valuelong);
    } else if (strcmp(key, "offset") == 0) {
        properties->offset = static_cast<uint64_t>(member->valuelong);
    } else if (strcmp(key, "num_of_failures") == 0) {
        properties->numOfFailures = member->valuelong;
    } else if (strcmp(key, "delay") == 0) {
        properties->delay = member->valuelong;
    } else if (strcmp(key, "chance") == 0) {
        properties->chance = member->valuedouble;
    } else {
        return false;
    }
    return true;
}

// A flag of any type but a boolean is off.
bool storeFlag(korFailureProperties* properties, const kor_cJSON* member)
{
    uint8_t value = typeOf(member) == KOR_CJSON_TRUE;
    if (strcmp(member->string, "skip") == 0) {
        properties->skip = value;
    } else if (strcmp(member->string, "abort") == 0) {
        properties->abort = value;
    } else {
        return strcmp(member->string, "enable") == 0;
    }
    return true;
}

// A chance and an "enable" decide on their entry where they stand, before what follows them is looked at.
bool discards(const kor_cJSON* member)
{
    if (strcmp(member->string, "enable") == 0) {
        return typeOf(member) == KOR_CJSON_FALSE;
    }
    bool chance = strcmp(member->string, "chance") == 0 && typeOf(member) == KOR_CJSON_NUMBER;
    return chance && !(member->valuedouble > 0 && member->valuedouble <= 1.0);
}

void reportUnknown(const korFailureProperties* properties, const char* key)
{
    if (properties->name != nullptr) {
        KOR_LOG_FAILURES(KOR_LOG_WARN, "Unknown failure property '%s' in failure '%s'.", key, properties->name);
    } else {
        KOR_LOG_FAILURES(KOR_LOG_WARN, "Unknown failure property '%s'.", key);
    }
}

// False if the entry is discarded. A failed copy ends it too.
bool readMembers(korEx* ex, uint8_t depth, korFailureProperties* properties, const kor_cJSON* entry)
{
    for (const kor_cJSON* member = entry->child; member != nullptr; member = member->next) {
        if (discards(member)) {
            return false;
        }
        if (!storeString(KOR_AT(ex, depth), properties, member) && !storeNumber(properties, member) &&
            !storeFlag(properties, member)) {
            reportUnknown(properties, member->string);
        }
        if (ex->code != 0) {
            return false;
        }
    }
    return true;
}

void retire(korFailure* failure)
{
    failure->retired = retiredFailures;
    retiredFailures = failure;
}

void enterFailure(korEx* ex, uint8_t depth, korFailure* failure)
{
    const char* name = failure->properties->name;
    uint64_t old = _korStrHash_Set(KOR_AT(ex, depth), table->failures, name, 1, reinterpret_cast<uint64_t>(failure));
    if (ex->code != 0) {
        _korFailure_Destroy(KOR_AT_D(depth, ex), failure);
        return;
    }
    if (old != 0) {
        retire(reinterpret_cast<korFailure*>(old));
        KOR_LOG_FAILURES(KOR_LOG_WARN, "Failure '%s' replaced by more recent one", name);
    }
    KOR_LOG_FAILURES(KOR_LOG_INFO, "Failure '%s' loaded.", name);
}

void loadEntry(korEx* ex, uint8_t depth, const kor_cJSON* entry)
{
    korFailure* failure = _korFailure_Create(KOR_AT(ex, depth));
    if (failure == nullptr) {
        return;
    }
    if (!readMembers(KOR_AT(ex, depth), failure->properties, entry)) {
        _korFailure_Destroy(KOR_AT_D(depth, ex), failure);
    } else if (failure->properties->name == nullptr) {
        KOR_LOG_FAILURES(KOR_LOG_WARN, "Failure without a name refused.");
        _korFailure_Destroy(KOR_AT_D(depth, ex), failure);
    } else {
        enterFailure(KOR_AT(ex, depth), failure);
    }
}

bool isFailures(const kor_cJSON* member)
{
    constexpr char key[] = "failures";
    if (member == nullptr || typeOf(member) != KOR_CJSON_ARRAY || strlen(member->string) != sizeof key - 1) {
        return false;
    }
    for (size_t i = 0; i < sizeof key - 1; i++) {
        if ((member->string[i] | 0x20) != key[i]) { // the key's letters are all of those that a bit lowers
            return false;
        }
    }
    return true;
}

void _korFailures_ConfigureWithBuffer(korEx* ex, uint8_t depth, const char* text)
{
    kor_cJSON* root = _kor_cJSON_Parse(text);
    if (root == nullptr || typeOf(root) != KOR_CJSON_OBJECT) {
        _kor_cJSON_Delete(root);
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "Invalid json string");
        return;
    }
    const kor_cJSON* entry = isFailures(root->child) ? root->child->child : nullptr;
    for (; entry != nullptr; entry = entry->next) {
        if (entry->child != nullptr && typeOf(entry) == KOR_CJSON_OBJECT) {
            loadEntry(KOR_AT(ex, depth), entry);
        }
    }
    _kor_cJSON_Delete(root);
}

// The file's text, empty if it does not fit with its terminator.
void readFile(korEx* ex, uint8_t depth, const char* path, char* buffer)
{
    korFile* file = _korFile_Open(KOR_AT(ex, depth), path, KOR_FILE_NO_SYNC);
    if (ex->code != 0) {
        KOR_LOG_FAILURES(KOR_LOG_WARN, "failures %s cannot be opened.", path);
        return;
    }
    int32_t length = _korFile_Read(KOR_AT(ex, depth), file, 0, buffer, textSize);
    _korFile_Close(KOR_AT_D(depth, ex), file);
    buffer[length > 0 && length < static_cast<int32_t>(textSize) ? length : 0] = '\0';
}

void _korFailures_Configure(korEx* ex, uint8_t depth, const char* text)
{
    constexpr char inLine[] = "buf:";
    constexpr size_t prefix = sizeof inLine - 1;
    char buffer[textSize];
    size_t length = strlen(text);
    if (length >= textSize) {
        KOR_LOG_FAILURES(KOR_LOG_WARN, "failures %s exceeds buffer.", text);
        return;
    }
    if (strncmp(text, inLine, prefix) == 0) {
        memcpy(buffer, text + prefix, length - prefix + 1);
    } else {
        readFile(KOR_AT(ex, depth), text, buffer);
    }
    if (ex->code == 0) {
        _korFailures_ConfigureWithBuffer(KOR_AT(ex, depth), buffer);
    }
}

// The table is seen by checks only once it has its hash.
bool makeTable(korEx* ex, uint8_t depth)
{
    if (table != nullptr) {
        return true;
    }
    auto* made = requestZeroed<FailureTable>(KOR_AT(ex, depth));
    if (made == nullptr) {
        return false;
    }
    made->failures = _korStrHash_Create(KOR_AT(ex, depth), 16);
    if (made->failures == nullptr) {
        _kor_free(KOR_AT_D(depth, ex), made);
        return false;
    }
    _korLogger_InitializeLogSource(&made->source, component, "%s", "");
    std::atomic_ref(table).store(made, std::memory_order_release);
    return true;
}

// ---- Checks ---------------------------------------------------------------------------------------------------------

korFailure* find(korEx* ex, uint8_t depth, const FailureTable* from, const char* name)
{
    korMutex_enter(&mutex);
    uint64_t found = _korStrHash_Get(KOR_AT(ex, depth), from->failures, name);
    korMutex_leave(&mutex);
    return reinterpret_cast<korFailure*>(found);
}

bool fileIsThere(korEx* ex, uint8_t depth, const korFailureProperties* properties)
{
    if (properties->onOffFile == nullptr || !_korFile_Exists(KOR_AT(ex, depth), properties->onOffFile)) {
        return false;
    }
    KOR_LOG_FAILURES(60, "trigger due to file: %s", properties->onOffFile);
    return true;
}

// Whether the check of this number is one to fire on. A chance is that of not firing.
bool isDue(korEx* ex, uint8_t depth, const korFailureProperties* properties, uint64_t number)
{
    if (properties->offset - 1 < number) { // an offset of 0 wraps to what no number is above
        return true;
    }
    if (properties->interval != 0 && number % properties->interval == 0) {
        return true;
    }
    return properties->chance != 0 && !(_korRand_Get01Interval(KOR_AT(ex, depth)) < properties->chance);
}

bool counts(korEx* ex, uint8_t depth, korFailure* failure)
{
    const korFailureProperties* properties = failure->properties;
    if (properties->numOfFailures < 1) {
        return false;
    }
    uint64_t number = std::atomic_ref(failure->checkCount).fetch_add(1) + 1;
    if (!isDue(KOR_AT(ex, depth), properties, number)) {
        return false;
    }
    std::atomic_ref triggers(failure->triggerCount);
    uint64_t before = triggers.load(std::memory_order_relaxed);
    triggers.store(before + 1, std::memory_order_relaxed);
    return before < static_cast<uint64_t>(properties->numOfFailures);
}

bool fire(const korFailureProperties* properties)
{
    if (properties->delay != 0) {
        KOR_LOG_FAILURES(70, "Failmark: '%s' delay of %lld milliseconds", properties->name,
                         static_cast<long long>(properties->delay));
        _kor_Sleep(properties->delay);
    }
    if (properties->skip) {
        KOR_LOG_FAILURES(70, "Failmark: '%s' skip.", properties->name);
        return true;
    }
    if (properties->abort) {
        KOR_LOG_FAILURES(KOR_LOG_WARN, "Failmark: '%s' abort.", properties->name);
        exit(1);
    }
    return false;
}

} // namespace
} // namespace kor

using namespace kor;

void _korFailures_Open(korEx* ex, uint8_t depth, const char* text)
{
    if (ex->code != 0) {
        return;
    }
    if (text == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return;
    }
    if (closed) { // the mutex has gone, and the once-control does not make another
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, nullptr);
        return;
    }
    _korThread_Once(KOR_AT(ex, depth), &once, _korFailures_Once);
    korMutex_enter(&mutex);
    if (makeTable(KOR_AT(ex, depth))) {
        KOR_LOG_FAILURES(KOR_LOG_DEBUG, "Parsing failures %s.", text);
        _korFailures_Configure(KOR_AT(ex, depth), text);
        KOR_LOG_FAILURES(KOR_LOG_DEBUG, "failures %s Initialized.", text);
        KOR_ATOMIC_STORE_RELEASE(&fmInitialized, 1);
    }
    korMutex_leave(&mutex);
}

void _korFailures_Close(uint8_t depth, korEx* ex)
{
    FailureTable* closing = currentTable();
    if (closing == nullptr) {
        return;
    }
    KOR_LOG_FAILURES(KOR_LOG_DEBUG, "Closing failures");
    _korMutex_Clear(KOR_AT(ex, depth), &mutex);
    korStrHashIterator walk;
    uint64_t failure;
    _korStrHash_IteratorInit(closing->failures, &walk);
    while (_korStrHash_Next(&walk, nullptr, &failure)) {
        _korFailure_Destroy(KOR_AT_D(depth, ex), reinterpret_cast<korFailure*>(failure));
    }
    closed = 1;
    std::atomic_ref(table).store(nullptr);
    _korStrHash_Destroy(KOR_AT_D(depth, ex), closing->failures);
    _kor_free(KOR_AT_D(depth, ex), closing);
    KOR_ATOMIC_STORE(&fmInitialized, 0);
}

bool _korFailures_Check(korEx* ex, uint8_t depth, const char* name)
{
    const FailureTable* from = currentTable();
    if (ex->code != 0 || from == nullptr) {
        return false;
    }
    korFailure* failure = find(KOR_AT(ex, depth), from, name);
    if (failure == nullptr) {
        return false;
    }
    bool due = fileIsThere(KOR_AT(ex, depth), failure->properties) || counts(KOR_AT(ex, depth), failure);
    return due && fire(failure->properties);
}
