// kor_cJSON.h - JSON: reading, printing, building and walking a tree of items.
//
// The operations are those of cJSON with a prefix, on a record with the type numbers of its early versions and with
// exact 64-bit integers: a whole number of up to 64 bits keeps all its digits from text to text.
//
//     kor_cJSON* root = _kor_cJSON_Parse("{\"id\": 9007199254740993}");
//     int64_t id = _kor_cJSON_GetObjectItem(root, "id")->valuelong;
//     char* text = _kor_cJSON_PrintUnformatted(root);
//     _kor_cJSON_Free(text);
//     _kor_cJSON_Delete(root);
//
// A failure is a NULL or false result; there is no exception object and no record of where a parse failed. Nothing is
// shared between threads but the pair of hooks: a tree belongs to one thread at a time. Items and texts nest at most
// 1000 deep; a deeper text does not parse, and a deeper tree is neither printed nor duplicated.

#ifndef KORUTIL_KOR_CJSON_H
#define KORUTIL_KOR_CJSON_H

#include "korutil/korBase.h"

KOR_BEGIN_DECLS

#define KOR_CJSON_FALSE 0
#define KOR_CJSON_TRUE 1
#define KOR_CJSON_NULL 2
#define KOR_CJSON_NUMBER 3
#define KOR_CJSON_STRING 4
#define KOR_CJSON_ARRAY 5
#define KOR_CJSON_OBJECT 6
#define KOR_CJSON_IS_REFERENCE 0x100    ///< flag: `child` and `valuestring` are not owned
#define KOR_CJSON_STRING_IS_CONST 0x200 ///< flag: `string` is not owned

/// An item. Callers read it freely and change it through the operations below. A caller that changes `valuedouble`
/// keeps `valuelong` in step: a whole number is printed from it.
typedef struct kor_cJSON {
    struct kor_cJSON* next;  ///< next item of the same array or object, or NULL
    struct kor_cJSON* prev;  ///< the one before it; of the first item: the last one
    struct kor_cJSON* child; ///< first item of an array or object, or NULL
    int32_t type;            ///< one of the numbers above, with the flags
    char* valuestring;       ///< text of a string
    int32_t valueint;        ///< low 32 bits of `valuelong`
    double valuedouble;      ///< value of a number
    int64_t valuelong;       ///< value of a number, without what is behind the point
    char* string;            ///< key of a member of an object, or NULL
} kor_cJSON;

/// Where items and texts get their memory.
typedef struct kor_cJSON_Hooks {
    void* (*malloc_fn)(size_t size);
    void (*free_fn)(void* pointer);
} kor_cJSON_Hooks;

// ---- Memory ---------------------------------------------------------------------------------------------------------

/// Sets the hooks of the process: before any other use, since what one pair gave goes back to the pair in force. NULL
/// for the pair, or for one member, stands for the plain malloc and free.
KOR_API void _kor_cJSON_InitHooks(const kor_cJSON_Hooks* hooks);

/// Frees a printed text. NULL is accepted by the plain free.
KOR_API void _kor_cJSON_Free(void* pointer);

/// Frees an item with all that it owns, and the items that follow it. NULL is accepted.
KOR_API void _kor_cJSON_Delete(kor_cJSON* item);

// ---- Reading --------------------------------------------------------------------------------------------------------

/// Reads one value, given back with _kor_cJSON_Delete. What stands behind it is not looked at. White space is any byte
/// from 1 to 32; a byte order mark is skipped. NULL if the text is no JSON, or memory is short.
KOR_API kor_cJSON* _kor_cJSON_Parse(const char* text);

/// The same. `*end`, if given, gets where reading stopped. With `requireEnd`, anything but white space behind the value
/// is a failure.
KOR_API kor_cJSON* _kor_cJSON_ParseWithOpts(const char* text, const char** end, int32_t requireEnd);

/// Reads one value of a stream: `*cursor` moves to the byte behind it, with nothing skipped or tested there. On a
/// failure the result is NULL and the cursor stays.
KOR_API kor_cJSON* _kor_cJSON_ParseEx(const char** cursor);

/// Always the text "not supported": a record of the last failure would be shared by all threads.
KOR_API const char* _kor_cJSON_GetErrorPtr(void);

/// Takes white space and comments out of a text, in place.
KOR_API void _kor_cJSON_Minify(char* text);

// ---- Printing -------------------------------------------------------------------------------------------------------
//
// A printed text is freed with _kor_cJSON_Free. NULL if memory is short, or for an item of no known type. Numbers: 0 as
// "0"; whole numbers of 64 bits from `valuelong`; larger whole ones below 1e60 by "%.0f"; those below 1e-6 or above 1e9
// by "%e"; all others by "%f". The decimal sign is a point in every locale.

/// The item as text, with line ends and tabs.
KOR_API char* _kor_cJSON_Print(const kor_cJSON* item);
/// The item as text, without white space.
KOR_API char* _kor_cJSON_PrintUnformatted(const kor_cJSON* item);
/// The same into a buffer of `size` bytes at first, which grows to the next power of two above what is needed. NULL for
/// a negative size.
KOR_API char* _kor_cJSON_PrintBuffered(const kor_cJSON* item, int32_t size, int32_t format);

// ---- Walking --------------------------------------------------------------------------------------------------------

/// The number of items in an array or object; 0 for NULL.
KOR_API int32_t _kor_cJSON_GetArraySize(const kor_cJSON* array);
/// The item at `index` of an array or object, or NULL.
KOR_API kor_cJSON* _kor_cJSON_GetArrayItem(const kor_cJSON* array, int32_t index);
/// The first member with the key, in any case of letters, or NULL.
KOR_API kor_cJSON* _kor_cJSON_GetObjectItem(const kor_cJSON* object, const char* key);

// ---- Building -------------------------------------------------------------------------------------------------------
//
// NULL if memory is short; an array of values also for a negative count, or NULL values.

/// An item of this type.
KOR_API kor_cJSON* _kor_cJSON_CreateNull(void);
/// An item of this type.
KOR_API kor_cJSON* _kor_cJSON_CreateTrue(void);
/// An item of this type.
KOR_API kor_cJSON* _kor_cJSON_CreateFalse(void);
/// True for anything but 0.
KOR_API kor_cJSON* _kor_cJSON_CreateBool(int32_t value);
/// A number. `valuelong` is the value towards 0, held to the nearest 64-bit number; 0 for what is no number.
KOR_API kor_cJSON* _kor_cJSON_CreateNumber(double value);
/// A number with all 64 bits; `valuedouble` is the nearest double.
KOR_API kor_cJSON* _kor_cJSON_CreateLong(int64_t value);
/// A string, copied. NULL for NULL.
KOR_API kor_cJSON* _kor_cJSON_CreateString(const char* text);
/// An empty array.
KOR_API kor_cJSON* _kor_cJSON_CreateArray(void);
/// An empty object.
KOR_API kor_cJSON* _kor_cJSON_CreateObject(void);
/// An array of numbers.
KOR_API kor_cJSON* _kor_cJSON_CreateIntArray(const int32_t* values, int32_t count);
/// An array of numbers with all 64 bits.
KOR_API kor_cJSON* _kor_cJSON_CreateLongArray(const int64_t* values, int32_t count);
/// An array of numbers.
KOR_API kor_cJSON* _kor_cJSON_CreateFloatArray(const float* values, int32_t count);
/// An array of numbers.
KOR_API kor_cJSON* _kor_cJSON_CreateDoubleArray(const double* values, int32_t count);
/// An array of strings, copied.
KOR_API kor_cJSON* _kor_cJSON_CreateStringArray(const char* const* texts, int32_t count);
/// A copy of an item, with `recurse` of all below it, too. References become copies.
KOR_API kor_cJSON* _kor_cJSON_Duplicate(const kor_cJSON* item, int32_t recurse);

// ---- Changing -------------------------------------------------------------------------------------------------------
//
// An item that is added belongs to the array or object from then on. False, and the item stays the caller's, if memory
// is short, an argument is NULL, or an item is added to itself.

/// Appends an item.
KOR_API bool _kor_cJSON_AddItemToArray(kor_cJSON* array, kor_cJSON* item);
/// Appends an item under a copy of the key.
KOR_API bool _kor_cJSON_AddItemToObject(kor_cJSON* object, const char* key, kor_cJSON* item);
/// Appends an item under a key that lives as long as the item.
KOR_API bool _kor_cJSON_AddItemToObjectCS(kor_cJSON* object, const char* key, kor_cJSON* item);
/// Appends an item that shows the children and the text of `item`, which stays the caller's and must live as long.
KOR_API bool _kor_cJSON_AddItemReferenceToArray(kor_cJSON* array, kor_cJSON* item);
/// The same under a copy of the key.
KOR_API bool _kor_cJSON_AddItemReferenceToObject(kor_cJSON* object, const char* key, kor_cJSON* item);
/// Formats a text of at most 4095 bytes, cut to fit, and appends it as a string under a copy of the key. Nothing is
/// added if memory is short.
KOR_API void _kor_cJSON_AddFormattedStringToObject(kor_cJSON* object, const char* key, const char* format, ...)
    KOR_PRINTF(3, 4);

/// Inserts an item before the one at `index`, or at the end if there is none. False for a negative index.
KOR_API bool _kor_cJSON_InsertItemInArray(kor_cJSON* array, int32_t index, kor_cJSON* item);
/// Puts an item in the place of the one at `index`, which is deleted. False if there is none.
KOR_API bool _kor_cJSON_ReplaceItemInArray(kor_cJSON* array, int32_t index, kor_cJSON* item);
/// Puts an item in the place of the first member with the key, in any case of letters. False if there is none.
KOR_API bool _kor_cJSON_ReplaceItemInObject(kor_cJSON* object, const char* key, kor_cJSON* item);

/// Takes the item at `index` out; it is the caller's then. NULL if there is none.
KOR_API kor_cJSON* _kor_cJSON_DetachItemFromArray(kor_cJSON* array, int32_t index);
/// Takes the first member with the key out, in any case of letters.
KOR_API kor_cJSON* _kor_cJSON_DetachItemFromObject(kor_cJSON* object, const char* key);
/// Deletes the item at `index`, if there is one.
KOR_API void _kor_cJSON_DeleteItemFromArray(kor_cJSON* array, int32_t index);
/// Deletes the first member with the key, if there is one.
KOR_API void _kor_cJSON_DeleteItemFromObject(kor_cJSON* object, const char* key);

KOR_END_DECLS

#endif
