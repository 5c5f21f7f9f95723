// kor_cJSON.cpp - the tree of JSON items: memory, building, walking, changing.
//
// The first item of a list knows the last one by `prev`. Lists are cJSON's to walk and edit.

#include "korutil/kor_cJSON.h"
#include "korutil/korText.h"
#include "wire/jsonText.h"

#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace kor {
namespace {

kor_cJSON_Hooks hooks = {malloc, free}; // set before use, then only read

cJSON* asList(kor_cJSON* item)
{
    return reinterpret_cast<cJSON*>(item);
}

const cJSON* asList(const kor_cJSON* item)
{
    return reinterpret_cast<const cJSON*>(item);
}

kor_cJSON* asItem(cJSON* item)
{
    return reinterpret_cast<kor_cJSON*>(item);
}

char* copyText(const char* text)
{
    size_t size = strlen(text) + 1;
    void* copy = jsonAlloc(size);
    return copy == nullptr ? nullptr : static_cast<char*>(memcpy(copy, text, size));
}

void freeItem(kor_cJSON* item)
{
    if (!(item->type & KOR_CJSON_IS_REFERENCE) && item->valuestring != nullptr) {
        hooks.free_fn(item->valuestring);
    }
    if (!(item->type & KOR_CJSON_STRING_IS_CONST) && item->string != nullptr) {
        hooks.free_fn(item->string);
    }
    hooks.free_fn(item);
}

char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
}

bool sameKey(const char* a, const char* b)
{
    while (lower(*a) == lower(*b)) {
        if (*a == '\0') {
            return true;
        }
        a++;
        b++;
    }
    return false;
}

// ---- Keys ----

void setKey(kor_cJSON* item, char* key, int32_t constFlag)
{
    if (!(item->type & KOR_CJSON_STRING_IS_CONST) && item->string != nullptr) {
        hooks.free_fn(item->string);
    }
    item->string = key;
    item->type = (item->type & ~KOR_CJSON_STRING_IS_CONST) | constFlag;
}

bool copyKey(kor_cJSON* item, const char* key)
{
    char* copy = copyText(key);
    if (copy != nullptr) {
        setKey(item, copy, 0);
    }
    return copy != nullptr;
}

// ---- Copies ----

kor_cJSON* makeReference(const kor_cJSON* item)
{
    kor_cJSON* reference = item == nullptr ? nullptr : jsonItem(0);
    if (reference != nullptr) {
        *reference = *item;
        reference->next = nullptr;
        reference->prev = nullptr;
        reference->string = nullptr;
        reference->type = (item->type & ~KOR_CJSON_STRING_IS_CONST) | KOR_CJSON_IS_REFERENCE;
    }
    return reference;
}

bool addOrDelete(kor_cJSON* list, kor_cJSON* item)
{
    bool added = _kor_cJSON_AddItemToArray(list, item);
    if (!added) {
        _kor_cJSON_Delete(item);
    }
    return added;
}

// Key and text of `source`; a key that is not owned is shared.
bool copyTexts(kor_cJSON* copy, const kor_cJSON* source)
{
    if (source->valuestring != nullptr && (copy->valuestring = copyText(source->valuestring)) == nullptr) {
        return false;
    }
    if (source->string == nullptr) {
        return true;
    }
    if (source->type & KOR_CJSON_STRING_IS_CONST) {
        setKey(copy, source->string, KOR_CJSON_STRING_IS_CONST);
        return true;
    }
    return copyKey(copy, source->string);
}

kor_cJSON* duplicate(const kor_cJSON* item, bool recurse, int32_t depth)
{
    kor_cJSON* copy = depth > jsonMaxDepth ? nullptr : jsonItem(jsonType(item));
    if (copy == nullptr) {
        return nullptr;
    }
    jsonSetNumber(copy, item->valuedouble, item->valuelong);
    copy->valueint = item->valueint;
    bool whole = copyTexts(copy, item);
    const kor_cJSON* child = recurse ? item->child : nullptr;
    for (; whole && child != nullptr; child = child->next) {
        whole = addOrDelete(copy, duplicate(child, true, depth + 1));
    }
    if (!whole) {
        _kor_cJSON_Delete(copy);
        return nullptr;
    }
    return copy;
}

template <class Value>
kor_cJSON* createList(const Value* values, int32_t count, kor_cJSON* (*create)(Value))
{
    kor_cJSON* array = values == nullptr || count < 0 ? nullptr : jsonItem(KOR_CJSON_ARRAY);
    for (int32_t i = 0; array != nullptr && i < count; i++) {
        if (!addOrDelete(array, create(values[i]))) {
            _kor_cJSON_Delete(array);
            array = nullptr;
        }
    }
    return array;
}

// Not cJSON's: its 1.7.15, as Debian 12 has it, refuses to insert anywhere but at the two ends.
void insertBefore(kor_cJSON* list, kor_cJSON* behind, kor_cJSON* item)
{
    item->next = behind;
    item->prev = behind->prev;
    behind->prev = item;
    if (list->child == behind) {
        list->child = item;
    } else {
        item->prev->next = item;
    }
}

// The new item goes in before the old one leaves, so that the list is whole at each step.
void replace(kor_cJSON* list, kor_cJSON* old, kor_cJSON* item)
{
    if (old != item) {
        insertBefore(list, old, item);
        _kor_cJSON_Delete(asItem(cJSON_DetachItemViaPointer(asList(list), asList(old))));
    }
}

} // namespace

// ---- Shared with the reader and the printer -------------------------------------------------------------------------

void* jsonAlloc(size_t size)
{
    return hooks.malloc_fn(size);
}

// The C library may grow a large block without a copy; a pair of hooks has no such call.
void* jsonGrow(void* block, size_t used, size_t size)
{
    if (hooks.malloc_fn == malloc && hooks.free_fn == free) {
        return realloc(block, size);
    }
    void* grown = jsonAlloc(size);
    if (grown != nullptr) {
        memcpy(grown, block, used);
        hooks.free_fn(block);
    }
    return grown;
}

kor_cJSON* jsonItem(int32_t type)
{
    auto* item = static_cast<kor_cJSON*>(jsonAlloc(sizeof(kor_cJSON)));
    if (item != nullptr) {
        memset(item, 0, sizeof *item);
        item->type = type;
    }
    return item;
}

void jsonSetNumber(kor_cJSON* item, double value, int64_t whole)
{
    item->valuedouble = value;
    item->valuelong = whole;
    item->valueint = static_cast<int32_t>(whole);
}

int64_t jsonTruncate(double value)
{
    constexpr double limit = 9223372036854775808.0;
    if (std::isnan(value)) {
        return 0;
    }
    if (value >= limit) {
        return INT64_MAX;
    }
    return value < -limit ? INT64_MIN : static_cast<int64_t>(value);
}

} // namespace kor

using namespace kor;

// ---- Memory ---------------------------------------------------------------------------------------------------------

void _kor_cJSON_InitHooks(const kor_cJSON_Hooks* pair)
{
    hooks.malloc_fn = pair != nullptr && pair->malloc_fn != nullptr ? pair->malloc_fn : malloc;
    hooks.free_fn = pair != nullptr && pair->free_fn != nullptr ? pair->free_fn : free;
}

void _kor_cJSON_Free(void* pointer)
{
    hooks.free_fn(pointer);
}

// Children step into the line before what follows their parent, so that no depth of a tree is a depth of calls.
void _kor_cJSON_Delete(kor_cJSON* item)
{
    while (item != nullptr) {
        kor_cJSON* next = item->next;
        if (!(item->type & KOR_CJSON_IS_REFERENCE) && item->child != nullptr) {
            item->child->prev->next = next;
            next = item->child;
        }
        freeItem(item);
        item = next;
    }
}

// ---- Walking --------------------------------------------------------------------------------------------------------

int32_t _kor_cJSON_GetArraySize(const kor_cJSON* array)
{
    return cJSON_GetArraySize(asList(array));
}

kor_cJSON* _kor_cJSON_GetArrayItem(const kor_cJSON* array, int32_t index)
{
    return asItem(cJSON_GetArrayItem(asList(array), index));
}

kor_cJSON* _kor_cJSON_GetObjectItem(const kor_cJSON* object, const char* key)
{
    if (object == nullptr || key == nullptr) {
        return nullptr;
    }
    kor_cJSON* item = object->child;
    while (item != nullptr && (item->string == nullptr || !sameKey(item->string, key))) {
        item = item->next;
    }
    return item;
}

// ---- Building -------------------------------------------------------------------------------------------------------

kor_cJSON* _kor_cJSON_CreateNull(void)
{
    return jsonItem(KOR_CJSON_NULL);
}

kor_cJSON* _kor_cJSON_CreateTrue(void)
{
    return jsonItem(KOR_CJSON_TRUE);
}

kor_cJSON* _kor_cJSON_CreateFalse(void)
{
    return jsonItem(KOR_CJSON_FALSE);
}

kor_cJSON* _kor_cJSON_CreateBool(int32_t value)
{
    return jsonItem(value != 0 ? KOR_CJSON_TRUE : KOR_CJSON_FALSE);
}

kor_cJSON* _kor_cJSON_CreateNumber(double value)
{
    kor_cJSON* item = jsonItem(KOR_CJSON_NUMBER);
    if (item != nullptr) {
        jsonSetNumber(item, value, jsonTruncate(value));
    }
    return item;
}

kor_cJSON* _kor_cJSON_CreateLong(int64_t value)
{
    kor_cJSON* item = jsonItem(KOR_CJSON_NUMBER);
    if (item != nullptr) {
        jsonSetNumber(item, static_cast<double>(value), value);
    }
    return item;
}

kor_cJSON* _kor_cJSON_CreateString(const char* text)
{
    kor_cJSON* item = text == nullptr ? nullptr : jsonItem(KOR_CJSON_STRING);
    if (item != nullptr && (item->valuestring = copyText(text)) == nullptr) {
        _kor_cJSON_Delete(item);
        return nullptr;
    }
    return item;
}

kor_cJSON* _kor_cJSON_CreateArray(void)
{
    return jsonItem(KOR_CJSON_ARRAY);
}

kor_cJSON* _kor_cJSON_CreateObject(void)
{
    return jsonItem(KOR_CJSON_OBJECT);
}

kor_cJSON* _kor_cJSON_CreateIntArray(const int32_t* values, int32_t count)
{
    return createList<int32_t>(values, count, [](int32_t value) { return _kor_cJSON_CreateLong(value); });
}

kor_cJSON* _kor_cJSON_CreateLongArray(const int64_t* values, int32_t count)
{
    return createList<int64_t>(values, count, _kor_cJSON_CreateLong);
}

kor_cJSON* _kor_cJSON_CreateFloatArray(const float* values, int32_t count)
{
    return createList<float>(values, count, [](float value) { return _kor_cJSON_CreateNumber(value); });
}

kor_cJSON* _kor_cJSON_CreateDoubleArray(const double* values, int32_t count)
{
    return createList<double>(values, count, _kor_cJSON_CreateNumber);
}

kor_cJSON* _kor_cJSON_CreateStringArray(const char* const* texts, int32_t count)
{
    return createList<const char*>(texts, count, _kor_cJSON_CreateString);
}

kor_cJSON* _kor_cJSON_Duplicate(const kor_cJSON* item, int32_t recurse)
{
    return item == nullptr ? nullptr : duplicate(item, recurse != 0, 0);
}

// ---- Changing -------------------------------------------------------------------------------------------------------

bool _kor_cJSON_AddItemToArray(kor_cJSON* array, kor_cJSON* item)
{
    return cJSON_AddItemToArray(asList(array), asList(item)) != 0;
}

bool _kor_cJSON_AddItemToObject(kor_cJSON* object, const char* key, kor_cJSON* item)
{
    if (object == nullptr || key == nullptr || item == nullptr || object == item) {
        return false;
    }
    return copyKey(item, key) && _kor_cJSON_AddItemToArray(object, item);
}

bool _kor_cJSON_AddItemToObjectCS(kor_cJSON* object, const char* key, kor_cJSON* item)
{
    if (object == nullptr || key == nullptr || item == nullptr || object == item) {
        return false;
    }
    setKey(item, const_cast<char*>(key), KOR_CJSON_STRING_IS_CONST);
    return _kor_cJSON_AddItemToArray(object, item);
}

bool _kor_cJSON_AddItemReferenceToArray(kor_cJSON* array, kor_cJSON* item)
{
    kor_cJSON* reference = array == nullptr ? nullptr : makeReference(item);
    return reference != nullptr && addOrDelete(array, reference);
}

bool _kor_cJSON_AddItemReferenceToObject(kor_cJSON* object, const char* key, kor_cJSON* item)
{
    kor_cJSON* reference = object == nullptr || key == nullptr ? nullptr : makeReference(item);
    if (reference == nullptr) {
        return false;
    }
    bool added = _kor_cJSON_AddItemToObject(object, key, reference);
    if (!added) {
        _kor_cJSON_Delete(reference);
    }
    return added;
}

void _kor_cJSON_AddFormattedStringToObject(kor_cJSON* object, const char* key, const char* format, ...)
{
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    _kor_vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    kor_cJSON* item = _kor_cJSON_CreateString(text);
    if (item != nullptr && !_kor_cJSON_AddItemToObject(object, key, item)) {
        _kor_cJSON_Delete(item);
    }
}

bool _kor_cJSON_InsertItemInArray(kor_cJSON* array, int32_t index, kor_cJSON* item)
{
    if (array == nullptr || item == nullptr || array == item || index < 0) {
        return false;
    }
    kor_cJSON* behind = _kor_cJSON_GetArrayItem(array, index);
    if (behind == nullptr) {
        return _kor_cJSON_AddItemToArray(array, item);
    }
    insertBefore(array, behind, item);
    return true;
}

bool _kor_cJSON_ReplaceItemInArray(kor_cJSON* array, int32_t index, kor_cJSON* item)
{
    kor_cJSON* old = _kor_cJSON_GetArrayItem(array, index);
    if (old == nullptr || item == nullptr || item == array) {
        return false;
    }
    replace(array, old, item);
    return true;
}

bool _kor_cJSON_ReplaceItemInObject(kor_cJSON* object, const char* key, kor_cJSON* item)
{
    kor_cJSON* old = _kor_cJSON_GetObjectItem(object, key);
    if (old == nullptr || item == nullptr || item == object || !copyKey(item, key)) {
        return false;
    }
    replace(object, old, item);
    return true;
}

kor_cJSON* _kor_cJSON_DetachItemFromArray(kor_cJSON* array, int32_t index)
{
    return asItem(cJSON_DetachItemFromArray(asList(array), index));
}

kor_cJSON* _kor_cJSON_DetachItemFromObject(kor_cJSON* object, const char* key)
{
    return asItem(cJSON_DetachItemViaPointer(asList(object), asList(_kor_cJSON_GetObjectItem(object, key))));
}

void _kor_cJSON_DeleteItemFromArray(kor_cJSON* array, int32_t index)
{
    _kor_cJSON_Delete(_kor_cJSON_DetachItemFromArray(array, index));
}

void _kor_cJSON_DeleteItemFromObject(kor_cJSON* object, const char* key)
{
    _kor_cJSON_Delete(_kor_cJSON_DetachItemFromObject(object, key));
}
