// btreeNode.h - how a node of the B-tree is read: items in a ring, by logical position, and the search among them.

#pragma once

#include "korutil/korBtree.h"

namespace kor {

inline int32_t capacityOf(const korBtree* tree)
{
    return tree->maxItemsPerNode;
}

/// What a node must hold, the root excepted.
inline int32_t halfOf(const korBtree* tree)
{
    return tree->maxItemsPerNode / 2;
}

/// The ring index of a logical position, which may be one before the first or one behind the last.
inline int32_t ringIndex(const korBtree* tree, const korBtreeNode* node, int32_t position)
{
    return (node->start + position) & tree->indexMask;
}

inline int32_t lastIndexOf(const korBtree* tree, const korBtreeNode* node)
{
    return ringIndex(tree, node, node->itemCount - 1);
}

inline korBtreeItem* itemAt(const korBtree* tree, korBtreeNode* node, int32_t position)
{
    return &node->items[ringIndex(tree, node, position)];
}

inline const korBtreeItem* itemAt(const korBtree* tree, const korBtreeNode* node, int32_t position)
{
    return &node->items[ringIndex(tree, node, position)];
}

inline int64_t firstKeyOf(const korBtree* tree, const korBtreeNode* node)
{
    return itemAt(tree, node, 0)->key;
}

inline int64_t lastKeyOf(const korBtree* tree, const korBtreeNode* node)
{
    return itemAt(tree, node, node->itemCount - 1)->key;
}

/// The child that an item of an inner node leads to.
inline korBtreeNode* childOf(const korBtreeItem* item)
{
    return reinterpret_cast<korBtreeNode*>(item->value);
}

/// The ring index of the greatest key not above `key`, or of the first item if all keys are above it. The items lie in
/// one piece or, around the ring's end, in two; the search goes through one. Both outcomes of a comparison go the same
/// way, so that no jump depends on the keys; while one is made, both items that may be compared next are on their way
/// from memory.
inline int32_t search(const korBtree* tree, const korBtreeNode* node, int64_t key)
{
    int32_t beforeEnd = capacityOf(tree) - node->start;
    const korBtreeItem* item = &node->items[node->start];
    int32_t left = node->itemCount;
    if (left > beforeEnd) {
        bool isBehindEnd = node->items[0].key <= key;
        item = isBehindEnd ? node->items : item;
        left = isBehindEnd ? left - beforeEnd : beforeEnd;
    }
    while (left > 1) {
        int32_t half = left / 2;
        left -= half;
        if (left > 4) {
            __builtin_prefetch(item + left / 2);
            __builtin_prefetch(item + half + left / 2);
        }
        const korBtreeItem* middle = item + half;
        item = middle->key <= key ? middle : item;
    }
    return static_cast<int32_t>(item - node->items);
}

/// The text for the first fault in the structure of a tree, or null.
const char* findBtreeFault(const korBtree* tree);

} // namespace kor
