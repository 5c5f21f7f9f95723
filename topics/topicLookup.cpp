// topicLookup.cpp - the queries. The order of their steps, and where the two are not alike, is what callers see.
//
// A query goes one way at a time. Branches are put off on the list's stacks and taken up again, the last one first, so
// that neither depth nor branches use the thread's stack.

#include "topics/topicTrie.h"

using namespace kor::topics;

namespace {

// Where a query goes on: the part of it that is still to be matched, and the level to match it in. No level: nowhere.
struct Step {
    korTopicLevel* level;
    const char* query;
};

constexpr Step nowhere = {nullptr, nullptr};

void addValues(korEx* ex, uint8_t depth, korTopicList* list, const korTopicNode* node)
{
    if (node != nullptr && node->values != nullptr) {
        _korDpa_AddDpa(KOR_AT(ex, depth), list->results, node->values);
    }
}

// Puts a branch off until the way before it has come to its end: what is below `node`, or with no node the rest of the
// walk over `level`.
void putOff(korEx* ex, uint8_t depth, korTopicList* list, korTopicNode* node, korTopicLevel* level, const char* query)
{
    _korDpa_AddSafe(KOR_AT(ex, depth), list->nodeStack, valueOf(node));
    _korDpa_AddSafe(KOR_AT(ex, depth), list->levelStack, valueOf(level));
    _korDpa_AddSafe(KOR_AT(ex, depth), list->tokenStack, valueOf(query));
}

// All values below `top`.
void _korTopicList_AddAll(korEx* ex, uint8_t depth, korTopicList* list, korTopicLevel* top)
{
    TreeWalk walk = {list, nullptr, nullptr, {}};
    enterLevel(&walk, top, nullptr);
    while (ex->code == 0) {
        korTopicNode* node = nextNode(&walk.entries);
        if (node == nullptr) {
            if (walk.level == top) {
                return;
            }
            leaveLevel(&walk);
            continue;
        }
        addValues(KOR_AT(ex, depth), list, node);
        if (node->childLevel != nullptr) {
            enterLevel(&walk, node->childLevel, node);
        }
    }
}

// The query's "+" meets the nodes of the level, wildcards among them, up to one that leads on; the others are put off.
// A stored "#" takes whatever follows, and nothing below it is looked at.
Step meetNodes(korEx* ex, uint8_t depth, korTopicList* list, korTopicLevel* level, const char* rest,
               korHashIterator* entries)
{
    while (const korTopicNode* node = nextNode(entries)) {
        bool ends = rest == nullptr || node == level->hashNode;
        if (ends || isHashAlone(rest)) {
            addValues(KOR_AT(ex, depth), list, node);
        }
        if (!ends && node->childLevel != nullptr) {
            putOff(KOR_AT(ex, depth), list, nullptr, level, rest);
            return {node->childLevel, rest};
        }
    }
    return nowhere;
}

Step _korTopicList_ProcessWildcardToken(korEx* ex, uint8_t depth, korTopicList* list, korTopicLevel* level,
                                        const Token& token)
{
    if (isHash(token.text, token.length)) {
        _korTopicList_AddAll(KOR_AT(ex, depth), list, level);
        return nowhere;
    }
    korHashIterator entries = {};
    _korHash_IteratorInit(level->nodes, &entries);
    return meetNodes(KOR_AT(ex, depth), list, level, token.rest, &entries);
}

// ---- Wildcards on both sides ----

Step followWay(korEx* ex, uint8_t depth, korTopicList* list, const korTopicNode* node, const char* rest)
{
    if (isHashAlone(rest)) {
        addValues(KOR_AT(ex, depth), list, node);
    }
    return {node->childLevel, rest};
}

// The ways down are not alike. The stored "+" gives its values to a "#" that follows only beside a literal node that
// leads down, or if it leads down itself; the literal node gives its own unless the "+" alone leads down.
Step chooseWay(korEx* ex, uint8_t depth, korTopicList* list, korTopicNode* literal, const korTopicNode* plus,
               const char* rest)
{
    bool plusLeads = plus != nullptr && plus->childLevel != nullptr;
    if (literal != nullptr && literal->childLevel != nullptr) {
        if (isHashAlone(rest)) {
            addValues(KOR_AT(ex, depth), list, plus);
        }
        if (!plusLeads) {
            return followWay(KOR_AT(ex, depth), list, literal, rest);
        }
        putOff(KOR_AT(ex, depth), list, literal, nullptr, rest);
        return {plus->childLevel, rest};
    }
    if (plusLeads) {
        return followWay(KOR_AT(ex, depth), list, plus, rest);
    }
    if (isHashAlone(rest)) {
        addValues(KOR_AT(ex, depth), list, literal);
    }
    return nowhere;
}

Step _korTopicList_GetLevel(korEx* ex, uint8_t depth, korTopicList* list, const Step& at)
{
    Token token = cutToken(at.query);
    if (isPlus(token.text, token.length) || isHash(token.text, token.length)) {
        return _korTopicList_ProcessWildcardToken(KOR_AT(ex, depth), list, at.level, token);
    }
    addValues(KOR_AT(ex, depth), list, at.level->hashNode);
    korTopicNode* literal = nodeHashGet(KOR_AT(ex, depth), at.level, token);
    if (token.rest != nullptr) {
        return chooseWay(KOR_AT(ex, depth), list, literal, at.level->plusNode, token.rest);
    }
    addValues(KOR_AT(ex, depth), list, literal);
    addValues(KOR_AT(ex, depth), list, at.level->plusNode);
    return nowhere;
}

// ---- Wildcards of the query met by wildcards only ----

Step followNarrowWay(korEx* ex, uint8_t depth, korTopicList* list, const korTopicNode* node, const char* rest)
{
    if (node->childLevel == nullptr && isHashAlone(rest)) {
        addValues(KOR_AT(ex, depth), list, node);
    }
    return {node->childLevel, rest};
}

Step _korTopicList_GetNarrowLevel(korEx* ex, uint8_t depth, korTopicList* list, const Step& at)
{
    Token token = cutToken(at.query);
    addValues(KOR_AT(ex, depth), list, at.level->hashNode);
    if (isHash(token.text, token.length)) {
        return nowhere;
    }
    const korTopicNode* plus = at.level->plusNode;
    bool plusLeads = plus != nullptr && token.rest != nullptr && plus->childLevel != nullptr;
    if (token.rest == nullptr || (plusLeads && isHashAlone(token.rest))) {
        addValues(KOR_AT(ex, depth), list, plus);
    }
    korTopicNode* literal =
        isPlus(token.text, token.length) ? nullptr : nodeHashGet(KOR_AT(ex, depth), at.level, token);
    if (token.rest == nullptr) {
        addValues(KOR_AT(ex, depth), list, literal);
        return nowhere;
    }
    if (!plusLeads) {
        return literal == nullptr ? nowhere : followNarrowWay(KOR_AT(ex, depth), list, literal, token.rest);
    }
    if (literal != nullptr) {
        putOff(KOR_AT(ex, depth), list, literal, nullptr, token.rest);
    }
    return {plus->childLevel, token.rest};
}

// ---- A query from the first level to the last branch ----

using Match = Step (*)(korEx* ex, uint8_t depth, korTopicList* list, const Step& at);
using Follow = Step (*)(korEx* ex, uint8_t depth, korTopicList* list, const korTopicNode* node, const char* rest);

// Takes up the branch that was put off last.
template <Follow follow>
Step resume(korEx* ex, uint8_t depth, korTopicList* list)
{
    const auto* node = pointerOf<const korTopicNode>(pop(list->nodeStack));
    auto* level = pointerOf<korTopicLevel>(pop(list->levelStack));
    const auto* query = pointerOf<const char>(pop(list->tokenStack));
    if (node != nullptr) {
        return follow(KOR_AT(ex, depth), list, node, query);
    }
    korHashIterator entries = {level->nodes, 0};
    return meetNodes(KOR_AT(ex, depth), list, level, query, &entries);
}

const korDpa* resultsOf(const korTopicList* list)
{
    return list->results->count > 0 ? list->results : nullptr;
}

template <Match match, Follow follow>
const korDpa* runQuery(korEx* ex, uint8_t depth, korTopicList* list, const char* topic)
{
    if (ex->code != 0 || list == nullptr || topic == nullptr) {
        return nullptr;
    }
    clearStacks(list);
    list->results->count = 0;
    Step at = {list->rootLevel, topic};
    while (ex->code == 0) {
        if (at.level != nullptr) {
            at = match(KOR_AT(ex, depth), list, at);
        } else if (list->nodeStack->count > 0) {
            at = resume<follow>(KOR_AT(ex, depth), list);
        } else {
            break;
        }
    }
    return resultsOf(list);
}

} // namespace

const korDpa* _korTopicList_Get(korEx* ex, uint8_t depth, korTopicList* list, const char* topic)
{
    return runQuery<_korTopicList_GetLevel, followWay>(KOR_AT(ex, depth), list, topic);
}

const korDpa* _korTopicList_GetNarrow(korEx* ex, uint8_t depth, korTopicList* list, const char* topic)
{
    return runQuery<_korTopicList_GetNarrowLevel, followNarrowWay>(KOR_AT(ex, depth), list, topic);
}

const korDpa* _korTopicList_GetLiteral(korEx* ex, uint8_t depth, korTopicList* list, const char* topic)
{
    if (ex->code != 0 || list == nullptr || topic == nullptr) {
        return nullptr;
    }
    const korTopicLevel* level = list->rootLevel;
    const korTopicNode* node = nullptr;
    for (const char* rest = topic; rest != nullptr; level = node->childLevel) {
        Token token = cutToken(rest);
        node = level == nullptr ? nullptr : nodeHashGet(KOR_AT(ex, depth), level, token);
        if (node == nullptr) {
            return nullptr;
        }
        rest = token.rest;
    }
    return node->values;
}

const korDpa* _korTopicList_All(korEx* ex, uint8_t depth, korTopicList* list)
{
    if (ex->code != 0 || list == nullptr) {
        return nullptr;
    }
    list->results->count = 0;
    _korTopicList_AddAll(KOR_AT(ex, depth), list, list->rootLevel);
    return resultsOf(list);
}
