// logLevelLists.cpp - level lists: one reader for the global logger and those of keys.
//
// A token is read by one of two rules: a bare one when the whole level list has no ":", a named one when it has.
// Each token is converted on an exception object of its own, so that a bad level does not keep the rest from being
// applied; the first failure reaches the caller.

#include "foundation/request.h"
#include "log/logger.h"

#include "korutil/korAlloc.h"
#include "korutil/korText.h"

#include <algorithm>
#include <cstring>
#include <string_view>

using namespace kor::logging;

namespace {

using std::string_view;

constexpr char separator = ';';
constexpr char levelMark = ':';
constexpr const char* everyTag = "all";

// What a level list is applied to; the caller's object tells whether an error is pending.
struct Target {
    korLogger* logger; // NULL = the global one
    korEx* callerEx;
};

// One token at work.
struct Setting {
    const Target& target;
    string_view levelText;
    int32_t level;
    bool begun; // a level has been written
};

bool contains(string_view text, string_view piece)
{
    return text.find(piece) != string_view::npos;
}

int printLength(string_view text)
{
    return static_cast<int>(text.size());
}

string_view firstOf(string_view text, size_t length)
{
    return {text.data(), length};
}

string_view without(string_view text, size_t prefix)
{
    text.remove_prefix(prefix);
    return text;
}

// Takes the next token off `rest`; false at an empty one, which ends a list.
bool nextToken(string_view& rest, string_view& token)
{
    size_t length = std::min(rest.find(separator), rest.size());
    token = firstOf(rest, length);
    rest.remove_prefix(std::min(length + 1, rest.size()));
    return length != 0;
}

int32_t levelNamed(korEx* ex, uint8_t depth, string_view text)
{
    char level[16]; // longer than any level's text: what is cut is none
    _kor_snprintf(level, sizeof(level), "%.*s", printLength(text), text.data());
    return _korLogLevel_StringToLevel(KOR_AT(ex, depth), level);
}

uint64_t idOfTag(korEx* ex, uint8_t depth, korStrHash* tags, string_view tag)
{
    TagKey key = keyOf({tag.data(), tag.size()});
    return tags == nullptr ? 0 : _korStrHash_Get(KOR_AT(ex, depth), tags, key.text);
}

uint8_t __getComponentID(korEx* ex, uint8_t depth, string_view tag)
{
    _korRWLock_ReadLock(KOR_AT_D(depth, ex), _gLogger.lock);
    uint64_t id = idOfTag(KOR_AT(ex, depth), _gLogger.componentTags, tag);
    _korRWLock_UnlockReadLock(KOR_AT_D(depth, ex), _gLogger.lock);
    return static_cast<uint8_t>(id);
}

uint64_t __getGroupID(korEx* ex, uint8_t depth, string_view tag)
{
    _korRWLock_ReadLock(KOR_AT_D(depth, ex), _gLogger.lock);
    uint64_t id = idOfTag(KOR_AT(ex, depth), _gLogger.groupTags, tag);
    _korRWLock_UnlockReadLock(KOR_AT_D(depth, ex), _gLogger.lock);
    return id;
}

// ---- Telling --------------------------------------------------------------------------------------------------------

// What concerns a record goes through it once any logger has been configured.
bool tellsByLogger(const Target& target)
{
    return target.logger != nullptr && target.logger->loggerId != 0 && KOR_ATOMIC_LOAD(&gLoggerInitMapInUse) != 0;
}

void tellLevel(const Setting& setting, uint8_t component)
{
    korLogger* logger = setting.target.logger;
    int length = printLength(setting.levelText);
    const char* text = setting.levelText.data();
    if (logger == nullptr) {
        KOR_LOG(loggerComponent, KOR_LOG_DEBUG, "Set log level of component '%s' to level '%.*s'.", tagOf(component),
                length, text);
        return;
    }
    static constexpr char format[] = "Set log level of component '%s' to level '%.*s' for logKey 0x%llx.";
    auto logKey = static_cast<unsigned long long>(logger->logKey);
    if (tellsByLogger(setting.target)) {
        _korLogger_LogByLogger(logger, loggerComponent, nullptr, nullptr, KOR_LOG_DEBUG, nullptr, 0, format,
                               tagOf(component), length, text, logKey);
    } else {
        KOR_LOG(loggerComponent, KOR_LOG_DEBUG, format, tagOf(component), length, text, logKey);
    }
}

void tellUnknownTag(const Target& target, string_view tag)
{
    static constexpr char format[] = "'%.*s' is not a recognized logging tag.";
    if (tellsByLogger(target)) {
        _korLogger_LogByLogger(target.logger, loggerComponent, nullptr, nullptr, KOR_LOG_DEBUG, nullptr, 0, format,
                               printLength(tag), tag.data());
    } else {
        KOR_LOG(loggerComponent, KOR_LOG_DEBUG, format, printLength(tag), tag.data());
    }
}

// ---- Setting --------------------------------------------------------------------------------------------------------

// A logger counts as configured from the first level that a token writes, unless the level list has failed by then.
void setComponent(korEx* ex, uint8_t depth, Setting& setting, uint8_t component)
{
    korLogger* logger = setting.target.logger;
    if (logger == nullptr) {
        __setLogLevel(KOR_AT(ex, depth), component, setting.level);
    } else {
        __setLoggerLogLevel(KOR_AT(ex, depth), logger, component, setting.level);
        if (!setting.begun && setting.target.callerEx->code == 0) {
            __setLoggerSetInit(KOR_AT(ex, depth), logger);
        }
    }
    setting.begun = true;
    tellLevel(setting, component);
}

// Message tracing is asked for by name: "msg:debug" turns it on, a blanket "all:debug" turns it off. Levels above debug
// leave it as it is.
void markTracing(const Setting& setting, uint8_t component, uint8_t tracing, bool fullToo)
{
    if (setting.level > KOR_LOG_DEBUG) {
        return;
    }
    korLogger* logger = setting.target.logger;
    if (component == msgComponent) {
        KOR_ATOMIC_STORE_RELAXED(logger != nullptr ? &logger->msgTracing : &gLoggingMsgTracingSet, tracing);
    } else if (component == msgFullComponent && fullToo) {
        KOR_ATOMIC_STORE_RELAXED(logger != nullptr ? &logger->msgFullTracing : &gLoggingMsgFullTracingSet, tracing);
    }
}

// The level goes where the row's id says, which for the empty row 56 is entry 0.
void setEveryComponent(korEx* ex, uint8_t depth, Setting& setting)
{
    uint8_t highest = highestComponent(KOR_AT(ex, depth));
    for (size_t row = 1; row <= highest; row++) {
        uint8_t component = gComponents[row].id;
        setComponent(KOR_AT(ex, depth), setting, component);
        markTracing(setting, component, 0, true);
    }
}

// A group asks for the tracing of messages in short only.
void setGroup(korEx* ex, uint8_t depth, Setting& setting, uint64_t group)
{
    for (uint8_t component : gGroups[group].components) {
        if (component == 0) {
            return;
        }
        markTracing(setting, component, 1, false);
        setComponent(KOR_AT(ex, depth), setting, component);
    }
}

void setTag(korEx* ex, uint8_t depth, Setting& setting, string_view tag)
{
    if (tag == everyTag) {
        setEveryComponent(KOR_AT(ex, depth), setting);
        return;
    }
    uint8_t component = __getComponentID(KOR_AT(ex, depth), tag);
    if (component != 0) {
        markTracing(setting, component, 1, true);
        setComponent(KOR_AT(ex, depth), setting, component);
        return;
    }
    uint64_t group = __getGroupID(KOR_AT(ex, depth), tag);
    if (group != 0) {
        setGroup(KOR_AT(ex, depth), setting, group);
        return;
    }
    tellUnknownTag(setting.target, tag);
}

bool turnsPreciseTimeOn(string_view token)
{
    bool found = contains(token, "precise_time");
    if (found) {
        KOR_ATOMIC_STORE_RELAXED(&gPreciseTime, 1);
    }
    return found;
}

bool turnsThreadIdOn(string_view token)
{
    bool found = contains(token, "thread_id");
    if (found) {
        KOR_ATOMIC_STORE_RELAXED(&gThreadId, 1);
    }
    return found;
}

// ---- Reading --------------------------------------------------------------------------------------------------------

// A token of a level list without ":". The flags are the global logger's alone.
void applyBare(korEx* ex, uint8_t depth, const Target& target, string_view token)
{
    if (target.logger == nullptr && (turnsPreciseTimeOn(token) || turnsThreadIdOn(token))) {
        return;
    }
    KOR_EX_CHAINED(own, ex, depth);
    int32_t level = levelNamed(KOR_AT(&own, depth), token);
    if (own.code == 0) {
        Setting setting = {target, token, level, false};
        setEveryComponent(KOR_AT(&own, depth), setting);
    }
}

// A token "tag:level". A bad level counts as the default one. The failure has reached the caller's object by then, and
// the work goes on with a clean one.
void applyNamed(korEx* ex, uint8_t depth, const Target& target, string_view token)
{
    size_t mark = token.find(levelMark);
    string_view levelText = without(token, mark + 1);
    KOR_EX_CHAINED(own, ex, depth);
    int32_t level = levelNamed(KOR_AT(&own, depth), levelText);
    if (own.code != 0) {
        level = defaultLevel;
        own.code = 0;
    }
    Setting setting = {target, levelText, level, false};
    setTag(KOR_AT(&own, depth), setting, firstOf(token, mark));
}

// A token of a list that has a ":" somewhere. One without is no level here, whatever it says.
void applyListed(korEx* ex, uint8_t depth, const Target& target, string_view token)
{
    if (contains(token, ":")) {
        applyNamed(KOR_AT(ex, depth), target, token);
    } else if (target.logger == nullptr) {
        turnsPreciseTimeOn(token);
        turnsThreadIdOn(token);
    }
}

void applySpecification(korEx* ex, uint8_t depth, korLogger* logger, string_view specification)
{
    Target target = {logger, ex};
    bool hasLevelMark = contains(specification, ":");
    if (!hasLevelMark && (logger != nullptr || !contains(specification, ";"))) {
        applyBare(KOR_AT(ex, depth), target, specification);
        return;
    }
    string_view token;
    while (nextToken(specification, token)) {
        if (hasLevelMark) {
            applyListed(KOR_AT(ex, depth), target, token);
        } else {
            applyBare(KOR_AT(ex, depth), target, token);
        }
    }
}

// Only a level list that was applied without an error is remembered.
void remember(korEx* ex, uint8_t depth, korLoggerHead* head, const char* specification)
{
    _korRWLock_WriteLock(KOR_AT_D(depth, ex), head->lock);
    _kor_free(KOR_AT_D(depth, ex), head->levelSpec);
    head->levelSpec = ex->code == 0 ? kor::requestCopy(KOR_AT(ex, depth), specification) : nullptr;
    _korRWLock_UnlockWriteLock(KOR_AT_D(depth, ex), head->lock);
}

} // namespace

void _korLogger_SetLogLevels(korEx* ex, uint8_t depth, const char* specification)
{
    if (specification == nullptr || ex->code != 0) {
        return;
    }
    autoInitialize();
    applySpecification(KOR_AT(ex, depth), nullptr, specification);
    remember(KOR_AT(ex, depth), &_gLogger, specification);
}

void korLogger_SetLogLevels(korEx* ex, const char* specification)
{
    _korLogger_SetLogLevels(KOR_AT(ex, 0), specification);
}

void _korLogger_SetLogLevelsForId(korEx* ex, uint8_t depth, uint64_t logKey, const char* specification)
{
    if (specification == nullptr || ex->code != 0) {
        return;
    }
    if (logKey == 0) {
        _korLogger_SetLogLevels(KOR_AT(ex, depth), specification);
        return;
    }
    autoInitialize();
    korLogger* logger = obtainByKey(KOR_AT(ex, depth), logKey);
    if (logger == nullptr) {
        return;
    }
    applySpecification(KOR_AT(ex, depth), logger, specification);
    remember(KOR_AT(ex, depth), &logger->head, specification);
    _korLogger_Release(KOR_AT_D(depth, ex), logger);
}

// ---- Asking ---------------------------------------------------------------------------------------------------------

namespace {

uint32_t give(const char* text, char* buffer, uint32_t size)
{
    return buffer == nullptr ? static_cast<uint32_t>(_kor_strlen(text)) : _kor_snprintf(buffer, size, "%s", text);
}

// True if something is remembered there; `*length` is what the caller is told then.
bool giveRemembered(korEx* ex, uint8_t depth, const korLoggerHead* head, char* buffer, uint32_t size, uint32_t* length)
{
    _korRWLock_ReadLock(KOR_AT_D(depth, ex), head->lock);
    bool remembered = head->levelSpec != nullptr;
    if (remembered) {
        *length = give(head->levelSpec, buffer, size);
    }
    _korRWLock_UnlockReadLock(KOR_AT_D(depth, ex), head->lock);
    return remembered;
}

bool giveRememberedOfKey(korEx* ex, uint8_t depth, uint64_t logKey, char* buffer, uint32_t size, uint32_t* length)
{
    korLogger* logger = logKey != 0 ? obtainLogger(loggerIdOfKey(KOR_AT(ex, depth), logKey)) : nullptr;
    if (logger == nullptr) {
        return false;
    }
    bool remembered = giveRemembered(KOR_AT(ex, depth), &logger->head, buffer, size, length);
    _korLogger_Release(KOR_AT_D(depth, ex), logger);
    return remembered;
}

bool isLevel(korEx* ex, uint8_t depth, string_view text)
{
    levelNamed(KOR_AT(ex, depth), text);
    if (ex->code != 0) {
        KOR_LOG(loggerComponent, KOR_LOG_DEBUG, "Invalid log level: %.*s", printLength(text), text.data());
    }
    return ex->code == 0;
}

bool isTag(korEx* ex, uint8_t depth, string_view tag)
{
    if (tag == everyTag || __getComponentID(KOR_AT(ex, depth), tag) != 0 || __getGroupID(KOR_AT(ex, depth), tag) != 0) {
        return true;
    }
    KOR_LOG(loggerComponent, KOR_LOG_DEBUG, "Invalid tag: %.*s", printLength(tag), tag.data());
    return false;
}

bool isNamedToken(korEx* ex, uint8_t depth, string_view token)
{
    size_t mark = token.find(levelMark);
    return mark == string_view::npos ||
           (isLevel(KOR_AT(ex, depth), without(token, mark + 1)) && isTag(KOR_AT(ex, depth), firstOf(token, mark)));
}

} // namespace

uint32_t _korLogger_GetLogLevelsForId(korEx* ex, uint8_t depth, uint64_t logKey, char* buffer, uint32_t size)
{
    if (ex->code != 0) {
        return 0;
    }
    autoInitialize();
    uint32_t length = 0;
    if (giveRememberedOfKey(KOR_AT(ex, depth), logKey, buffer, size, &length) ||
        giveRemembered(KOR_AT(ex, depth), &_gLogger, buffer, size, &length)) {
        return length;
    }
    return give(_korLogLevel_LevelToString(defaultLevel), buffer, size);
}

// Empty tokens are passed over here, like all that have no ":"; they end nothing.
bool _korLogger_LevelSpecificationsAreValid(korEx* ex, uint8_t depth, const char* specification)
{
    autoInitialize();
    if (specification == nullptr) {
        return false;
    }
    if (ex->code != 0) {
        return true;
    }
    string_view rest = specification;
    if (!contains(rest, ":")) {
        return isLevel(KOR_AT(ex, depth), rest);
    }
    while (!rest.empty()) {
        string_view token;
        nextToken(rest, token);
        if (!isNamedToken(KOR_AT(ex, depth), token)) {
            return false;
        }
    }
    return true;
}
