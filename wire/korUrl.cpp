// korUrl.cpp - the splitter, the options with their read marks, and the numbers in them.

#include "korutil/korUrl.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"
#include "korutil/korText.h"

#include <atomic>
#include <cctype>
#include <cmath>
#include <cstring>

namespace kor {
namespace {

// The C library's lower case. Words mostly differ in their first character, or in none.
bool sameWord(const char* left, const char* right)
{
    auto lower = [](char character) { return std::tolower(static_cast<unsigned char>(character)); };
    while (*left == *right || lower(*left) == lower(*right)) {
        if (*left == '\0') {
            return true;
        }
        left++;
        right++;
    }
    return false;
}

// ---- Fields ----

// The copy is made first: the new text may be the old one.
void setField(korEx* ex, uint8_t depth, char*& field, const char* text)
{
    if (ex->code != 0) {
        return;
    }
    char* copy = text == nullptr ? nullptr : requestCopy(KOR_AT(ex, depth), text);
    _kor_free(KOR_AT_D(depth, ex), field);
    field = copy;
}

// ---- Options ----

void destroyQuery(uint8_t depth, korEx* ex, korUrlQuery* query)
{
    _kor_free(KOR_AT_D(depth, ex), query->key);
    _kor_free(KOR_AT_D(depth, ex), query->value);
    _kor_free(KOR_AT_D(depth, ex), query);
}

void clearQueries(uint8_t depth, korEx* ex, korUrl* url)
{
    while (url->query != nullptr) {
        korUrlQuery* query = url->query;
        url->query = query->next;
        destroyQuery(KOR_AT_D(depth, ex), query);
    }
}

// The first match from `query` on, marked.
korUrlQuery* readNext(korUrlQuery* query, const char* key)
{
    if (key == nullptr) {
        return nullptr;
    }
    while (query != nullptr && !sameWord(query->key, key)) {
        query = query->next;
    }
    if (query != nullptr) {
        query->read = 1;
    }
    return query;
}

// ---- Parsing, in the caller's working copy ----

// Ends `text` at `cut` and gives what follows the `length` characters there.
char* cutAt(char* cut, size_t length)
{
    *cut = '\0';
    return cut + length;
}

void _korUrl_ParseQuery(korEx* ex, uint8_t depth, korUrl* url, char* text)
{
    while (text != nullptr && ex->code == 0) {
        char* end = strpbrk(text, "&;");
        char* next = end == nullptr ? nullptr : cutAt(end, 1);
        char* equals = strchr(text, '=');
        char* value = equals == nullptr ? nullptr : cutAt(equals, 1);
        _korUrl_AddQuery(KOR_AT(ex, depth), url, text, value);
        text = next;
    }
    if (ex->code != 0) {
        clearQueries(KOR_AT_D(depth, ex), url);
    }
}

char* parseScheme(korEx* ex, uint8_t depth, korUrl* url, char* text)
{
    char* end = strstr(text, "://");
    if (end == nullptr) {
        return text;
    }
    char* rest = cutAt(end, 3);
    setField(KOR_AT(ex, depth), url->scheme, text);
    return rest;
}

char* parseUser(korEx* ex, uint8_t depth, korUrl* url, char* text)
{
    char* end = strchr(text, '@');
    if (end == nullptr) {
        return text;
    }
    char* rest = cutAt(end, 1);
    char* colon = strchr(text, ':');
    if (colon != nullptr) {
        setField(KOR_AT(ex, depth), url->password, cutAt(colon, 1));
    }
    setField(KOR_AT(ex, depth), url->username, text);
    return rest;
}

// A "[" is taken to be the first character.
char* parseBrackets(korEx* ex, uint8_t depth, korUrl* url, char* text)
{
    char* end = strchr(text, ']');
    if (end == nullptr || strchr(text, '[') == nullptr) {
        return text;
    }
    char* rest = cutAt(end, 1);
    setField(KOR_AT(ex, depth), url->host, end == text ? text : text + 1);
    return rest;
}

void parsePlace(korEx* ex, uint8_t depth, korUrl* url, char* text)
{
    char* slash = strchr(text, '/');
    if (slash != nullptr) {
        setField(KOR_AT(ex, depth), url->path, slash);
        *slash = '\0';
    }
    char* colon = strchr(text, ':');
    if (colon != nullptr) {
        setField(KOR_AT(ex, depth), url->port, cutAt(colon, 1));
    }
    if (*text != '\0') {
        setField(KOR_AT(ex, depth), url->host, text);
    }
}

void split(korEx* ex, uint8_t depth, korUrl* url, char* text)
{
    char* question = strrchr(text, '?');
    if (question != nullptr) {
        _korUrl_ParseQuery(KOR_AT(ex, depth), url, cutAt(question, 1));
    }
    text = parseScheme(KOR_AT(ex, depth), url, text);
    text = parseUser(KOR_AT(ex, depth), url, text);
    text = parseBrackets(KOR_AT(ex, depth), url, text);
    parsePlace(KOR_AT(ex, depth), url, text);
}

void _korUrl_Destroy(uint8_t depth, korEx* ex, korUrl* url)
{
    for (char* field : {url->source, url->scheme, url->username, url->password, url->host, url->port, url->path}) {
        _kor_free(KOR_AT_D(depth, ex), field);
    }
    clearQueries(KOR_AT_D(depth, ex), url);
    _kor_free(KOR_AT_D(depth, ex), url);
}

// ---- Numbers ----

template <typename Number>
Number refuse(korEx* ex, uint8_t depth)
{
    KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
    return 0;
}

// The three readers differ in their conversion and its word.
template <typename Number>
Number readNumber(korEx* ex, uint8_t depth, const korUrl* url, const char* key, Number fallback,
                  Number (*convert)(korEx*, uint8_t, const char*), const char* kind)
{
    if (ex->code != 0) {
        return 0;
    }
    const korUrlQuery* query = _korUrl_GetQuery(url, key);
    if (query == nullptr) {
        return fallback;
    }
    KOR_EX_PRIVATE(local, ex, depth);
    Number number = convert(KOR_AT(&local, depth), query->value);
    if (local.code != 0) {
        KOR_RAISE_F(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "Invalid %s value for %s: %s", kind, key,
                    query->value == nullptr ? "NULL" : query->value);
        return 0;
    }
    return number;
}

// Within 32 bits, toward zero.
int64_t clampedInteger(double number)
{
    if (number > INT32_MAX) {
        return INT32_MAX;
    }
    return number < INT32_MIN ? INT32_MIN : static_cast<int64_t>(number);
}

// The factor of a suffix; 0 for none that is known.
uint64_t factorOf(const char* suffix)
{
    struct Factor {
        const char* suffix;
        int power;
    };
    constexpr Factor factors[] = {{"", 0}, {"k", 10}, {"kb", 10}, {"m", 20}, {"mb", 20}, {"g", 30}, {"gb", 30}};
    for (const Factor& factor : factors) {
        if (sameWord(suffix, factor.suffix)) {
            return uint64_t{1} << factor.power;
        }
    }
    return 0;
}

// ---- The check for options that nobody read ----

// Collects the keys; gives the room for their list.
size_t collectUnread(korEx* ex, uint8_t depth, const korUrl* url, korDpa* keys)
{
    size_t room = 0;
    for (korUrlQuery* query = url->query; query != nullptr; query = query->next) {
        if (query->read == 0) {
            _korDpa_AddSafe(KOR_AT(ex, depth), keys, reinterpret_cast<uint64_t>(query->key));
            room += strlen(query->key) + 2;
        }
    }
    return room;
}

void logUnread(korEx* ex, uint8_t depth, const korUrl* url, const korDpa* keys, size_t room, const korLogSource* source)
{
    auto* text = requestZeroed<char>(KOR_AT(ex, depth), room);
    if (text == nullptr) {
        return;
    }
    for (int32_t i = keys->count - 1; i >= 0; i--) {
        _kor_StringCat(text, room, reinterpret_cast<const char*>(keys->items[i]), 0);
        _kor_StringCat(text, room, i == 0 ? "" : ", ", 0);
    }
    if (korLogger_isLoggable(source->component, KOR_LOG_WARN)) {
        _korLogger_LogExN_v3(source->component, source->name, source->label, KOR_LOG_WARN, nullptr, 0,
                             "url: unused options%s%s - %s", url->source == nullptr ? "" : " in ",
                             url->source == nullptr ? "" : url->source, text);
    }
    _kor_free(KOR_AT_D(depth, ex), text);
}

// ---- Back to text ----

// Appends while there is room, and counts what there was none for.
struct Output {
    char* buffer;
    uint64_t size;
    uint64_t length;
};

void put(Output& output, const char* text)
{
    uint64_t length = strlen(text);
    if (output.length < output.size) {
        _kor_StringCopy(output.buffer + output.length, output.size - output.length, text, length);
    }
    output.length += length;
}

void put(Output& output, const char* before, const char* text, const char* behind)
{
    if (text != nullptr) {
        put(output, before);
        put(output, text);
        put(output, behind);
    }
}

void putQueries(Output& output, const korUrlQuery* query)
{
    const char* before = "?";
    for (; query != nullptr; query = query->next) {
        put(output, before, query->key, "");
        put(output, "=", query->value, "");
        before = "&";
    }
}

} // namespace
} // namespace kor

using namespace kor;

korUrl* _korUrl_Create(korEx* ex, uint8_t depth)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto* url = requestZeroed<korUrl>(KOR_AT(ex, depth));
    if (url != nullptr) {
        url->refCount = 1;
    }
    return url;
}

korUrl* _korUrl_Parse(korEx* ex, uint8_t depth, const char* text)
{
    korUrl* url = _korUrl_Create(KOR_AT(ex, depth));
    if (url == nullptr || text == nullptr) {
        return url;
    }
    setField(KOR_AT(ex, depth), url->source, text);
    char* work = ex->code == 0 ? requestCopy(KOR_AT(ex, depth), text) : nullptr;
    if (work != nullptr) {
        split(KOR_AT(ex, depth), url, work);
        _kor_free(KOR_AT_D(depth, ex), work);
    }
    return url;
}

void _korUrl_Retain(uint8_t, korEx*, korUrl* url)
{
    if (url != nullptr) {
        std::atomic_ref(url->refCount).fetch_add(1);
    }
}

void _korUrl_Release(uint8_t depth, korEx* ex, korUrl* url)
{
    if (url != nullptr && std::atomic_ref(url->refCount).fetch_sub(1) == 1) {
        _korUrl_Destroy(KOR_AT_D(depth, ex), url);
    }
}

void _korUrl_ToString(korEx* ex, uint8_t depth, const korUrl* url, char* buffer, uint64_t size)
{
    if (ex->code != 0) {
        return;
    }
    if (size == 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return;
    }
    buffer[0] = '\0';
    Output output = {buffer, size, 0};
    put(output, "", url->scheme, "://");
    if (url->username != nullptr) {
        put(output, url->username);
        put(output, ":", url->password, "");
        put(output, "@");
    }
    put(output, url->host == nullptr ? "(null)" : url->host);
    put(output, ":", url->port, "");
    put(output, "", url->path, "");
    putQueries(output, url->query);
    if (output.length >= size) {
        KOR_RAISE(ex, depth, KOR_ERROR_END_OF_BUFFER, nullptr);
    }
}

const char* _korUrl_GetSource(const korUrl* url)
{
    return url->source;
}

const char* _korUrl_GetScheme(const korUrl* url)
{
    return url->scheme;
}

const char* _korUrl_GetHost(const korUrl* url)
{
    return url->host;
}

const char* _korUrl_GetPort(const korUrl* url)
{
    return url->port;
}

const char* _korUrl_GetPath(const korUrl* url)
{
    return url->path;
}

const char* _korUrl_GetUsername(const korUrl* url)
{
    return url->username;
}

const char* _korUrl_GetPassword(const korUrl* url)
{
    return url->password;
}

void _korUrl_SetSource(korEx* ex, uint8_t depth, korUrl* url, const char* text)
{
    setField(KOR_AT(ex, depth), url->source, text);
}

void _korUrl_SetScheme(korEx* ex, uint8_t depth, korUrl* url, const char* text)
{
    setField(KOR_AT(ex, depth), url->scheme, text);
}

void _korUrl_SetHost(korEx* ex, uint8_t depth, korUrl* url, const char* text)
{
    setField(KOR_AT(ex, depth), url->host, text);
}

void _korUrl_SetPort(korEx* ex, uint8_t depth, korUrl* url, const char* text)
{
    setField(KOR_AT(ex, depth), url->port, text);
}

void _korUrl_SetPath(korEx* ex, uint8_t depth, korUrl* url, const char* text)
{
    setField(KOR_AT(ex, depth), url->path, text);
}

void _korUrl_SetUsername(korEx* ex, uint8_t depth, korUrl* url, const char* text)
{
    setField(KOR_AT(ex, depth), url->username, text);
}

void _korUrl_SetPassword(korEx* ex, uint8_t depth, korUrl* url, const char* text)
{
    setField(KOR_AT(ex, depth), url->password, text);
}

void _korUrl_AddQuery(korEx* ex, uint8_t depth, korUrl* url, const char* key, const char* value)
{
    if (ex->code != 0) {
        return;
    }
    if (key == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return;
    }
    auto* query = requestZeroed<korUrlQuery>(KOR_AT(ex, depth));
    if (query == nullptr) {
        return;
    }
    setField(KOR_AT(ex, depth), query->key, key);
    setField(KOR_AT(ex, depth), query->value, value);
    if (ex->code != 0) {
        destroyQuery(KOR_AT_D(depth, ex), query);
        return;
    }
    query->next = url->query;
    url->query = query;
}

void _korUrl_RemoveQuery(korEx* ex, uint8_t depth, korUrl* url, const char* key)
{
    for (korUrlQuery** link = &url->query; *link != nullptr; link = &(*link)->next) {
        korUrlQuery* query = *link;
        if (key != nullptr && sameWord(query->key, key)) {
            *link = query->next;
            destroyQuery(KOR_AT_D(depth, ex), query);
            return;
        }
    }
}

void _korUrl_ClearQueryList(korEx* ex, uint8_t depth, korUrl* url)
{
    if (ex->code == 0) {
        clearQueries(KOR_AT_D(depth, ex), url);
    }
}

korUrlQuery* _korUrl_GetQueryList(const korUrl* url)
{
    return url->query;
}

korUrlQuery* _korUrl_GetQuery(const korUrl* url, const char* key)
{
    return readNext(url->query, key);
}

bool _korUrl_ContainsQuery(const korUrl* url, const char* key)
{
    return readNext(url->query, key) != nullptr;
}

const char* _korUrl_GetQueryValue(const korUrl* url, const char* key)
{
    const korUrlQuery* query = readNext(url->query, key);
    return query == nullptr ? nullptr : query->value;
}

korDpa* _korUrl_GetQueryValues(korEx* ex, uint8_t depth, const korUrl* url, const char* key)
{
    if (ex->code != 0) {
        return nullptr;
    }
    korDpa* values = _korDpa_PerformCreate(KOR_AT(ex, depth), 1, nullptr, nullptr);
    for (korUrlQuery* query = readNext(url->query, key); query != nullptr; query = readNext(query->next, key)) {
        if (query->value != nullptr && ex->code == 0) {
            _korDpa_AddSafe(KOR_AT(ex, depth), values, reinterpret_cast<uint64_t>(query->value));
        }
    }
    if (ex->code != 0) {
        _korDpa_DestroyPooled(KOR_AT_D(depth, ex), values, nullptr);
        return nullptr;
    }
    return values;
}

uint8_t _korUrl_GetQueryValueBool(korEx* ex, uint8_t, const korUrl* url, const char* key)
{
    const char* value = ex->code == 0 ? _korUrl_GetQueryValue(url, key) : nullptr;
    return value != nullptr && strcmp(value, "true") == 0;
}

int64_t _korUrl_GetQueryValueInteger(korEx* ex, uint8_t depth, const korUrl* url, const char* key, int64_t fallback)
{
    return readNumber(KOR_AT(ex, depth), url, key, fallback, _korUrl_StringToInteger, "integer");
}

double _korUrl_GetQueryValueDouble(korEx* ex, uint8_t depth, const korUrl* url, const char* key, double fallback)
{
    return readNumber(KOR_AT(ex, depth), url, key, fallback, _korUrl_StringToDouble, "double");
}

int64_t _korUrl_GetQueryValueBytes(korEx* ex, uint8_t depth, const korUrl* url, const char* key, int64_t fallback)
{
    return readNumber(KOR_AT(ex, depth), url, key, fallback, _korUrl_StringToBytes, "bytes");
}

uint8_t _korUrl_CheckAllKeysRead(korEx* ex, uint8_t depth, const korUrl* url, const korLogSource* source)
{
    if (ex->code != 0) {
        return 0;
    }
    korDpa keys;
    _korDpa_PerformInit(KOR_AT(ex, depth), &keys, 1, nullptr);
    size_t room = collectUnread(KOR_AT(ex, depth), url, &keys);
    bool allRead = room == 0;
    if (!allRead && ex->code == 0) {
        logUnread(KOR_AT(ex, depth), url, &keys, room, source);
    }
    _korDpa_Clear(KOR_AT_D(depth, ex), &keys);
    return allRead;
}

const char* _korUrlQuery_GetKey(const korUrlQuery* query)
{
    return query->key;
}

korUrlQuery* _korUrlQuery_GetNext(const korUrlQuery* query)
{
    return query->next;
}

const char* _korUrlQuery_GetValue(korUrlQuery* query)
{
    query->read = 1;
    return query->value;
}

bool _korUrlQuery_IsRead(const korUrlQuery* query)
{
    return query->read != 0;
}

void _korUrlQuery_MarkUnread(korUrlQuery* query)
{
    query->read = 0;
}

int64_t _korUrl_StringToInteger(korEx* ex, uint8_t depth, const char* text)
{
    if (ex->code != 0) {
        return 0;
    }
    if (text == nullptr) {
        return refuse<int64_t>(KOR_AT(ex, depth));
    }
    char* end;
    int64_t number;
    if (strchr(text, '.') != nullptr) {
        double fraction = _kor_strtod(text, &end);
        number = std::isnan(fraction) ? 0 : clampedInteger(fraction);
        end = std::isnan(fraction) ? const_cast<char*>(text) : end; // no number
    } else {
        number = strtoll(text, &end, 10);
    }
    return end == text || *end != '\0' ? refuse<int64_t>(KOR_AT(ex, depth)) : number;
}

double _korUrl_StringToDouble(korEx* ex, uint8_t depth, const char* text)
{
    if (ex->code != 0) {
        return 0;
    }
    char* end = nullptr;
    double number = text == nullptr ? 0 : _kor_strtod(text, &end);
    return end == text || *end != '\0' ? refuse<double>(KOR_AT(ex, depth)) : number;
}

int64_t _korUrl_StringToBytes(korEx* ex, uint8_t depth, const char* text)
{
    if (ex->code != 0) {
        return 0;
    }
    char* end = nullptr;
    int64_t number = text == nullptr ? 0 : strtoll(text, &end, 10);
    uint64_t factor = end == text ? 0 : factorOf(end);
    return factor == 0 ? refuse<int64_t>(KOR_AT(ex, depth))
                       : static_cast<int64_t>(static_cast<uint64_t>(number) * factor);
}
