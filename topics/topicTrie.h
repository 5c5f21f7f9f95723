// topicTrie.h - what building and asking share: the cut of a topic into tokens, the look-up of a token, the steps of a
// walk. Walks go up again by the nodes' parents, so that no depth of a topic costs stack or memory.

#pragma once

#include "korutil/korTopicList.h"

#include <cstring>

namespace kor::topics {

/// One token of a topic, and where the next one begins: NULL behind the last.
struct Token {
    const char* text;
    uint32_t length;
    const char* next;
};

inline Token cutToken(const char* topic)
{
    const char* slash = std::strchr(topic, '/');
    if (slash == nullptr) {
        return {topic, static_cast<uint32_t>(std::strlen(topic)), nullptr};
    }
    return {topic, static_cast<uint32_t>(slash - topic), slash + 1};
}

inline bool isPlus(const Token& token)
{
    return token.length == 1 && token.text[0] == '+';
}

inline bool isHash(const Token& token)
{
    return token.length == 1 && token.text[0] == '#';
}

/// The key of a token in its level's table. The empty token has a key of one NUL byte.
inline const char* keyOf(const char* text, uint32_t length)
{
    return length == 0 ? "" : text;
}

inline uint32_t keyLength(uint32_t length)
{
    return length == 0 ? 1 : length;
}

inline korTopicNode* nodeHashGet(korEx* ex, uint8_t depth, const korTopicLevel* level, const Token& token)
{
    uint64_t node =
        _korHash_Get(KOR_AT(ex, depth), level->nodes, keyOf(token.text, token.length), keyLength(token.length), 0);
    return reinterpret_cast<korTopicNode*>(node);
}

/// The level that a node stands on.
inline korTopicLevel* levelOf(const korTopicList* list, const korTopicNode* node)
{
    return node->parent == nullptr ? list->rootLevel : node->parent->childLevel;
}

/// Begins a walk over a level's nodes; NULL if there are none.
inline korTopicNode* firstNode(const korTopicLevel* level)
{
    korHashIterator walk;
    uint64_t node;
    _korHash_IteratorInit(level->nodes, &walk);
    return _korHash_Next(&walk, nullptr, nullptr, &node) ? reinterpret_cast<korTopicNode*>(node) : nullptr;
}

/// Goes on with it; NULL at the end. The place is kept in the table: a walk can be left for the levels below.
inline korTopicNode* nextNode(const korTopicLevel* level)
{
    korHashIterator walk = {level->nodes, 0};
    uint64_t node;
    return _korHash_Next(&walk, nullptr, nullptr, &node) ? reinterpret_cast<korTopicNode*>(node) : nullptr;
}

} // namespace kor::topics
