// logComponents.cpp - the tables of components and groups, and the default levels.
//
// The ids of the built-in components are compiled into other modules and stay what they are for ever.

#include "foundation/request.h"
#include "log/logger.h"

#include "korutil/korAlloc.h"
#include "korutil/korText.h"

#include <array>
#include <cctype>
#include <cstring>
#include <limits>

namespace kor::logging {

namespace {

struct BuiltInComponent {
    const char* tag;
    const char* shortTag;
};

// By id. Rows 0 and 56 are empty on purpose: no statement belongs to them.
constexpr BuiltInComponent builtInRows[builtInComponents + 1] = {
    {nullptr, nullptr},    {"mez", "mez"},         {"advisories", "adv"},   {"egress", "egrs"},
    {"ingress", "igrs"},   {"executor", "exec"},   {"formats", "fmts"},     {"matchers", "mtch"},
    {"messages", "msgs"},  {"pdu_handler", "pdu"}, {"queues", "ques"},      {"sid", "sid"},
    {"timers", "tmrs"},    {"publishers", "pubs"}, {"subscribers", "subs"}, {"connect", "conn"},
    {"interest", "intr"},  {"data", "data"},       {"groups", "grps"},      {"api", "api"},
    {"rsclient", "rscl"},  {"rsconfig", "rscf"},   {"satellite", "satl"},   {"servers", "srvs"},
    {"web", "web"},        {"echo", "echo"},       {"mcast", "mcst"},       {"rdma", "rdma"},
    {"shm", "shm"},        {"tcp", "tcp"},         {"rudp", "rudp"},        {"transports", "tpts"},
    {"stream", "strm"},    {"instream", "istr"},   {"outstream", "ostr"},   {"srcstream", "sstr"},
    {"pubstream", "pstr"}, {"store", "stor"},      {"cluster", "clus"},     {"scme", "scme"},
    {"dcme", "dcme"},      {"smpe", "smpe"},       {"ampe", "ampe"},        {"durables", "durs"},
    {"manager", "mngr"},   {"quorum", "qurm"},     {"election", "elec"},    {"sync", "sync"},
    {"broker", "brkr"},    {"tls", "tls"},         {"tests", "tsts"},       {"proxy", "prxy"},
    {"dr", "dr"},          {"rest", "rest"},       {"expiration", "exp"},   {"route", "rte"},
    {nullptr, nullptr},    {"msg", "msg"},         {"msg_full", "msgf"},    {"api_internal", "iapi"},
    {"monitor", "mon"},    {"mux", "mux"},         {"websocket", "ws"},     {"muxreg", "mxrg"},
    {"disk", "disk"},
};

// "transports" and "store" name components too, and a component goes first.
constexpr Group builtInGroupRows[builtInGroups + 1] = {
    {0, nullptr, {}},
    {1, "application", {19, 6, 7, 57, 60}},
    {2, "IO", {3, 4, 9}},
    {3, "RS", {1, 20, 21, 22, 23, 24}},
    {4, "transports", {25, 26, 27, 28, 29, 30, 31}},
    {5, "store", {37, 38, 39, 40, 41, 42, 43, 44, 1, 52, 45, 46, 47}},
    {6, "security", {49}},
};

constexpr int32_t initialLevel(size_t component)
{
    return component <= builtInComponents && builtInRows[component].tag != nullptr ? defaultLevel : KOR_LOG_OFF;
}

// The levels stand before the system is up, so that a statement that is stopped need not bring it up.
constexpr std::array<int32_t, KOR_LOG_LEVEL_SLOTS> initialLevels()
{
    std::array<int32_t, KOR_LOG_LEVEL_SLOTS> levels{};
    for (size_t component = 0; component < levels.size(); component++) {
        levels[component] = initialLevel(component);
    }
    return levels;
}

constinit std::array<int32_t, KOR_LOG_LEVEL_SLOTS> gLevels = initialLevels();

} // namespace

constinit Component gComponents[KOR_LOG_MAX_COMPONENT + 1] = {};
constinit Group gGroups[KOR_LOG_MAX_GROUP + 1] = {};

TagKey keyOf(Slice tag)
{
    TagKey key;
    size_t length = tag.length < maxTagLength ? tag.length : maxTagLength - 1;
    for (size_t index = 0; index < length; index++) {
        key.text[index] = static_cast<char>(std::tolower(static_cast<unsigned char>(tag.text[index])));
    }
    key.text[length] = '\0';
    return key;
}

const char* tagOf(uint8_t component)
{
    const char* tag =
        component <= KOR_LOG_MAX_COMPONENT ? KOR_ATOMIC_LOAD_ACQUIRE(&gComponents[component].tag) : nullptr;
    return tag != nullptr ? tag : "(null)";
}

const char* shortTagOf(uint8_t component)
{
    return component <= KOR_LOG_MAX_COMPONENT ? KOR_ATOMIC_LOAD_ACQUIRE(&gComponents[component].shortTag) : nullptr;
}

bool isUp(korEx* ex, uint8_t depth)
{
    if (_gLogger.lock == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_NOT_INITIALIZED, "The logging system is not initialized.");
    }
    return ex->code == 0;
}

uint8_t highestComponent(korEx* ex, uint8_t depth)
{
    _korRWLock_ReadLock(KOR_AT_D(depth, ex), _gLogger.lock);
    uint8_t highest = _gLogger.componentCount;
    _korRWLock_UnlockReadLock(KOR_AT_D(depth, ex), _gLogger.lock);
    return highest;
}

// ---- Levels ---------------------------------------------------------------------------------------------------------

namespace {

void storeLevel(int32_t* levels, uint8_t component, int32_t level)
{
    KOR_ATOMIC_STORE_RELAXED(&levels[component], level);
}

} // namespace

void __setLogLevel(korEx* ex, uint8_t depth, uint8_t component, int32_t level)
{
    _korRWLock_WriteLock(KOR_AT_D(depth, ex), _gLogger.lock);
    storeLevel(gLevels.data(), component, level);
    _korRWLock_UnlockWriteLock(KOR_AT_D(depth, ex), _gLogger.lock);
}

void __setLoggerLogLevel(korEx* ex, uint8_t depth, korLogger* logger, uint8_t component, int32_t level)
{
    _korRWLock_WriteLock(KOR_AT_D(depth, ex), logger->head.lock);
    storeLevel(logger->levels, component, level);
    _korRWLock_UnlockWriteLock(KOR_AT_D(depth, ex), logger->head.lock);
}

int32_t levelOf(const korLogger* logger, uint8_t component)
{
    return KOR_ATOMIC_LOAD_RELAXED(&logger->levels[component]);
}

// ---- Start and end --------------------------------------------------------------------------------------------------

namespace {

void fillRow(uint8_t id, const char* tag, const char* shortTag)
{
    Component& row = gComponents[id];
    row.id = id;
    KOR_ATOMIC_STORE_RELEASE(&row.shortTag, shortTag);
    KOR_ATOMIC_STORE_RELEASE(&row.tag, tag);
}

// The hashes are made with room for all the tags there can be, and none is ever removed: they never change size, so
// that many readers may look at once.
uint64_t enterTag(korEx* ex, uint8_t depth, korStrHash* tags, const char* tag, uint64_t id)
{
    TagKey key = keyOf({tag, _kor_strlen(tag)});
    return _korStrHash_Set(KOR_AT(ex, depth), tags, key.text, 1, id);
}

} // namespace

void __initStaticComponents(korEx* ex, uint8_t depth)
{
    constexpr int64_t buckets = 256;
    _gLogger.componentTags = _korStrHash_Create(KOR_AT(ex, depth), buckets);
    for (size_t id = 0; ex->code == 0 && id <= KOR_LOG_MAX_COMPONENT; id++) {
        auto component = static_cast<uint8_t>(id);
        gComponents[id] = {};
        if (id <= builtInComponents && builtInRows[id].tag != nullptr) {
            fillRow(component, builtInRows[id].tag, builtInRows[id].shortTag);
            enterTag(KOR_AT(ex, depth), _gLogger.componentTags, builtInRows[id].tag, id);
        }
        __setLogLevel(KOR_AT(ex, depth), component, initialLevel(id));
    }
    _gLogger.componentCount = builtInComponents;
}

void _initStaticGroups(korEx* ex, uint8_t depth)
{
    constexpr int64_t buckets = 64;
    _gLogger.groupTags = _korStrHash_Create(KOR_AT(ex, depth), buckets);
    for (uint64_t id = 0; ex->code == 0 && id <= KOR_LOG_MAX_GROUP; id++) {
        gGroups[id] = id <= builtInGroups ? builtInGroupRows[id] : Group{};
        if (gGroups[id].tag != nullptr) {
            enterTag(KOR_AT(ex, depth), _gLogger.groupTags, gGroups[id].tag, id);
        }
    }
    _gLogger.groupCount = builtInGroups;
}

void dropGroups(korEx* ex, uint8_t depth)
{
    for (uint64_t id = builtInGroups + 1; id <= KOR_LOG_MAX_GROUP; id++) {
        _kor_free(KOR_AT_D(depth, ex), const_cast<char*>(gGroups[id].tag));
        gGroups[id] = {};
    }
    _korStrHash_Destroy(KOR_AT_D(depth, ex), _gLogger.groupTags);
    _gLogger.groupTags = nullptr;
}

void dropComponents(korEx* ex, uint8_t depth)
{
    _korStrHash_Destroy(KOR_AT_D(depth, ex), _gLogger.componentTags);
    _gLogger.componentTags = nullptr;
    for (size_t id = builtInComponents + 1; id <= KOR_LOG_MAX_COMPONENT; id++) {
        _kor_free(KOR_AT_D(depth, ex), const_cast<char*>(gComponents[id].tag));
        _kor_free(KOR_AT_D(depth, ex), const_cast<char*>(gComponents[id].shortTag));
        gComponents[id] = {};
    }
}

// ---- Registration ---------------------------------------------------------------------------------------------------

namespace {

bool isLonger(const char* text, size_t maximum)
{
    return _kor_strnlen(text, maximum + 1) > maximum;
}

// The new component is at its default level in every logger. A logger of the table has its owner's reference as long as
// the table's lock is held, so none of the references taken here is the last one, whose release would want that lock.
void levelEveryLogger(korEx* ex, uint8_t depth, uint8_t component)
{
    korI64HashIterator walk;
    uint64_t loggerId;
    _korI64Hash_IteratorInit(KOR_AT(ex, depth), &gLoggersByKey, &walk);
    while (_korI64Hash_Next(KOR_AT(ex, depth), &walk, nullptr, &loggerId)) {
        korLogger* logger = obtainLogger(loggerId);
        if (logger != nullptr) {
            __setLoggerLogLevel(KOR_AT(ex, depth), logger, component, defaultLevel);
            _korLogger_Release(KOR_AT_D(depth, ex), logger);
        }
    }
}

// With the lock held.
uint8_t addComponent(korEx* ex, uint8_t depth, const char* tag, const char* shortTag)
{
    if (_gLogger.componentCount >= KOR_LOG_MAX_COMPONENT) {
        KOR_RAISE(ex, depth, KOR_ERROR_NOT_PERMITTED, "The number of log components exceeded maximum");
        return 0;
    }
    auto id = static_cast<uint8_t>(_gLogger.componentCount + 1);
    char* ownTag = requestCopy(KOR_AT(ex, depth), tag);
    char* ownShortTag = ex->code == 0 ? requestCopy(KOR_AT(ex, depth), shortTag) : nullptr;
    enterTag(KOR_AT(ex, depth), _gLogger.componentTags, tag, id);
    if (ex->code != 0) {
        _kor_free(KOR_AT_D(depth, ex), ownTag);
        _kor_free(KOR_AT_D(depth, ex), ownShortTag);
        return 0;
    }
    fillRow(id, ownTag, ownShortTag);
    storeLevel(gLevels.data(), id, defaultLevel);
    levelEveryLogger(KOR_AT(ex, depth), id);
    _gLogger.componentCount = id;
    return id;
}

uint8_t findOrAddComponent(korEx* ex, uint8_t depth, const char* tag, const char* shortTag)
{
    TagKey key = keyOf({tag, _kor_strlen(tag)});
    auto id = static_cast<uint8_t>(_korStrHash_Get(KOR_AT(ex, depth), _gLogger.componentTags, key.text));
    return id != 0 ? id : addComponent(KOR_AT(ex, depth), tag, shortTag);
}

// With the lock held. An earlier group of the tag keeps its row and loses its name.
uint64_t addGroup(korEx* ex, uint8_t depth, const char* tag, const uint8_t* components, uint32_t count)
{
    if (_gLogger.groupCount >= KOR_LOG_MAX_GROUP) {
        KOR_RAISE(ex, depth, KOR_ERROR_NOT_PERMITTED, "The number of log groups exceeded maximum");
        return 0;
    }
    uint64_t id = _gLogger.groupCount + 1;
    char* ownTag = requestCopy(KOR_AT(ex, depth), tag);
    enterTag(KOR_AT(ex, depth), _gLogger.groupTags, tag, id);
    if (ex->code != 0) {
        _kor_free(KOR_AT_D(depth, ex), ownTag);
        return 0;
    }
    Group& row = gGroups[id];
    row = {id, ownTag, {}};
    std::memcpy(row.components, components, count);
    _gLogger.groupCount = id;
    return id;
}

} // namespace
} // namespace kor::logging

using namespace kor::logging;

int32_t* gLoggingComponentLevels = gLevels.data();

uint8_t _korLogger_RegisterComponent(korEx* ex, uint8_t depth, const char* tag, const char* shortTag)
{
    if (tag == nullptr || shortTag == nullptr || ex->code != 0) {
        return 0;
    }
    if (isLonger(tag, maxTagLength)) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_VALUE, "Invalid tag value: too long");
        return 0;
    }
    if (isLonger(shortTag, maxShortTagLength)) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_VALUE, "Invalid shortTag value: too long");
        return 0;
    }
    if (!isUp(KOR_AT(ex, depth))) {
        return 0;
    }
    _korRWLock_WriteLock(KOR_AT_D(depth, ex), _gLogger.lock);
    uint8_t id = findOrAddComponent(KOR_AT(ex, depth), tag, shortTag);
    _korRWLock_UnlockWriteLock(KOR_AT_D(depth, ex), _gLogger.lock);
    return id;
}

uint64_t _korLogger_RegisterLogGroup(korEx* ex, uint8_t depth, const char* groupTag, const uint8_t* components,
                                     uint32_t count)
{
    if (count == 0 || components == nullptr || groupTag == nullptr || ex->code != 0) {
        return 0;
    }
    if (isLonger(groupTag, maxTagLength)) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_VALUE, "Invalid groupTag value");
        return 0;
    }
    if (count > KOR_LOG_GROUP_SIZE) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_VALUE, "Too many components per group");
        return 0;
    }
    if (!isUp(KOR_AT(ex, depth))) {
        return 0;
    }
    _korRWLock_WriteLock(KOR_AT_D(depth, ex), _gLogger.lock);
    uint64_t id = addGroup(KOR_AT(ex, depth), groupTag, components, count);
    _korRWLock_UnlockWriteLock(KOR_AT_D(depth, ex), _gLogger.lock);
    return id;
}

// ---- Levels of components -------------------------------------------------------------------------------------------

int32_t _korLogger_GetLogLevel(uint8_t component)
{
    autoInitialize();
    return KOR_ATOMIC_LOAD_RELAXED(&gLoggingComponentLevels[component]);
}

void _korLogger_SetLogLevelWithLevel(uint8_t component, int32_t level)
{
    autoInitialize();
    KOR_EX_LOCAL(local);
    __setLogLevel(KOR_AT(&local, 0), component, level);
    KOR_LOG(loggerComponent, KOR_LOG_DEBUG, "Set log level of component '%s' to level '%s'.", tagOf(component),
            _korLogLevel_LevelToString(level));
}

namespace {

// A number beyond a signed 8-bit one is of the older scale, ten times the present; its two ends are those of this one.
int32_t presentLevel(int32_t level)
{
    if (level == std::numeric_limits<int32_t>::min()) {
        return KOR_LOG_ALL;
    }
    if (level == std::numeric_limits<int32_t>::max()) {
        return KOR_LOG_OFF;
    }
    return fitsPresentScale(level) ? level : level / 10;
}

} // namespace

void _korLogger_SetLogLevel(uint8_t component, int32_t level)
{
    _korLogger_SetLogLevelWithLevel(component, presentLevel(level));
}

void _korLogger_SetLogLevelToDefault(uint8_t component)
{
    _korLogger_SetLogLevelWithLevel(component, defaultLevel);
}
