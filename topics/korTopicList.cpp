// korTopicList.cpp - the trie: making, inserting, removing with pruning, the text of a topic, enumeration.

#include "topics/topicTrie.h"

#include "foundation/hostile.h"
#include "korutil/korAlloc.h"

#include <algorithm>

static_assert(sizeof(korTopicLevel) == 24 && sizeof(korTopicNode) == 40);

namespace kor {

using namespace topics;

namespace {

// ---- Pools. A list's seven pool fields stand together, in the order of the array. ----

constexpr int poolCount = 7;
constexpr int32_t tokenChunk = 32;
constexpr int32_t valuesInChunk = 2;

struct Pools {
    korPool* level;
    korPool* node;
    korPool* token;
    korPool* hash;
    korPool* hashEntry;
    korPool* dpa;
    korPool* dpaArray;
};

static_assert(sizeof(Pools) == poolCount * sizeof(korPool*));
static_assert(offsetof(korTopicList, dpaArrayPool) - offsetof(korTopicList, levelPool) == offsetof(Pools, dpaArray));

Pools* poolsOf(korTopicList* list)
{
    return reinterpret_cast<Pools*>(&list->levelPool);
}

void freePools(uint8_t depth, korEx* ex, Pools* pools)
{
    for (korPool* pool :
         {pools->dpaArray, pools->dpa, pools->hashEntry, pools->hash, pools->token, pools->node, pools->level}) {
        _korPool_Destroy(KOR_AT_D(depth, ex), pool);
    }
    *pools = {};
}

korPool* createPool(korEx* ex, uint8_t depth, int32_t chunkSize)
{
    return _korPool_Create(KOR_AT(ex, depth), 100, chunkSize, nullptr, nullptr, 1, 10);
}

void createPools(korEx* ex, uint8_t depth, Pools* pools)
{
    *pools = {};
    pools->level = createPool(KOR_AT(ex, depth), sizeof(korTopicLevel));
    pools->node = createPool(KOR_AT(ex, depth), sizeof(korTopicNode));
    pools->token = createPool(KOR_AT(ex, depth), tokenChunk);
    _korHash_CreatePools(KOR_AT(ex, depth), &pools->hash, &pools->hashEntry, 0, nullptr, 0);
    _korDpa_CreatePools(KOR_AT(ex, depth), &pools->dpa, &pools->dpaArray, valuesInChunk);
    if (ex->code != 0) {
        freePools(KOR_AT_D(depth, ex), pools);
    }
}

// Zeroed, from the pool if there is one.
void* take(korEx* ex, uint8_t depth, korPool* pool, size_t size)
{
    if (pool == nullptr) {
        return _kor_calloc(KOR_AT(ex, depth), 1, size);
    }
    void* record = _korPool_Get(KOR_AT(ex, depth), pool);
    return record == nullptr ? nullptr : memset(record, 0, size);
}

void giveBack(uint8_t depth, korEx* ex, korPool* pool, void* record)
{
    if (pool == nullptr) {
        _kor_free(KOR_AT_D(depth, ex), record);
    } else {
        _korPool_Return(KOR_AT_D(depth, ex), pool, record);
    }
}

// ---- Levels and nodes ----

korTopicLevel* _korTopicList_CreateLevel(korEx* ex, uint8_t depth, korTopicList* list)
{
    auto* level = static_cast<korTopicLevel*>(take(KOR_AT(ex, depth), list->levelPool, sizeof(korTopicLevel)));
    if (level == nullptr) {
        return nullptr;
    }
    level->nodes = _korHash_CreatePooled(KOR_AT(ex, depth), 1, list->hashPool, list->hashEntryPool, nullptr);
    if (level->nodes == nullptr) {
        giveBack(KOR_AT_D(depth, ex), list->levelPool, level);
        return nullptr;
    }
    return level;
}

// Of a level whose nodes are gone, or that has none.
void dropLevel(uint8_t depth, korEx* ex, korTopicList* list, korTopicLevel* level)
{
    _korHash_Destroy(KOR_AT_D(depth, ex), level->nodes);
    giveBack(KOR_AT_D(depth, ex), list->levelPool, level);
}

// The pool that a token of this length comes from; NULL is the heap.
korPool* tokenPoolFor(const korTopicList* list, uint32_t length)
{
    return length <= tokenChunk ? list->tokenPool : nullptr;
}

char* createToken(korEx* ex, uint8_t depth, korTopicList* list, const Token& token)
{
    korPool* pool = tokenPoolFor(list, token.length);
    void* copy = pool != nullptr ? _korPool_Get(KOR_AT(ex, depth), pool) : _kor_malloc(KOR_AT(ex, depth), token.length);
    return copy == nullptr ? nullptr : static_cast<char*>(memcpy(copy, token.text, token.length));
}

void destroyToken(uint8_t depth, korEx* ex, korTopicList* list, const char* token, uint32_t length)
{
    if (length != 0) {
        giveBack(KOR_AT_D(depth, ex), tokenPoolFor(list, length), const_cast<char*>(token));
    }
}

void destroyNode(uint8_t depth, korEx* ex, korTopicList* list, korTopicNode* node)
{
    destroyToken(KOR_AT_D(depth, ex), list, node->token, node->tokenLength);
    giveBack(KOR_AT_D(depth, ex), list->nodePool, node);
}

korTopicNode* createNode(korEx* ex, uint8_t depth, korTopicList* list, korTopicLevel* level, const Token& token)
{
    const char* text = token.length == 0 ? "" : createToken(KOR_AT(ex, depth), list, token);
    if (text == nullptr) {
        return nullptr;
    }
    auto* node = static_cast<korTopicNode*>(take(KOR_AT(ex, depth), list->nodePool, sizeof(korTopicNode)));
    if (node == nullptr) {
        destroyToken(KOR_AT_D(depth, ex), list, text, token.length);
        return nullptr;
    }
    node->token = text;
    node->tokenLength = token.length;
    _korHash_Set(KOR_AT(ex, depth), level->nodes, text, keyLength(token.length), 0, 0,
                 reinterpret_cast<uint64_t>(node));
    if (ex->code != 0) {
        _korHash_Remove(KOR_AT_D(depth, ex), level->nodes, text, keyLength(token.length), 0);
        destroyNode(KOR_AT_D(depth, ex), list, node);
        return nullptr;
    }
    return node;
}

void destroyValues(uint8_t depth, korEx* ex, korTopicList* list, korTopicNode* node)
{
    _korDpa_DestroyPooled(KOR_AT_D(depth, ex), node->values, list->dpaPool);
    node->values = nullptr;
}

// Every node of a level and all below them; goes up again by the parents. `above` is the node that the level hangs
// from, NULL for the first level.
void _korTopicList_DestroyLevel(uint8_t depth, korEx* ex, korTopicList* list, korTopicLevel* level)
{
    korTopicNode* above = nullptr;
    korTopicNode* node = firstNode(level);
    for (;;) {
        if (node != nullptr) {
            destroyValues(KOR_AT_D(depth, ex), list, node);
            if (node->childLevel != nullptr) {
                above = node;
                level = node->childLevel;
                node = firstNode(level);
                continue;
            }
        } else {
            dropLevel(KOR_AT_D(depth, ex), list, level);
            if (above == nullptr) {
                return;
            }
            node = above;
            above = node->parent;
            level = levelOf(list, node);
        }
        destroyNode(KOR_AT_D(depth, ex), list, node); // the walk over its level does not look at its key again
        node = nextNode(level);
    }
}

// ---- Making a list ----

void makeParts(korEx* ex, uint8_t depth, korTopicList* list)
{
    constexpr int32_t firstResults = 4;
    constexpr int32_t firstStack = 16;
    list->rootLevel = ex->code == 0 ? _korTopicList_CreateLevel(KOR_AT(ex, depth), list) : nullptr;
    list->results = _korDpa_Create(KOR_AT(ex, depth), firstResults);
    for (korDpa** stack : {&list->nodeStack, &list->levelStack, &list->tokenStack, &list->lengthStack}) {
        *stack = _korDpa_Create(KOR_AT(ex, depth), firstStack);
    }
}

korTopicList* performCreate(korEx* ex, uint8_t depth, korPool** pools, bool owned)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto* list = static_cast<korTopicList*>(_kor_calloc(KOR_AT(ex, depth), 1, sizeof(korTopicList)));
    if (list == nullptr) {
        return nullptr;
    }
    if (owned) {
        createPools(KOR_AT(ex, depth), poolsOf(list));
        list->ownsPools = 1;
    } else if (pools != nullptr) {
        memcpy(poolsOf(list), pools, sizeof(Pools));
    }
    makeParts(KOR_AT(ex, depth), list);
    if (ex->code != 0) {
        _korTopicList_Destroy(KOR_AT_D(depth, ex), list);
        return nullptr;
    }
    return list;
}

// ---- Inserting ----

korTopicNode* findChild(korEx* ex, uint8_t depth, const korTopicLevel* level, const Token& token)
{
    if (isPlus(token)) {
        return level->plusNode;
    }
    return isHash(token) ? level->hashNode : nodeHashGet(KOR_AT(ex, depth), level, token);
}

korTopicNode* findOrCreate(korEx* ex, uint8_t depth, korTopicList* list, korTopicLevel* level, korTopicNode* parent,
                           const Token& token)
{
    korTopicNode* node = findChild(KOR_AT(ex, depth), level, token);
    if (node != nullptr || ex->code != 0) {
        return ex->code == 0 ? node : nullptr;
    }
    node = createNode(KOR_AT(ex, depth), list, level, token);
    if (node == nullptr) {
        return nullptr;
    }
    node->parent = parent;
    if (isPlus(token)) {
        level->plusNode = node;
    } else if (isHash(token)) {
        level->hashNode = node;
    }
    return node;
}

// The node of a topic, with all that leads to it. What was made of it before a failure stays: a later operation prunes
// it.
korTopicNode* buildPath(korEx* ex, uint8_t depth, korTopicList* list, const char* topic)
{
    korTopicLevel* level = list->rootLevel;
    korTopicNode* node = nullptr;
    for (;;) {
        Token token = cutToken(topic);
        node = findOrCreate(KOR_AT(ex, depth), list, level, node, token);
        if (node == nullptr || token.next == nullptr) {
            return node;
        }
        if (node->childLevel == nullptr) {
            node->childLevel = _korTopicList_CreateLevel(KOR_AT(ex, depth), list);
            if (node->childLevel == nullptr) {
                return nullptr;
            }
        }
        level = node->childLevel;
        topic = token.next;
    }
}

void addValue(korEx* ex, uint8_t depth, korTopicList* list, korTopicNode* node, uint64_t value)
{
    if (node->values == nullptr) {
        node->values = _korDpa_PerformCreate(KOR_AT(ex, depth), 1, list->dpaPool, list->dpaArrayPool);
    }
    if (node->values == nullptr) {
        return;
    }
    _korDpa_AddSafe(KOR_AT(ex, depth), node->values, value);
    if (node->values->count == 0) {
        destroyValues(KOR_AT_D(depth, ex), list, node);
    }
}

// ---- Removing ----

bool isEmptyLevel(const korTopicLevel* level)
{
    const korHash* nodes = level->nodes;
    return level->plusNode == nullptr && level->hashNode == nullptr && nodes->count == 0 &&
           (nodes->oldHash == nullptr || nodes->oldHash->count == 0);
}

// A shortcut must not outlive its node.
void forgetShortcut(korTopicLevel* level, const korTopicNode* node)
{
    if (level->plusNode == node) {
        level->plusNode = nullptr;
    } else if (level->hashNode == node) {
        level->hashNode = nullptr;
    }
}

// From the deepest node upward, as long as nodes and levels fall empty.
void prune(uint8_t depth, korEx* ex, korTopicList* list, korTopicNode* node)
{
    while (node->values == nullptr && node->childLevel == nullptr) {
        korTopicLevel* level = levelOf(list, node);
        korTopicNode* parent = node->parent;
        _korHash_Remove(KOR_AT_D(depth, ex), level->nodes, node->token, keyLength(node->tokenLength), 0);
        forgetShortcut(level, node);
        destroyNode(KOR_AT_D(depth, ex), list, node);
        if (parent == nullptr || !isEmptyLevel(level)) {
            return;
        }
        dropLevel(KOR_AT_D(depth, ex), list, level);
        parent->childLevel = nullptr;
        node = parent;
    }
}

// The node of a topic's text, wildcards being plain here; NULL if there is none. Works with an error pending.
korTopicNode* findNode(uint8_t depth, korEx* ex, const korTopicList* list, const char* topic)
{
    KOR_EX_PRIVATE(local, ex, depth);
    const korTopicLevel* level = list->rootLevel;
    for (;;) {
        Token token = cutToken(topic);
        korTopicNode* node = nodeHashGet(KOR_AT(&local, depth), level, token);
        korEx_Clear(&local); // a table that could not move its entries was asked all the same
        if (node == nullptr || token.next == nullptr) {
            return node;
        }
        if (node->childLevel == nullptr) {
            return nullptr;
        }
        level = node->childLevel;
        topic = token.next;
    }
}

int32_t removeValues(uint8_t depth, korEx* ex, korTopicList* list, korTopicNode* node, uint64_t value)
{
    int32_t removed = 0;
    if (value == 0) {
        removed = node->values->count;
        node->values->count = 0;
    } else if (_korDpa_Remove(node->values, value) >= 0) {
        removed = 1;
    }
    list->count -= static_cast<uint32_t>(removed);
    if (node->values->count == 0) {
        destroyValues(KOR_AT_D(depth, ex), list, node);
    }
    return removed;
}

// ---- The text of a topic ----

struct Text {
    char** buffer;
    int32_t* size;
};

bool checkMinSize(korEx* ex, uint8_t depth, const Text& text, int64_t end)
{
    constexpr int64_t least = 64;
    if (*text.size > end) {
        return true;
    }
    int64_t size = std::max(2 * (end + 1), least);
    if (size > INT32_MAX) {
        KOR_RAISE(ex, depth, KOR_ERROR_RESOURCE_LIMIT, nullptr);
        return false;
    }
    void* grown = _kor_realloc(KOR_AT(ex, depth), *text.buffer, static_cast<size_t>(size));
    if (grown == nullptr) {
        return false;
    }
    *text.buffer = static_cast<char*>(grown);
    *text.size = static_cast<int32_t>(size);
    return true;
}

// Writes a token at `offset`, behind a "/" in the place of the terminator before it. Gives the offset of the next one,
// which is the length of the text with its terminator.
int32_t addTokenToTopic(korEx* ex, uint8_t depth, const Text& text, int32_t offset, const korTopicNode* node)
{
    int64_t end = int64_t{offset} + node->tokenLength;
    if (ex->code != 0 || !checkMinSize(KOR_AT(ex, depth), text, end)) {
        return 0;
    }
    char* buffer = *text.buffer;
    if (offset != 0) {
        buffer[offset - 1] = '/';
    }
    memcpy(buffer + offset, node->token, node->tokenLength);
    buffer[end] = '\0';
    return static_cast<int32_t>(end + 1);
}

// ---- Enumeration ----

struct Enumeration {
    korTopicList* list;
    korTopicListCallback callback;
    void* closure;
    Text text;
};

void showTopic(korEx* ex, uint8_t depth, const Enumeration& walk, korTopicNode* node)
{
    uint64_t value = walk.callback(KOR_AT(ex, depth), *walk.text.buffer, node->values, walk.closure);
    if (value != 0) {
        removeValues(KOR_AT_D(depth, ex), walk.list, node, value);
    }
}

// Of the node that the walk over `level` stands on.
void pruneCurrent(uint8_t depth, korEx* ex, korTopicList* list, korTopicLevel* level, korHashIterator* iterator,
                  korTopicNode* node)
{
    if (node->childLevel != nullptr && isEmptyLevel(node->childLevel)) {
        dropLevel(KOR_AT_D(depth, ex), list, node->childLevel);
        node->childLevel = nullptr;
    }
    if (node->values == nullptr && node->childLevel == nullptr) {
        _korHash_RemoveCurrent(KOR_AT_D(depth, ex), iterator);
        forgetShortcut(level, node);
        destroyNode(KOR_AT_D(depth, ex), list, node);
    }
}

// Depth first, up again by the parents. With an error the walk goes no further, but prunes on its way up.
void enumerateLevel(korEx* ex, uint8_t depth, const Enumeration& walk)
{
    korTopicLevel* level = walk.list->rootLevel;
    korTopicNode* above = nullptr;
    int32_t offset = 0; // of this level's tokens in the text
    korHashIterator iterator;
    _korHash_IteratorInit(level->nodes, &iterator);
    for (;;) {
        uint64_t value;
        korTopicNode* node = nullptr;
        if (ex->code == 0 && _korHash_Next(&iterator, nullptr, nullptr, &value)) {
            node = reinterpret_cast<korTopicNode*>(value);
            int32_t below = addTokenToTopic(KOR_AT(ex, depth), walk.text, offset, node);
            if (ex->code == 0 && node->values != nullptr) {
                showTopic(KOR_AT(ex, depth), walk, node);
            }
            if (ex->code == 0 && node->childLevel != nullptr) {
                above = node;
                level = node->childLevel;
                offset = below;
                _korHash_IteratorInit(level->nodes, &iterator);
                continue;
            }
        } else if (above == nullptr) {
            return;
        } else {
            node = above;
            above = node->parent;
            level = levelOf(walk.list, node);
            offset -= static_cast<int32_t>(node->tokenLength) + 1;
            iterator = {level->nodes, 0};
        }
        pruneCurrent(KOR_AT_D(depth, ex), walk.list, level, &iterator, node);
    }
}

} // namespace
} // namespace kor

using namespace kor;

// ---- Making ---------------------------------------------------------------------------------------------------------

korPool** _korTopicList_CreatePools(korEx* ex, uint8_t depth)
{
    if (ex->code != 0) {
        return nullptr;
    }
    void* pools = _kor_calloc(KOR_AT(ex, depth), 1, sizeof(Pools));
    if (pools == nullptr) {
        return nullptr;
    }
    createPools(KOR_AT(ex, depth), static_cast<Pools*>(pools));
    if (ex->code != 0) {
        _kor_free(KOR_AT_D(depth, ex), pools);
        return nullptr;
    }
    return static_cast<korPool**>(pools);
}

void _korTopicList_DestroyPools(uint8_t depth, korEx* ex, korPool** pools)
{
    if (pools != nullptr) {
        freePools(KOR_AT_D(depth, ex), reinterpret_cast<Pools*>(pools));
        _kor_free(KOR_AT_D(depth, ex), pools);
    }
}

korTopicList* _korTopicList_Create(korEx* ex, uint8_t depth)
{
    return performCreate(KOR_AT(ex, depth), nullptr, false);
}

korTopicList* _korTopicList_CreatePooled(korEx* ex, uint8_t depth)
{
    return performCreate(KOR_AT(ex, depth), nullptr, true);
}

korTopicList* _korTopicList_CreatePooledEx(korEx* ex, uint8_t depth, korPool** pools)
{
    return performCreate(KOR_AT(ex, depth), pools, pools == nullptr);
}

void _korTopicList_Destroy(uint8_t depth, korEx* ex, korTopicList* list)
{
    if (list == nullptr) {
        return;
    }
    if (list->rootLevel != nullptr) {
        _korTopicList_DestroyLevel(KOR_AT_D(depth, ex), list, list->rootLevel);
    }
    for (korDpa* scratch : {list->lengthStack, list->tokenStack, list->levelStack, list->nodeStack, list->results}) {
        _korDpa_DestroyPooled(KOR_AT_D(depth, ex), scratch, nullptr);
    }
    if (list->ownsPools != 0) {
        freePools(KOR_AT_D(depth, ex), poolsOf(list));
    }
    _kor_free(KOR_AT_D(depth, ex), list);
}

// ---- Changing -------------------------------------------------------------------------------------------------------

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
    korTopicNode* last = buildPath(KOR_AT(ex, depth), list, topic);
    if (last == nullptr) {
        return;
    }
    addValue(KOR_AT(ex, depth), list, last, value);
    if (ex->code != 0) {
        return;
    }
    list->count++;
    if (node != nullptr) {
        *node = last;
    }
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
    korTopicNode* node = findNode(KOR_AT_D(depth, ex), list, topic);
    if (node == nullptr || node->values == nullptr) {
        return 0;
    }
    int32_t removed = removeValues(KOR_AT_D(depth, ex), list, node, value);
    if (remaining != nullptr) {
        *remaining = node->values == nullptr ? 0 : node->values->count;
    }
    prune(KOR_AT_D(depth, ex), list, node);
    return removed;
}

// ---- Asking ---------------------------------------------------------------------------------------------------------

uint32_t _korTopicList_Count(korEx* ex, uint8_t, const korTopicList* list)
{
    return ex->code == 0 && list != nullptr ? list->count : 0;
}

int32_t _korTopicList_SameTopicCount(korEx* ex, uint8_t, const korTopicNode* node)
{
    return ex->code == 0 && node != nullptr && node->values != nullptr ? node->values->count : 0;
}

int32_t _korTopicList_Topic(korEx* ex, uint8_t depth, korTopicList* list, const korTopicNode* node, char** buffer,
                            int32_t* size)
{
    if (ex->code != 0 || node == nullptr) {
        return 0;
    }
    korDpa* path = list->nodeStack;
    path->count = 0;
    for (; node != nullptr && ex->code == 0; node = node->parent) {
        _korDpa_AddSafe(KOR_AT(ex, depth), path, reinterpret_cast<uint64_t>(node));
    }
    int32_t length = 0;
    for (int32_t i = path->count - 1; i >= 0; i--) {
        const auto* step = reinterpret_cast<const korTopicNode*>(path->items[i]);
        length = addTokenToTopic(KOR_AT(ex, depth), {buffer, size}, length, step);
    }
    return length;
}

void _korTopicList_Enumerate(korEx* ex, uint8_t depth, korTopicList* list, korTopicListCallback callback, void* closure)
{
    if (ex->code != 0 || list == nullptr) {
        return;
    }
    char* buffer = nullptr;
    int32_t size = 0;
    enumerateLevel(KOR_AT(ex, depth), {list, callback, closure, {&buffer, &size}});
    _kor_free(KOR_AT_D(depth, ex), buffer);
}
