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

/// The logical position of the greatest key not above `key`, or 0 if all keys are above it. Both outcomes of a
/// comparison go the same way, so that no jump depends on the keys.
inline int32_t search(const korBtree* tree, const korBtreeNode* node, int64_t key)
{
    int32_t position = 0;
    for (int32_t left = node->itemCount; left > 1;) {
        int32_t half = left / 2;
        position += itemAt(tree, node, position + half)->key <= key ? half : 0;
        left -= half;
    }
    return position;
}

/// The text for the first fault in the structure of a tree, or null.
const char* findBtreeFault(const korBtree* tree);

} // namespace kor
