// topicTrie.h - what storing and matching share: tokens and their look-up, walks over a subtree, the list's stacks.

#pragma once

#include "korutil/korTopicList.h"

#include <algorithm>
#include <cstdint>

namespace kor::topics {

constexpr char separator = '/';

// ---- Tokens ---------------------------------------------------------------------------------------------------------

struct Token {
    const char* text;
    uint32_t length;
    const char* rest; // the topic behind it, or NULL for the last token
};

// The first token. One whose length is no 32-bit number is cut to a length that no table takes as a key either.
inline Token cutToken(const char* topic)
{
    const char* end = topic;
    while (*end != separator && *end != '\0') {
        ++end;
    }
    auto length = static_cast<size_t>(end - topic);
    return {topic, static_cast<uint32_t>(std::min<size_t>(length, UINT32_MAX)), *end == separator ? end + 1 : nullptr};
}

inline bool isPlus(const char* text, uint32_t length)
{
    return length == 1 && *text == '+';
}

inline bool isHash(const char* text, uint32_t length)
{
    return length == 1 && *text == '#';
}

// True if the rest of a query is the one token "#".
inline bool isHashAlone(const char* rest)
{
    return rest != nullptr && rest[0] == '#' && rest[1] == '\0';
}

// The empty token has the key of a NUL byte: a table takes a length of 0 for one that it has to measure.
inline uint32_t keyLength(uint32_t tokenLength)
{
    return std::max(tokenLength, 1U);
}

inline const char* keyBytes(const char* text, uint32_t tokenLength)
{
    return tokenLength == 0 ? "" : text;
}

inline uint64_t valueOf(const void* pointer)
{
    return reinterpret_cast<uint64_t>(pointer);
}

template <class Type>
Type* pointerOf(uint64_t value)
{
    return reinterpret_cast<Type*>(value);
}

inline korTopicNode* nodeHashGet(korEx* ex, uint8_t depth, const korTopicLevel* level, const Token& token)
{
    return pointerOf<korTopicNode>(
        _korHash_Get(KOR_AT(ex, depth), level->nodes, keyBytes(token.text, token.length), keyLength(token.length), 0));
}

// ---- Walking a subtree ----------------------------------------------------------------------------------------------

// Depth first, a level's nodes in the order of its table. The place in each level is its table's cursor, the way up are
// the nodes' parents.
struct TreeWalk {
    const korTopicList* list;
    korTopicLevel* level;    // that the walk is in
    korTopicNode* owner;     // the node that has this level
    korHashIterator entries; // of this level
};

inline korTopicLevel* levelOf(const korTopicList* list, const korTopicNode* node)
{
    return node->parent == nullptr ? list->rootLevel : node->parent->childLevel;
}

inline void enterLevel(TreeWalk* walk, korTopicLevel* level, korTopicNode* owner)
{
    walk->level = level;
    walk->owner = owner;
    _korHash_IteratorInit(level->nodes, &walk->entries);
}

// The next node of the level, NULL at its end.
inline korTopicNode* nextNode(korHashIterator* entries)
{
    uint64_t node = 0;
    _korHash_Next(entries, nullptr, nullptr, &node);
    return pointerOf<korTopicNode>(node);
}

// Leaves the level for the one above, and gives the node that it belongs to, which is the current one there.
inline korTopicNode* leaveLevel(TreeWalk* walk)
{
    korTopicNode* node = walk->owner;
    walk->owner = node->parent;
    walk->level = levelOf(walk->list, node);
    walk->entries = {walk->level->nodes, 0};
    return node;
}

// ---- The scratch stacks ---------------------------------------------------------------------------------------------

inline void clearStacks(korTopicList* list)
{
    for (korDpa* stack : {list->nodeStack, list->levelStack, list->tokenStack, list->lengthStack}) {
        stack->count = 0;
    }
}

inline uint64_t pop(korDpa* stack)
{
    return stack->items[--stack->count];
}

} // namespace kor::topics
