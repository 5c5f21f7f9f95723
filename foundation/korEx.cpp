// korEx.cpp - exception objects: raising, travelling along a chain, texts, call keys.
//
// A frame is read only inside [baseDepth, frameCount) of an object that holds an error: nothing else is known to have
// been written. Everything here works with no open call at all.

#include "korutil/korEx.h"
#include "foundation/chain.h"
#include "korutil/korAlloc.h"
#include "korutil/korDpa.h"
#include "korutil/korText.h"
#include "korutil/korThread.h"
#include "platform/error.h"

#include <algorithm>
#include <atomic>
#include <cstring>

static_assert(sizeof(korFrame) == 16 && sizeof(korKeyFrame) == 12);
static_assert(offsetof(korEx, frames) == 48 && offsetof(korEx, descriptionBuffer) == 48 + 255 * 16);
static_assert(offsetof(korEx, threadName) == 4384 && offsetof(korEx, frameCount) == 4456 && sizeof(korEx) == 4464);

namespace kor {
namespace {

constexpr const char* nullText = "Exception is NULL.\n";

const char* tableWord(int32_t code)
{
    switch (code) {
#define KOR_ERROR_CASE(name, number, word) \
    case name:                             \
        return word;
        KOR_ERROR_CODES(KOR_ERROR_CASE)
#undef KOR_ERROR_CASE
    default:
        return nullptr;
    }
}

// Where an application's own codes get their words. Filled while libraries open, read without a lock.
korDpa* errorStringCallbacks = nullptr;

korDpa* callbackList()
{
    return std::atomic_ref(errorStringCallbacks).load(std::memory_order_acquire);
}

const char* callbackWord(int32_t code)
{
    korDpa* list = callbackList();
    for (int32_t index = 0; list != nullptr && index < list->count; index++) {
        const char* word = reinterpret_cast<korErrorStringCallback>(list->items[index])(code);
        if (word != nullptr) {
            return word;
        }
    }
    return nullptr;
}

const char* wordOf(int32_t code)
{
    const char* word = tableWord(code);
    if (word == nullptr) {
        word = callbackWord(code);
    }
    return word != nullptr ? word : "Unknown";
}

bool holdsOwnDescription(const korEx* ex)
{
    return ex->description == ex->descriptionBuffer;
}

// Gives `to` the description of `from`: a copy of one that stands in the buffer, the pointer of any other.
void copyDescription(korEx* to, const korEx* from)
{
    if (holdsOwnDescription(from)) {
        _kor_StringCopy(to->descriptionBuffer, sizeof to->descriptionBuffer, from->descriptionBuffer, 0);
        to->description = to->descriptionBuffer;
    } else {
        to->description = from->description;
    }
}

// Frames that belong to an object that holds an error. A trace that wrapped at depth 255 may end below its base.
uint32_t frameSpan(const korEx* ex)
{
    return ex->frameCount > ex->baseDepth ? static_cast<uint32_t>(ex->frameCount - ex->baseDepth) : 0;
}

// One past the deepest frame of `ex->next` that counts when `ex` is the one before it. With an error pending in it no
// calls are recorded, so that they may end before the join.
uint32_t linkEnd(const korEx* ex)
{
    return ex->next->code != 0 ? std::min(ex->chainDepth, ex->next->frameCount) : ex->chainDepth;
}

// How many they are.
uint32_t linkSpan(const korEx* ex)
{
    uint32_t end = linkEnd(ex);
    return end > ex->next->baseDepth ? end - ex->next->baseDepth : 0;
}

// Copies the trace of `from` behind what `to` has recorded up to the join.
void copyTrace(korEx* to, const korEx* from)
{
    uint32_t start = from->chainDepth;
    if (from->chainFunction != nullptr && start < KOR_MAX_FRAMES) {
        to->frames[start++] = {from->chainFunction, from->chainLine};
    }
    uint32_t count = frameSpan(from);
    if (count + start > KOR_MAX_FRAMES) {
        count = KOR_MAX_FRAMES - start;
    }
    memcpy(&to->frames[start], &from->frames[from->baseDepth], count * sizeof(korFrame));
    to->frameCount = static_cast<uint8_t>(start + count);
}

void copyToChain(korEx* ex)
{
    for (; ex->next != nullptr && ex->next->code == 0 && ex->own == 0; ex = ex->next) {
        korEx* next = ex->next;
        next->code = ex->code;
        next->osError = ex->osError;
        memcpy(next->threadName, ex->threadName, sizeof next->threadName);
        copyDescription(next, ex);
        copyTrace(next, ex);
    }
}

// The name of the raising thread, cut to fit. A thread without one gets the program's, which takes memory when it is
// asked for first: not so with an error pending, so that a raise for want of memory ends here and does not raise
// another one.
void recordThreadName(korEx* ex)
{
    KOR_EX_LOCAL(local);
    const char* name = nullptr;
    korEx_at(&local, 0, "_korEx_CopyToChain", __LINE__);
    local.code = ex->code == KOR_ERROR_NO_MEMORY ? ex->code : 0;
    _korThread_GetCurrentName(1, &local, &name);
    _kor_StringCopy(ex->threadName, sizeof ex->threadName, name != nullptr ? name : "", 0);
}

void recordRaise(korEx* ex, const char* function, int32_t line, uint32_t depth)
{
    uint32_t slot = depth < KOR_MAX_FRAMES ? depth : KOR_MAX_FRAMES - 1;
    ex->frames[slot] = {function, line};
    ex->frameCount = static_cast<uint8_t>(slot + 1);
}

// A text that is written piece by piece, each piece only while room is left.
class TextWriter
{
public:
    TextWriter(char* buffer, int32_t size) : buffer_(buffer), size_(static_cast<uint32_t>(size)) { buffer_[0] = '\0'; }

    void add(const char* format, ...) KOR_PRINTF(2, 3)
    {
        if (length_ + 1 < size_) {
            va_list arguments;
            va_start(arguments, format);
            length_ += _kor_vsnprintf(buffer_ + length_, size_ - length_, format, arguments);
            va_end(arguments);
        }
    }

    void addFrame(const korFrame& frame)
    {
        add("\t\t%s, %d\n", frame.function != nullptr ? frame.function : "(null)", frame.line);
    }

    // Deepest first, from `from` - 1 down to `base`.
    void addFrames(const korEx* ex, uint32_t from, uint32_t base)
    {
        while (from > base) {
            addFrame(ex->frames[--from]);
        }
    }

    int32_t length() const { return static_cast<int32_t>(length_); }

private:
    char* buffer_;
    uint32_t size_;
    uint32_t length_ = 0;
};

void writeOsError(TextWriter& text, int32_t osError)
{
    char words[256];
    text.add("\tOS Error Code = %d", osError);
    if (_korEx_OsErrorString(words, sizeof words, osError) == 0) {
        words[sizeof words - 1] = '\0';
        text.add(": %s\n", words);
    } else {
        text.add("\n");
    }
}

void writeTrace(TextWriter& text, const korEx* ex)
{
    text.addFrames(ex, ex->frameCount, ex->baseDepth);
    for (; ex->next != nullptr; ex = ex->next) {
        if (ex->chainFunction != nullptr) {
            text.addFrame({ex->chainFunction, ex->chainLine});
        }
        text.addFrames(ex->next, linkEnd(ex), ex->next->baseDepth);
    }
}

int32_t writeException(const korEx* ex, char* buffer, int32_t size)
{
    TextWriter text(buffer, size);
    if (ex == nullptr) {
        text.add("%s", nullText);
        return text.length() + 1;
    }
    text.add("KORVA Exception:\n");
    text.add("\tError Code    = %s\n", wordOf(ex->code));
    if (ex->osError != 0) {
        writeOsError(text, ex->osError);
    }
    if (ex->code != 0) {
        text.add("\tDescription   = %s\n", ex->description != nullptr ? ex->description : "None");
        text.add("\tThread Name   = %s\n", ex->threadName);
        text.add("\tStack Trace:\n");
        writeTrace(text, ex);
    }
    return text.length() + 1;
}

// Room for the text: the fixed parts, the word, and the longest usual line for each frame.
int32_t roomFor(const korEx* ex)
{
    if (ex == nullptr) {
        return static_cast<int32_t>(strlen(nullText)) + 1;
    }
    size_t frames = ex->code != 0 ? frameSpan(ex) : 0;
    size_t joins = 0;
    for (const korEx* link = ex; ex->code != 0 && link->next != nullptr; link = link->next) {
        frames += linkSpan(link);
        joins += link->chainFunction != nullptr;
    }
    return static_cast<int32_t>(strlen(wordOf(ex->code)) + 1464 + 95 * (frames + joins));
}

// Appends records to a key and folds the hash.
class KeyWriter
{
public:
    KeyWriter(korKeyFrame* key) : key_(key) {}

    void add(const char* function, int32_t line)
    {
        auto name = reinterpret_cast<uintptr_t>(function);
        key_[count_++] = {function, line};
        hash_ += static_cast<uint32_t>(name) + static_cast<uint32_t>(name >> 32) + static_cast<uint32_t>(line);
        if (hash_ == UINT32_MAX) {
            hash_ = 0;
        }
    }

    void addFrames(const korEx* ex, uint32_t from, uint32_t base)
    {
        while (from > base) {
            from--;
            add(ex->frames[from].function, ex->frames[from].line);
        }
    }

    uint32_t size() const { return count_ * static_cast<uint32_t>(sizeof(korKeyFrame)); }
    uint32_t hash() const { return hash_; }

private:
    korKeyFrame* key_;
    uint32_t count_ = 0;
    uint32_t hash_ = 0;
};

void printKeyFrame(const char* function, int32_t line)
{
    fprintf(stderr, "\t%s:%d\n", function != nullptr ? function : "(null)", line);
}

} // namespace

void passToChain(korEx* local)
{
    if (local->code != 0) {
        local->own = 0;
        copyToChain(local);
    }
}

} // namespace kor

korEx* _korEx_Create(void)
{
    korEx* ex = static_cast<korEx*>(calloc(1, sizeof(korEx)));
    if (ex != nullptr) {
        ex->own = 1;
    }
    return ex;
}

korEx* korEx_Create(void)
{
    return _korEx_Create();
}

void _korEx_Destroy(korEx* ex)
{
    free(ex);
}

void korEx_Destroy(korEx* ex)
{
    _korEx_Destroy(ex);
}

void korEx_Clear(korEx* ex)
{
    for (; ex != nullptr; ex = ex->next) {
        ex->code = 0;
        if (ex->own != 0) {
            return;
        }
    }
}

int32_t korEx_GetErrorCode(const korEx* ex)
{
    return ex != nullptr ? ex->code : KOR_ERROR_NULL_VALUE;
}

const char* _korEx_GetSummaryString(const korEx* ex)
{
    return ex != nullptr ? kor::wordOf(ex->code) : kor::nullText;
}

const char* korEx_GetSummaryString(const korEx* ex)
{
    return _korEx_GetSummaryString(ex);
}

korEx* _korEx_Clone(const korEx* ex)
{
    if (ex == nullptr) {
        return nullptr;
    }
    korEx* clone = _korEx_Create();
    if (clone == nullptr) {
        return nullptr;
    }
    clone->code = ex->code;
    clone->osError = ex->osError;
    clone->baseDepth = ex->baseDepth;
    clone->own = ex->own;
    clone->next = ex->next;
    clone->chainDepth = ex->chainDepth;
    if (ex->code != 0) { // else a local object may hold nothing more
        clone->frameCount = ex->frameCount;
        memcpy(clone->threadName, ex->threadName, sizeof clone->threadName);
        memcpy(&clone->frames[ex->baseDepth], &ex->frames[ex->baseDepth], kor::frameSpan(ex) * sizeof(korFrame));
        kor::copyDescription(clone, ex);
    }
    return clone;
}

void _korEx_SetException(korEx* ex, int32_t code, const char* description, uint8_t copy, const char* function,
                         int32_t line, uint32_t depth)
{
    kor::platform::LastErrors saved = kor::platform::lastErrors();
    if (ex->code != 0) {
        return;
    }
    ex->code = code;
    ex->description = description;
    if (description != nullptr && copy != 0) {
        size_t length = _kor_strnlen(description, sizeof ex->descriptionBuffer);
        ex->description = ex->descriptionBuffer;
        ex->descriptionBuffer[0] = '\0'; // an empty text has no length to give, and would be measured again
        if (length != 0) {
            _kor_StringCopy(ex->descriptionBuffer, sizeof ex->descriptionBuffer, description, length);
        }
    }
    kor::recordRaise(ex, function, line, depth);
    kor::recordThreadName(ex);
    kor::copyToChain(ex);
    kor::platform::restoreLastErrors(saved);
}

void _korEx_FormatException(korEx* ex, int32_t code, const char* function, int32_t line, uint32_t depth,
                            const char* format, ...)
{
    if (ex->code != 0) {
        return;
    }
    kor::platform::LastErrors saved = kor::platform::lastErrors(); // formatting may change errno
    char description[KOR_DESCRIPTION_SIZE];
    va_list arguments;
    va_start(arguments, format);
    _kor_vsnprintf(description, sizeof description, format, arguments);
    va_end(arguments);
    _korEx_SetException(ex, code, description, 1, function, line, depth);
    kor::platform::restoreLastErrors(saved);
}

void _korEx_Open(korEx* ex, uint8_t depth)
{
    if (ex->code != 0 || kor::callbackList() != nullptr) {
        return;
    }
    korDpa* list = _korDpa_Create(KOR_AT(ex, depth), 1);
    if (list == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, NULL);
    }
    std::atomic_ref(kor::errorStringCallbacks).store(list, std::memory_order_release);
}

void _korEx_Close(korEx* ex, uint8_t depth)
{
    korDpa* list = std::atomic_ref(kor::errorStringCallbacks).exchange(nullptr);
    _korDpa_DestroyPooled(KOR_AT_D(depth, ex), list, nullptr);
}

void _korEx_AddErrorStringCallback(korEx* ex, uint8_t depth, korErrorStringCallback callback)
{
    korDpa* list = kor::callbackList();
    if (ex->code == 0 && list != nullptr) {
        _korDpa_AddSafe(KOR_AT(ex, depth), list, reinterpret_cast<uint64_t>(callback));
    }
}

int32_t _korEx_PrintException(const korEx* ex, char** buffer, int32_t size, uint8_t keep)
{
    if (buffer == nullptr || (*buffer != nullptr && size < 1)) {
        return 0;
    }
    if (*buffer != nullptr) {
        return kor::writeException(ex, *buffer, size);
    }
    KOR_EX_LOCAL(local);
    int32_t room = kor::roomFor(ex);
    char* text = static_cast<char*>(_kor_calloc(KOR_AT(&local, 0), 1, static_cast<size_t>(room)));
    if (text == nullptr) {
        return 0;
    }
    int32_t length = kor::writeException(ex, text, room);
    if (keep != 0) {
        *buffer = text;
    } else {
        _kor_free(KOR_AT_D(0, &local), text);
    }
    return length;
}

int32_t korEx_ToString(const korEx* ex, char* buffer, int32_t size)
{
    return _korEx_PrintException(ex, &buffer, size, 0);
}

void _korEx_Print(const korEx* ex, FILE* stream)
{
    char* text = nullptr;
    _korEx_PrintException(ex, &text, 0, 1);
    if (text != nullptr) {
        KOR_EX_LOCAL(local);
        fprintf(stream, "%s", text);
        _kor_free(KOR_AT_D(0, &local), text);
    }
}

void korEx_Print(const korEx* ex)
{
    _korEx_Print(ex, stderr);
}

int32_t _korEx_PrintErrInfo(const korEx* ex, char* buffer, int32_t size)
{
    if (buffer == nullptr || size < 1) {
        return 0;
    }
    buffer[0] = '\0';
    if (ex == nullptr || ex->code == 0) {
        return 1;
    }
    auto room = static_cast<uint32_t>(size);
    uint32_t length = ex->description != nullptr ? _kor_snprintf(buffer, room, "%s", ex->description) : 0;
    if (ex->code != KOR_ERROR_OS) {
        length +=
            _kor_snprintf(buffer + length, room - length, " (Error Code = %d: %s)", ex->code, kor::wordOf(ex->code));
        return static_cast<int32_t>(length);
    }
    length += _kor_snprintf(buffer + length, room - length, " (OS Error Code = %d: ", ex->osError);
    _korEx_OsErrorString(buffer + length, static_cast<int32_t>(room - length), ex->osError);
    buffer[room - 1] = '\0';
    return static_cast<int32_t>(_kor_StringCat(buffer, room, ")", 0));
}

int32_t _korEx_OsErrorString(char* buffer, int32_t size, int32_t osError)
{
    if (buffer == nullptr || size < 1) {
        return 1;
    }
    return kor::platform::errorText(osError, buffer, static_cast<uint32_t>(size)) ? 0 : 1;
}

void _korEx_ToKey(const korEx* ex, uint32_t depth, korKeyFrame* key, uint32_t* size, uint32_t* hash)
{
    kor::KeyWriter writer(key);
    writer.addFrames(ex, depth < KOR_MAX_FRAMES ? depth : KOR_MAX_FRAMES, ex->baseDepth);
    for (; ex->next != nullptr; ex = ex->next) {
        if (ex->chainFunction != nullptr) {
            writer.add(ex->chainFunction, ex->chainLine);
        }
        writer.addFrames(ex->next, kor::linkEnd(ex), ex->next->baseDepth);
    }
    *size = writer.size();
    *hash = writer.hash();
}

void _korEx_PrintKey(const korKeyFrame* key, uint32_t size)
{
    for (uint32_t index = 0; index < size / sizeof(korKeyFrame); index++) {
        kor::printKeyFrame(key[index].function, key[index].line);
    }
    fflush(stderr);
}

void _korEx_PrintStack(uint8_t depth, const korEx* ex)
{
    if (ex == nullptr) {
        return;
    }
    if (ex->code != 0) {
        _korEx_Print(ex, stderr);
        return;
    }
    uint32_t room = 0;
    for (const korEx* link = ex; link != nullptr; link = link->next) {
        room += KOR_MAX_FRAMES + 1; // its frames, and the one that joins it to the next
    }
    korKeyFrame* key = static_cast<korKeyFrame*>(malloc(room * sizeof(korKeyFrame)));
    if (key == nullptr) {
        return;
    }
    uint32_t size;
    uint32_t hash;
    _korEx_ToKey(ex, depth, key, &size, &hash);
    _korEx_PrintKey(key, size);
    free(key);
}
