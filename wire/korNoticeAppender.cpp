// korNoticeAppender.cpp - notices for a person.

#include "korutil/korNoticeAppender.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"
#include "korutil/korLogLevel.h"
#include "korutil/korText.h"
#include "korutil/korTime.h"

#include <cstdarg>

namespace kor {
namespace {

uint32_t writeHead(char (&notice)[KOR_NOTICE_SIZE], const char* name, int32_t level)
{
    char time[KOR_LOCAL_TIME_SIZE];
    _kor_GetCurrentLocalTimeStr(time, sizeof time);
    const char* word = _korLogLevel_LevelToString(level);
    return name != nullptr ? _kor_snprintf(notice, sizeof notice, "%s - %s [%s]: ", time, word, name)
                           : _kor_snprintf(notice, sizeof notice, "%s - %s: ", time, word);
}

void keep(korEx* ex, uint8_t depth, korDpa* notices, const char* notice)
{
    char* copy = requestCopy(KOR_AT(ex, depth), notice);
    if (copy == nullptr) {
        return;
    }
    _korDpa_AddSafe(KOR_AT(ex, depth), notices, reinterpret_cast<uint64_t>(copy));
    if (ex->code != 0) {
        _kor_free(KOR_AT_D(depth, ex), copy);
    }
}

} // namespace
} // namespace kor

using namespace kor;

korNoticeAppender* _korNoticeAppender_Create(korEx* ex, uint8_t depth, const char* name, korDpa* notices)
{
    if (ex == nullptr || ex->code != 0) {
        return nullptr;
    }
    auto* appender = requestZeroed<korNoticeAppender>(KOR_AT(ex, depth));
    if (appender == nullptr) {
        return nullptr;
    }
    _korMutex_Init(KOR_AT(ex, depth), &appender->mutex);
    appender->name = name == nullptr ? nullptr : requestCopy(KOR_AT(ex, depth), name);
    appender->notices = notices;
    if (ex->code != 0) {
        _korNoticeAppender_Destroy(KOR_AT_D(depth, ex), appender);
        return nullptr;
    }
    return appender;
}

void _korNoticeAppender_Append(korNoticeAppender* appender, int32_t level, const char* format, ...)
{
    KOR_EX_LOCAL(ex);
    if (appender == nullptr) {
        return;
    }
    char notice[KOR_NOTICE_SIZE];
    korMutex_enter(&appender->mutex);
    uint32_t length = writeHead(notice, appender->name, level);
    va_list arguments;
    va_start(arguments, format);
    _kor_vsnprintf(notice + length, sizeof notice - length, format, arguments);
    va_end(arguments);
    if (appender->notices != nullptr) {
        keep(KOR_AT(&ex, 0), appender->notices, notice);
    }
    korMutex_leave(&appender->mutex);
}

void _korNoticeAppender_Destroy(uint8_t depth, korEx* ex, korNoticeAppender* appender)
{
    if (appender != nullptr) {
        _korMutex_Clear(KOR_AT(ex, depth), &appender->mutex);
        _kor_free(KOR_AT_D(depth, ex), appender->name);
        _kor_free(KOR_AT_D(depth, ex), appender);
    }
}
