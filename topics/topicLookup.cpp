// topicLookup.cpp - the queries. The order of their steps, and where they are not symmetrical, is what users see.
//
// A query goes down one path at a time. Where it forks, one way is taken at once and the other is put on a stack of the
// list's, as the place to come back to and the rest of the query there; so neither the number of levels nor that of
// forks costs stack of the thread.

#include "topics/topicTrie.h"

#include "foundation/hostile.h"

static_assert(alignof(korTopicNode) >= 4 && alignof(korTopicLevel) >= 4);

namespace kor {

using namespace topics;

namespace {

// What to do at a place that a query comes back to; kept in the low bits of the place's address.
enum Place : uint64_t {
    throughNode = 0,  // a node: its values if "#" follows, then the level below it
    walkFrom = 1,     // a level: its nodes, each met by a "+" of the query
    walkOn = 2,       // a level: the rest of its nodes
    narrowLiteral = 3 // a level: the literal node of the token that stands there
};
constexpr uint64_t placeBits = 3;

struct Return {
    Place place;
    uint64_t address;
    const char* rest;
};

void comeBack(korEx* ex, uint8_t depth, korTopicList* list, Place place, const void* where, const char* rest)
{
    _korDpa_AddSafe(KOR_AT(ex, depth), list->levelStack, reinterpret_cast<uint64_t>(where) | place);
    if (ex->code != 0) {
        return;
    }
    _korDpa_AddSafe(KOR_AT(ex, depth), list->tokenStack, reinterpret_cast<uint64_t>(rest));
    if (ex->code != 0) {
        list->levelStack->count--;
    }
}

bool hasReturn(const korEx* ex, const korTopicList* list)
{
    return ex->code == 0 && list->levelStack->count != 0;
}

Return topReturn(const korTopicList* list)
{
    int32_t top = list->levelStack->count - 1;
    uint64_t place = list->levelStack->items[top];
    return {static_cast<Place>(place & placeBits), place & ~placeBits,
            reinterpret_cast<const char*>(list->tokenStack->items[top])};
}

void changeTop(korTopicList* list, Place place)
{
    uint64_t& top = list->levelStack->items[list->levelStack->count - 1];
    top = (top & ~placeBits) | place;
}

void dropReturn(korTopicList* list)
{
    list->levelStack->count--;
    list->tokenStack->count--;
}

void clearScratch(korTopicList* list)
{
    list->results->count = 0;
    list->levelStack->count = 0;
    list->tokenStack->count = 0;
}

// The rest of a query is "#" and nothing else.
bool onlyHash(const char* rest)
{
    return rest != nullptr && rest[0] == '#' && rest[1] == '\0';
}

void addValues(korEx* ex, uint8_t depth, korTopicList* list, const korTopicNode* node)
{
    if (node != nullptr && node->values != nullptr) {
        _korDpa_AddDpa(KOR_AT(ex, depth), list->results, node->values);
    }
}

// All values of a level and of the levels below, each node before what is below it.
void _korTopicList_AddAll(korEx* ex, uint8_t depth, korTopicList* list, const korTopicLevel* level)
{
    const korTopicNode* above = nullptr;
    const korTopicLevel* first = level;
    const korTopicNode* node = firstNode(level);
    while (ex->code == 0) {
        if (node != nullptr) {
            addValues(KOR_AT(ex, depth), list, node);
            if (node->childLevel != nullptr) {
                above = node;
                level = node->childLevel;
                node = firstNode(level);
                continue;
            }
        } else if (level == first) {
            return;
        } else {
            level = levelOf(list, above);
            above = above->parent;
        }
        node = nextNode(level);
    }
}

// ---- The query that wildcards of both sides act in ----

// Goes down from `level` as long as there is one way to take at once.
void _korTopicList_GetLevel(korEx* ex, uint8_t depth, korTopicList* list, const korTopicLevel* level, const char* topic)
{
    while (ex->code == 0) {
        Token token = cutToken(topic);
        if (isHash(token)) {
            _korTopicList_AddAll(KOR_AT(ex, depth), list, level);
            return;
        }
        if (isPlus(token)) {
            comeBack(KOR_AT(ex, depth), list, walkFrom, level, token.next);
            return;
        }
        addValues(KOR_AT(ex, depth), list, level->hashNode);
        const korTopicNode* literal = nodeHashGet(KOR_AT(ex, depth), level, token);
        const korTopicNode* plus = level->plusNode;
        if (token.next == nullptr) {
            addValues(KOR_AT(ex, depth), list, literal);
            addValues(KOR_AT(ex, depth), list, plus);
            return;
        }
        bool plusGoesOn = plus != nullptr && plus->childLevel != nullptr;
        if (literal != nullptr && literal->childLevel != nullptr) {
            if (onlyHash(token.next)) {
                addValues(KOR_AT(ex, depth), list, plus);
            }
            if (plusGoesOn) {
                comeBack(KOR_AT(ex, depth), list, throughNode, literal, token.next);
                level = plus->childLevel;
                topic = token.next;
                continue;
            }
        } else if (plusGoesOn) {
            literal = plus; // the only way down; what stands at the literal node is not taken
        } else {
            if (onlyHash(token.next)) {
                addValues(KOR_AT(ex, depth), list, literal);
            }
            return;
        }
        if (onlyHash(token.next)) {
            addValues(KOR_AT(ex, depth), list, literal);
        }
        level = literal->childLevel;
        topic = token.next;
    }
}

// A node of a level whose nodes all meet a "+" of the query.
void _korTopicList_ProcessWildcardToken(korEx* ex, uint8_t depth, korTopicList* list, const korTopicLevel* level,
                                        const korTopicNode* node, const char* rest)
{
    if (rest == nullptr || node == level->hashNode) {
        addValues(KOR_AT(ex, depth), list, node);
        return;
    }
    if (onlyHash(rest)) {
        addValues(KOR_AT(ex, depth), list, node);
    }
    if (node->childLevel != nullptr) {
        _korTopicList_GetLevel(KOR_AT(ex, depth), list, node->childLevel, rest);
    }
}

void goThrough(korEx* ex, uint8_t depth, korTopicList* list, const korTopicNode* node, const char* rest)
{
    if (onlyHash(rest)) {
        addValues(KOR_AT(ex, depth), list, node);
    }
    _korTopicList_GetLevel(KOR_AT(ex, depth), list, node->childLevel, rest);
}

// One node of a walk. What it leads to goes on top of the walk, and is done before the next one.
void walkStep(korEx* ex, uint8_t depth, korTopicList* list, const Return& walk)
{
    const auto* level = reinterpret_cast<const korTopicLevel*>(walk.address);
    const korTopicNode* node = walk.place == walkFrom ? firstNode(level) : nextNode(level);
    if (node == nullptr) {
        dropReturn(list);
        return;
    }
    changeTop(list, walkOn);
    _korTopicList_ProcessWildcardToken(KOR_AT(ex, depth), list, level, node, walk.rest);
}

void finishGet(korEx* ex, uint8_t depth, korTopicList* list)
{
    while (hasReturn(ex, list)) {
        Return back = topReturn(list);
        if (back.place == throughNode) {
            dropReturn(list);
            goThrough(KOR_AT(ex, depth), list, reinterpret_cast<const korTopicNode*>(back.address), back.rest);
        } else {
            walkStep(KOR_AT(ex, depth), list, back);
        }
    }
}

// ---- The query that wildcards of the stored side alone act in ----

// From the literal node of the token on. Gives the level to go on at, or NULL.
const korTopicLevel* stepNarrow(korEx* ex, uint8_t depth, korTopicList* list, const korTopicLevel* level,
                                const Token& token)
{
    if (isPlus(token)) { // met by what has been taken
        return nullptr;
    }
    const korTopicNode* literal = nodeHashGet(KOR_AT(ex, depth), level, token);
    if (literal == nullptr) {
        return nullptr;
    }
    if (token.next == nullptr || (literal->childLevel == nullptr && onlyHash(token.next))) {
        addValues(KOR_AT(ex, depth), list, literal);
        return nullptr;
    }
    return literal->childLevel;
}

void _korTopicList_GetNarrowLevel(korEx* ex, uint8_t depth, korTopicList* list, const korTopicLevel* level,
                                  const char* topic)
{
    while (ex->code == 0 && level != nullptr) {
        Token token = cutToken(topic);
        addValues(KOR_AT(ex, depth), list, level->hashNode);
        if (isHash(token)) {
            return;
        }
        const korTopicNode* plus = level->plusNode;
        if (plus != nullptr && token.next == nullptr) {
            addValues(KOR_AT(ex, depth), list, plus);
        } else if (plus != nullptr && plus->childLevel != nullptr) {
            if (onlyHash(token.next)) {
                addValues(KOR_AT(ex, depth), list, plus);
            }
            comeBack(KOR_AT(ex, depth), list, narrowLiteral, level, topic);
            level = plus->childLevel;
            topic = token.next;
            continue;
        }
        level = stepNarrow(KOR_AT(ex, depth), list, level, token);
        topic = token.next;
    }
}

void finishNarrow(korEx* ex, uint8_t depth, korTopicList* list)
{
    while (hasReturn(ex, list)) {
        Return back = topReturn(list);
        dropReturn(list);
        Token token = cutToken(back.rest);
        const auto* level = reinterpret_cast<const korTopicLevel*>(back.address);
        level = stepNarrow(KOR_AT(ex, depth), list, level, token);
        _korTopicList_GetNarrowLevel(KOR_AT(ex, depth), list, level, token.next);
    }
}

const korDpa* unlessEmpty(const korDpa* results)
{
    return results->count == 0 ? nullptr : results;
}

} // namespace
} // namespace kor

using namespace kor;

const korDpa* _korTopicList_Get(korEx* ex, uint8_t depth, korTopicList* list, const char* topic)
{
    if (ex->code != 0 || list == nullptr || topic == nullptr) {
        return nullptr;
    }
    clearScratch(list);
    _korTopicList_GetLevel(KOR_AT(ex, depth), list, list->rootLevel, topic);
    finishGet(KOR_AT(ex, depth), list);
    return unlessEmpty(list->results);
}

const korDpa* _korTopicList_GetNarrow(korEx* ex, uint8_t depth, korTopicList* list, const char* topic)
{
    if (ex->code != 0 || list == nullptr || topic == nullptr) {
        return nullptr;
    }
    clearScratch(list);
    _korTopicList_GetNarrowLevel(KOR_AT(ex, depth), list, list->rootLevel, topic);
    finishNarrow(KOR_AT(ex, depth), list);
    return unlessEmpty(list->results);
}

const korDpa* _korTopicList_GetLiteral(korEx* ex, uint8_t depth, korTopicList* list, const char* topic)
{
    const korTopicLevel* level = list == nullptr || topic == nullptr ? nullptr : list->rootLevel;
    while (ex->code == 0 && level != nullptr) {
        Token token = cutToken(topic);
        const korTopicNode* node = nodeHashGet(KOR_AT(ex, depth), level, token);
        if (node == nullptr || token.next == nullptr) {
            return node == nullptr ? nullptr : node->values;
        }
        level = node->childLevel;
        topic = token.next;
    }
    return nullptr;
}

const korDpa* _korTopicList_All(korEx* ex, uint8_t depth, korTopicList* list)
{
    if (ex->code != 0 || list == nullptr) {
        return nullptr;
    }
    clearScratch(list);
    _korTopicList_AddAll(KOR_AT(ex, depth), list, list->rootLevel);
    return unlessEmpty(list->results);
}
