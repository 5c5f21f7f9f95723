// korTopicList.cpp - the trie of the wildcard topic index: making, storing, pruning, topics as text, enumeration. The
// queries are in topicLookup.cpp.
//
// A node has values or a level below it, and a level but the first has a node, whenever no operation runs; only an
// insertion that failed halfway leaves empty ones, which a later operation prunes. Nothing recurses: a walk over a
// subtree keeps its place in the cursors of the levels' tables.

#include "korutil/korTopicList.h"
#include "foundation/hostile.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"
#include "topics/topicTrie.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>

static_assert(offsetof(korTopicList, levelPool) == 56 && sizeof(korTopicList) == 120);
static_assert(sizeof(korTopicNode) == 40 && sizeof(korTopicLevel) == 24, "chunks of the pools");

using namespace kor::topics;

namespace {

constexpr int32_t tokenChunk = 32; // bytes of a pooled token

// ---- Memory ---------------------------------------------------------------------------------------------------------

// A pool may be NULL: the heap serves.
void* takeMemory(korEx* ex, uint8_t depth, korPool* pool, size_t size)
{
    if (ex->code != 0) {
        return nullptr;
    }
    return pool != nullptr ? _korPool_Get(KOR_AT(ex, depth), pool) : kor::request<void>(KOR_AT(ex, depth), size);
}

void giveMemory(uint8_t depth, korEx* ex, korPool* pool, void* memory)
{
    if (pool != nullptr) {
        _korPool_Return(KOR_AT_D(depth, ex), pool, memory);
    } else {
        _kor_free(KOR_AT_D(depth, ex), memory);
    }
}

// Decided by the length alone, so that a token goes back to where it came from.
korPool* poolForToken(const korTopicList* list, uint32_t length)
{
    return list->tokenPool != nullptr && _korPool_ChunkSize(list->tokenPool) >= length ? list->tokenPool : nullptr;
}

const char* createToken(korEx* ex, uint8_t depth, const korTopicList* list, const Token& token)
{
    if (token.length == 0) {
        return "";
    }
    void* copy = takeMemory(KOR_AT(ex, depth), poolForToken(list, token.length), token.length);
    return copy == nullptr ? nullptr : static_cast<char*>(std::memcpy(copy, token.text, token.length));
}

void destroyToken(uint8_t depth, korEx* ex, const korTopicList* list, const char* text, uint32_t length)
{
    if (length != 0) {
        giveMemory(KOR_AT_D(depth, ex), poolForToken(list, length), const_cast<char*>(text));
    }
}

void destroyValues(uint8_t depth, korEx* ex, const korTopicList* list, korTopicNode* node)
{
    _korDpa_DestroyPooled(KOR_AT_D(depth, ex), node->values, list->dpaPool);
    node->values = nullptr;
}

void destroyNode(uint8_t depth, korEx* ex, const korTopicList* list, korTopicNode* node)
{
    destroyToken(KOR_AT_D(depth, ex), list, node->token, node->tokenLength);
    giveMemory(KOR_AT_D(depth, ex), list->nodePool, node);
}

korTopicNode* createNode(korEx* ex, uint8_t depth, const korTopicList* list, korTopicLevel* level, const Token& token)
{
    const char* text = createToken(KOR_AT(ex, depth), list, token);
    auto* node = static_cast<korTopicNode*>(takeMemory(KOR_AT(ex, depth), list->nodePool, sizeof(korTopicNode)));
    if (node == nullptr) {
        destroyToken(KOR_AT_D(depth, ex), list, text, text == nullptr ? 0 : token.length);
        return nullptr;
    }
    *node = {nullptr, nullptr, nullptr, text, token.length};
    uint32_t length = keyLength(token.length);
    _korHash_Set(KOR_AT(ex, depth), level->nodes, text, length, 0, 0, valueOf(node));
    if (ex->code != 0) {
        // The pair stands in the table if all that failed was to move another entry.
        _korHash_Remove(KOR_AT_D(depth, ex), level->nodes, text, length, 0);
        destroyNode(KOR_AT_D(depth, ex), list, node);
        return nullptr;
    }
    return node;
}

korTopicLevel* _korTopicList_CreateLevel(korEx* ex, uint8_t depth, const korTopicList* list)
{
    auto* level = static_cast<korTopicLevel*>(takeMemory(KOR_AT(ex, depth), list->levelPool, sizeof(korTopicLevel)));
    if (level == nullptr) {
        return nullptr;
    }
    korHash* nodes = _korHash_CreatePooled(KOR_AT(ex, depth), 1, list->hashPool, list->hashEntryPool, nullptr);
    if (nodes == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, nullptr);
        giveMemory(KOR_AT_D(depth, ex), list->levelPool, level);
        return nullptr;
    }
    *level = {nullptr, nullptr, nodes};
    return level;
}

// ---- Levels with all that is below them ----------------------------------------------------------------------------

void destroyEmptyLevel(uint8_t depth, korEx* ex, const korTopicList* list, korTopicLevel* level)
{
    _korHash_Destroy(KOR_AT_D(depth, ex), level->nodes);
    giveMemory(KOR_AT_D(depth, ex), list->levelPool, level);
}

// With all that is below it.
void _korTopicList_DestroyLevel(uint8_t depth, korEx* ex, const korTopicList* list, korTopicLevel* top)
{
    TreeWalk walk = {list, nullptr, nullptr, {}};
    enterLevel(&walk, top, nullptr);
    for (;;) {
        korTopicNode* node = nextNode(&walk.entries);
        if (node != nullptr) {
            destroyValues(KOR_AT_D(depth, ex), list, node);
            if (node->childLevel != nullptr) {
                enterLevel(&walk, node->childLevel, node);
                continue;
            }
        } else {
            korTopicLevel* done = walk.level;
            node = done == top ? nullptr : leaveLevel(&walk);
            destroyEmptyLevel(KOR_AT_D(depth, ex), list, done);
            if (node == nullptr) {
                return;
            }
        }
        destroyNode(KOR_AT_D(depth, ex), list, node);
    }
}

// ---- Pruning --------------------------------------------------------------------------------------------------------

// Asks the list of entries, on which those of a table's old slots stand too: while a table changes its size, its counts
// can run low. The cursor is no entry.
bool isEmpty(const korTopicLevel* level)
{
    const korHash* nodes = level->nodes;
    const korHashEntry* first = nodes->firstEntry == nodes->cursor ? nodes->cursor->listNext : nodes->firstEntry;
    return level->plusNode == nullptr && level->hashNode == nullptr &&
           static_cast<const void*>(first) == static_cast<const void*>(nodes);
}

bool isEmpty(const korTopicNode* node)
{
    return node->values == nullptr && node->childLevel == nullptr;
}

void forgetShortcut(korTopicLevel* level, const korTopicNode* node)
{
    if (level->plusNode == node) {
        level->plusNode = nullptr;
    } else if (level->hashNode == node) {
        level->hashNode = nullptr;
    }
}

// Takes one `value`, or with 0 all, from a node that has values. Gives the number taken.
int32_t takeValues(uint8_t depth, korEx* ex, korTopicList* list, korTopicNode* node, uint64_t value)
{
    int32_t taken = node->values->count;
    if (value != 0) {
        taken = _korDpa_Remove(node->values, value) >= 0 ? 1 : 0;
    }
    list->count -= static_cast<uint32_t>(taken);
    if (value == 0 || node->values->count == 0) {
        destroyValues(KOR_AT_D(depth, ex), list, node);
    }
    return taken;
}

// ---- The path of a topic, on the stacks
// -------------------------------------------------------------------------------

// A token in its level, and its node.
struct Place {
    korTopicLevel* level;
    Token token;
    korTopicNode* node;
};

void pushPlace(korEx* ex, uint8_t depth, korTopicList* list, const Place& place)
{
    _korDpa_AddSafe(KOR_AT(ex, depth), list->nodeStack, valueOf(place.node));
    _korDpa_AddSafe(KOR_AT(ex, depth), list->levelStack, valueOf(place.level));
    _korDpa_AddSafe(KOR_AT(ex, depth), list->tokenStack, valueOf(place.token.text));
    _korDpa_AddSafe(KOR_AT(ex, depth), list->lengthStack, place.token.length);
}

Place popPlace(korTopicList* list)
{
    auto* node = pointerOf<korTopicNode>(pop(list->nodeStack));
    auto* level = pointerOf<korTopicLevel>(pop(list->levelStack));
    auto* text = pointerOf<const char>(pop(list->tokenStack));
    return {level, {text, static_cast<uint32_t>(pop(list->lengthStack)), nullptr}, node};
}

// The place of the topic's last token, with those before it on the stacks; no node if there is no such topic.
Place findTopic(korEx* ex, uint8_t depth, korTopicList* list, const char* topic)
{
    clearStacks(list);
    Place place = {list->rootLevel, cutToken(topic), nullptr};
    for (;;) {
        KOR_EX_PRIVATE(own, ex, depth); // a table of tokens that cannot go on with its change of size hides no topic
        place.node = nodeHashGet(KOR_AT(&own, depth), place.level, place.token);
        if (place.node == nullptr || place.token.rest == nullptr) {
            return place;
        }
        pushPlace(KOR_AT(ex, depth), list, place);
        if (place.node->childLevel == nullptr || ex->code != 0) {
            return {};
        }
        place = {place.node->childLevel, cutToken(place.token.rest), nullptr};
    }
}

// Destroys the node if it is empty, then the level if that was its last node, and so on upward.
void prune(uint8_t depth, korEx* ex, korTopicList* list, Place place)
{
    while (isEmpty(place.node)) {
        const Token& token = place.token;
        _korHash_Remove(KOR_AT_D(depth, ex), place.level->nodes, keyBytes(token.text, token.length),
                        keyLength(token.length), 0);
        forgetShortcut(place.level, place.node);
        destroyNode(KOR_AT_D(depth, ex), list, place.node);
        if (list->nodeStack->count == 0 || !isEmpty(place.level)) {
            return;
        }
        _korTopicList_DestroyLevel(KOR_AT_D(depth, ex), list, place.level);
        place = popPlace(list);
        place.node->childLevel = nullptr;
    }
}

// ---- Storing --------------------------------------------------------------------------------------------------------

korTopicNode* findNode(korEx* ex, uint8_t depth, const korTopicLevel* level, const Token& token)
{
    if (isPlus(token.text, token.length)) {
        return level->plusNode;
    }
    if (isHash(token.text, token.length)) {
        return level->hashNode;
    }
    return nodeHashGet(KOR_AT(ex, depth), level, token);
}

korTopicNode* findOrCreateNode(korEx* ex, uint8_t depth, const korTopicList* list, korTopicLevel* level,
                               const Token& token, korTopicNode* parent)
{
    korTopicNode* node = findNode(KOR_AT(ex, depth), level, token);
    if (node != nullptr || ex->code != 0) {
        return node;
    }
    node = createNode(KOR_AT(ex, depth), list, level, token);
    if (node == nullptr) {
        return nullptr;
    }
    node->parent = parent;
    if (isPlus(token.text, token.length)) {
        level->plusNode = node;
    } else if (isHash(token.text, token.length)) {
        level->hashNode = node;
    }
    return node;
}

// The node of a topic, made if it is not there, with all that leads to it; NULL on an error.
korTopicNode* makeTopic(korEx* ex, uint8_t depth, const korTopicList* list, const char* topic)
{
    korTopicLevel* level = list->rootLevel;
    korTopicNode* parent = nullptr;
    for (;;) {
        Token token = cutToken(topic);
        korTopicNode* node = findOrCreateNode(KOR_AT(ex, depth), list, level, token, parent);
        if (node == nullptr || token.rest == nullptr) {
            return node;
        }
        if (node->childLevel == nullptr) {
            node->childLevel = _korTopicList_CreateLevel(KOR_AT(ex, depth), list);
        }
        if (ex->code != 0) {
            return nullptr;
        }
        level = node->childLevel;
        parent = node;
        topic = token.rest;
    }
}

// A new array has room for its first value, so none is left empty by a failure.
void addValue(korEx* ex, uint8_t depth, korTopicList* list, korTopicNode* node, uint64_t value)
{
    if (node->values == nullptr) {
        korPool* arrays = list->dpaPool == nullptr ? nullptr : list->dpaArrayPool;
        node->values = _korDpa_CreatePooled(KOR_AT(ex, depth), 1, list->dpaPool, arrays);
    }
    if (ex->code == 0) {
        _korDpa_AddSafe(KOR_AT(ex, depth), node->values, value);
    }
}

// From a topic's node up to the first level.
void checkTopic([[maybe_unused]] const korTopicList* list, [[maybe_unused]] const korTopicNode* node)
{
    if constexpr (kor::hostile) {
        for (; node != nullptr; node = node->parent) {
            KOR_INVARIANT(!isEmpty(node) && !isEmpty(levelOf(list, node)));
            KOR_INVARIANT(node->values == nullptr || node->values->count > 0);
            KOR_INVARIANT(isPlus(node->token, node->tokenLength) == (levelOf(list, node)->plusNode == node));
            KOR_INVARIANT(isHash(node->token, node->tokenLength) == (levelOf(list, node)->hashNode == node));
        }
    }
}

// ---- Topics as text -------------------------------------------------------------------------------------------------

// Makes the buffer longer than `end`; false if it cannot be.
bool checkMinSize(korEx* ex, uint8_t depth, char** buffer, int32_t* size, int64_t end)
{
    if (*buffer != nullptr && *size > end) {
        return true;
    }
    if (end >= INT32_MAX) {
        KOR_RAISE(ex, depth, KOR_ERROR_RESOURCE_LIMIT, nullptr);
        return false;
    }
    int64_t wanted = std::clamp<int64_t>(2 * (end + 1), 64, INT32_MAX);
    void* grown =
        kor::granted<void>(KOR_AT(ex, depth), _kor_realloc(KOR_AT(ex, depth), *buffer, static_cast<size_t>(wanted)));
    if (grown == nullptr) {
        return false;
    }
    *buffer = static_cast<char*>(grown);
    *size = static_cast<int32_t>(wanted);
    return true;
}

// Puts a token at `offset`, behind a separator unless it is the first, and gives the offset of the next one: the length
// of the text with its terminator.
int32_t addTokenToTopic(korEx* ex, uint8_t depth, char** buffer, int32_t* size, int32_t offset, const char* token,
                        uint32_t length)
{
    int64_t end = int64_t{offset} + length;
    if (ex->code != 0 || !checkMinSize(KOR_AT(ex, depth), buffer, size, end)) {
        return 0;
    }
    char* text = *buffer;
    if (offset != 0) {
        text[offset - 1] = separator;
    }
    std::memcpy(text + offset, token, length);
    text[end] = '\0';
    return static_cast<int32_t>(end + 1);
}

// ---- Enumeration ----------------------------------------------------------------------------------------------------

struct Visitor {
    korTopicListCallback callback;
    void* closure;
    char* topic; // the text of the current node, and its room
    int32_t size;
};

void visitNode(korEx* ex, uint8_t depth, korTopicList* list, korTopicNode* node, const Visitor* visitor)
{
    if (node->values == nullptr) {
        return;
    }
    uint64_t value = visitor->callback(KOR_AT(ex, depth), visitor->topic, node->values, visitor->closure);
    if (value != 0) {
        takeValues(KOR_AT_D(depth, ex), list, node, value);
    }
}

void dropEmptyChild(uint8_t depth, korEx* ex, const korTopicList* list, korTopicNode* node)
{
    if (isEmpty(node->childLevel)) {
        _korTopicList_DestroyLevel(KOR_AT_D(depth, ex), list, node->childLevel);
        node->childLevel = nullptr;
    }
}

void dropIfEmpty(uint8_t depth, korEx* ex, TreeWalk* walk, korTopicNode* current)
{
    if (isEmpty(current)) {
        _korHash_RemoveCurrent(KOR_AT_D(depth, ex), &walk->entries);
        forgetShortcut(walk->level, current);
        destroyNode(KOR_AT_D(depth, ex), walk->list, current);
    }
}

// Visits all below `top` as well, and prunes on the way back up. With an error the way back is all that is left.
void enumerateLevel(korEx* ex, uint8_t depth, korTopicList* list, korTopicLevel* top, Visitor* visitor)
{
    TreeWalk walk = {list, nullptr, nullptr, {}};
    int32_t offset = 0; // where the tokens of the level go
    enterLevel(&walk, top, nullptr);
    for (;;) {
        korTopicNode* node = ex->code == 0 ? nextNode(&walk.entries) : nullptr;
        int32_t next = 0;
        if (node != nullptr) {
            next = addTokenToTopic(KOR_AT(ex, depth), &visitor->topic, &visitor->size, offset, node->token,
                                   node->tokenLength);
        }
        if (next != 0) {
            visitNode(KOR_AT(ex, depth), list, node, visitor);
            if (node->childLevel != nullptr) {
                enterLevel(&walk, node->childLevel, node);
                offset = next;
                continue;
            }
        } else {
            if (walk.level == top) {
                return;
            }
            node = leaveLevel(&walk);
            offset -= static_cast<int32_t>(node->tokenLength) + 1;
            dropEmptyChild(KOR_AT_D(depth, ex), list, node);
        }
        dropIfEmpty(KOR_AT_D(depth, ex), &walk, node);
    }
}

// ---- Pools and creation ---------------------------------------------------------------------------------------------

using PoolField = korPool* korTopicList::*;

// The order of a shared array of pools.
constexpr PoolField poolFields[] = {&korTopicList::levelPool,   &korTopicList::nodePool,      &korTopicList::tokenPool,
                                    &korTopicList::hashPool,    &korTopicList::hashEntryPool, &korTopicList::dpaPool,
                                    &korTopicList::dpaArrayPool};
constexpr size_t poolCount = std::size(poolFields);

korPool* createPool(korEx* ex, uint8_t depth, int32_t chunkSize)
{
    constexpr int32_t chunksPerBlock = 100;
    constexpr int32_t minBlocks = 1;
    constexpr int32_t refillTarget = 10;
    return _korPool_Create(KOR_AT(ex, depth), chunksPerBlock, chunkSize, nullptr, nullptr, minBlocks, refillTarget);
}

void freePools(uint8_t depth, korEx* ex, korPool* const* pools)
{
    for (size_t index = 0; index < poolCount; ++index) {
        _korPool_Destroy(KOR_AT_D(depth, ex), pools[index]);
    }
}

// Fills a zeroed array. On an error it holds nothing to be given back.
void createPools(korEx* ex, uint8_t depth, korPool** pools)
{
    constexpr int32_t valuesPerChunk = 2;
    pools[0] = createPool(KOR_AT(ex, depth), sizeof(korTopicLevel));
    pools[1] = createPool(KOR_AT(ex, depth), sizeof(korTopicNode));
    pools[2] = createPool(KOR_AT(ex, depth), tokenChunk);
    _korHash_CreatePools(KOR_AT(ex, depth), &pools[3], &pools[4], 0, nullptr, 0);
    _korDpa_CreatePools(KOR_AT(ex, depth), &pools[5], &pools[6], valuesPerChunk);
    if (ex->code != 0) {
        freePools(KOR_AT_D(depth, ex), pools);
    }
}

enum class Records { fromHeap, fromOwnPools, fromSharedPools };

void takePools(korEx* ex, uint8_t depth, korTopicList* list, Records records, korPool* const* shared)
{
    korPool* own[poolCount] = {};
    if (records == Records::fromOwnPools) {
        createPools(KOR_AT(ex, depth), own);
        shared = own;
    }
    if (records == Records::fromHeap || ex->code != 0) {
        return;
    }
    for (size_t index = 0; index < poolCount; ++index) {
        list->*poolFields[index] = shared[index];
    }
    list->ownsPools = records == Records::fromOwnPools;
}

korTopicList* performCreate(korEx* ex, uint8_t depth, Records records, korPool* const* shared)
{
    auto* list = static_cast<korTopicList*>(takeMemory(KOR_AT(ex, depth), nullptr, sizeof(korTopicList)));
    if (list == nullptr) {
        return nullptr;
    }
    *list = {};
    takePools(KOR_AT(ex, depth), list, records, shared);
    list->rootLevel = _korTopicList_CreateLevel(KOR_AT(ex, depth), list);
    list->results = _korDpa_Create(KOR_AT(ex, depth), 4);
    for (korDpa** stack : {&list->nodeStack, &list->levelStack, &list->tokenStack, &list->lengthStack}) {
        *stack = _korDpa_Create(KOR_AT(ex, depth), 16);
    }
    if (ex->code != 0) {
        _korTopicList_Destroy(KOR_AT_D(depth, ex), list);
        return nullptr;
    }
    return list;
}

} // namespace

// ---- Making ---------------------------------------------------------------------------------------------------------

korPool** _korTopicList_CreatePools(korEx* ex, uint8_t depth)
{
    constexpr size_t size = poolCount * sizeof(korPool*);
    auto** pools = static_cast<korPool**>(takeMemory(KOR_AT(ex, depth), nullptr, size));
    if (pools == nullptr) {
        return nullptr;
    }
    std::fill_n(pools, poolCount, nullptr);
    createPools(KOR_AT(ex, depth), pools);
    if (ex->code != 0) {
        _kor_free(KOR_AT_D(depth, ex), pools);
        return nullptr;
    }
    return pools;
}

void _korTopicList_DestroyPools(uint8_t depth, korEx* ex, korPool** pools)
{
    if (pools != nullptr) {
        freePools(KOR_AT_D(depth, ex), pools);
        _kor_free(KOR_AT_D(depth, ex), pools);
    }
}

korTopicList* _korTopicList_Create(korEx* ex, uint8_t depth)
{
    return performCreate(KOR_AT(ex, depth), Records::fromHeap, nullptr);
}

korTopicList* _korTopicList_CreatePooled(korEx* ex, uint8_t depth)
{
    return performCreate(KOR_AT(ex, depth), Records::fromOwnPools, nullptr);
}

korTopicList* _korTopicList_CreatePooledEx(korEx* ex, uint8_t depth, korPool** pools)
{
    return performCreate(KOR_AT(ex, depth), pools == nullptr ? Records::fromOwnPools : Records::fromSharedPools, pools);
}

void _korTopicList_Destroy(uint8_t depth, korEx* ex, korTopicList* list)
{
    if (list == nullptr) {
        return;
    }
    if (list->rootLevel != nullptr) {
        _korTopicList_DestroyLevel(KOR_AT_D(depth, ex), list, list->rootLevel);
    }
    for (korDpa* array : {list->lengthStack, list->tokenStack, list->levelStack, list->nodeStack, list->results}) {
        _korDpa_DestroyPooled(KOR_AT_D(depth, ex), array, nullptr);
    }
    if (list->ownsPools) {
        korPool* pools[poolCount];
        std::transform(poolFields, poolFields + poolCount, pools, [list](PoolField field) { return list->*field; });
        freePools(KOR_AT_D(depth, ex), pools);
    }
    _kor_free(KOR_AT_D(depth, ex), list);
}

// ---- Storing --------------------------------------------------------------------------------------------------------

void _korTopicList_Insert(korEx* ex, uint8_t depth, korTopicList* list, const char* topic, uint64_t value)
{
    _korTopicList_InsertEx(KOR_AT(ex, depth), list, topic, value, nullptr);
}

void _korTopicList_InsertEx(korEx* ex, uint8_t depth, korTopicList* list, const char* topic, uint64_t value,
                            korTopicNode** node)
{
    if (ex->code != 0 || list == nullptr || topic == nullptr) {
        return;
    }
    korTopicNode* end = makeTopic(KOR_AT(ex, depth), list, topic);
    if (ex->code == 0) {
        addValue(KOR_AT(ex, depth), list, end, value);
    }
    if (ex->code != 0) {
        return;
    }
    ++list->count;
    if (node != nullptr) {
        *node = end;
    }
    checkTopic(list, end);
}

int32_t _korTopicList_Remove(uint8_t depth, korEx* ex, korTopicList* list, const char* topic, uint64_t value)
{
    return _korTopicList_RemoveEx(KOR_AT_D(depth, ex), list, topic, value, nullptr);
}

int32_t _korTopicList_RemoveEx(uint8_t depth, korEx* ex, korTopicList* list, const char* topic, uint64_t value,
                               int32_t* remaining)
{
    if (list == nullptr || topic == nullptr) {
        return 0;
    }
    KOR_EX_CHAINED(local, ex, depth); // lookups do nothing with an error pending
    Place place = findTopic(KOR_AT(&local, depth), list, topic);
    if (place.node == nullptr || place.node->values == nullptr) {
        return 0;
    }
    int32_t removed = takeValues(KOR_AT_D(depth, &local), list, place.node, value);
    if (remaining != nullptr) {
        *remaining = place.node->values == nullptr ? 0 : place.node->values->count;
    }
    prune(KOR_AT_D(depth, &local), list, place);
    return removed;
}

// ---- Questions about what is stored ---------------------------------------------------------------------------------

int32_t _korTopicList_Topic(korEx* ex, uint8_t depth, korTopicList* list, const korTopicNode* node, char** buffer,
                            int32_t* size)
{
    if (ex->code != 0 || list == nullptr) {
        return 0;
    }
    list->nodeStack->count = 0;
    for (; node != nullptr && ex->code == 0; node = node->parent) {
        _korDpa_AddSafe(KOR_AT(ex, depth), list->nodeStack, valueOf(node));
    }
    int32_t offset = 0;
    while (list->nodeStack->count > 0 && ex->code == 0) {
        const auto* next = pointerOf<const korTopicNode>(pop(list->nodeStack));
        offset = addTokenToTopic(KOR_AT(ex, depth), buffer, size, offset, next->token, next->tokenLength);
    }
    return ex->code == 0 ? offset : 0;
}

void _korTopicList_Enumerate(korEx* ex, uint8_t depth, korTopicList* list, korTopicListCallback callback, void* closure)
{
    if (ex->code != 0 || list == nullptr || callback == nullptr) {
        return;
    }
    Visitor visitor = {callback, closure, nullptr, 0};
    enumerateLevel(KOR_AT(ex, depth), list, list->rootLevel, &visitor);
    _kor_free(KOR_AT_D(depth, ex), visitor.topic);
}

uint32_t _korTopicList_Count(korEx* ex, uint8_t, const korTopicList* list)
{
    return ex->code == 0 && list != nullptr ? list->count : 0;
}

int32_t _korTopicList_SameTopicCount(korEx* ex, uint8_t, const korTopicNode* node)
{
    return ex->code == 0 ? node->values->count : 0;
}
