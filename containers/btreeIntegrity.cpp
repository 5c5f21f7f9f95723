// btreeIntegrity.cpp - the B-tree's integrity check: level after level from the root, each from its first node along
// `next`. What a test reads has been tested before, so that a damaged tree is reported and not followed.

#include "containers/btreeNode.h"

namespace kor {
namespace {

struct Walk {
    const korBtree* tree;
    int64_t keyBefore;               // on this level
    const korBtreeNode* childBefore; // on this level; null before the first
    int64_t leafItems;
    bool lastKeySeen;
};

bool isBadRoot(const korBtree* tree)
{
    const korBtreeNode* root = tree->root;
    return root == nullptr || root->itemCount < 0 || root->itemCount > capacityOf(tree) || root->previous != nullptr ||
           root->next != nullptr;
}

// The greatest key in the leaves under a node. A node that has a fault of its own, which its level will show, counts as
// empty.
int64_t greatestUnder(const korBtree* tree, const korBtreeNode* node, int32_t level)
{
    while (node != nullptr && node->itemCount > 0 && node->itemCount <= capacityOf(tree)) {
        const korBtreeItem* last = itemAt(tree, node, node->itemCount - 1);
        if (level == 1) {
            return last->key;
        }
        node = childOf(last);
        --level;
    }
    return INT64_MIN;
}

const char* leafItemFault(Walk* walk, const korBtreeNode* node, int32_t index)
{
    const korBtree* tree = walk->tree;
    const korBtreeItem& item = node->items[index];
    if (item.value == 0) {
        return "null entry";
    }
    if (item.key == tree->lastKey) {
        if (node != tree->lastNode || index != tree->lastIndex) {
            return "bad last key";
        }
        walk->lastKeySeen = true;
    }
    ++walk->leafItems;
    return nullptr;
}

const char* innerItemFault(Walk* walk, const korBtreeItem& item, int32_t level)
{
    const korBtree* tree = walk->tree;
    const korBtreeNode* child = childOf(&item);
    const korBtreeNode* before = walk->childBefore;
    if (child == nullptr) {
        return before == nullptr ? "bad first child" : "bad node links";
    }
    if (firstKeyOf(tree, child) < item.key) {
        return "bad parent";
    }
    if (before == nullptr && child->previous != nullptr) {
        return "bad first child";
    }
    if (before != nullptr && (before->next != child || child->previous != before)) {
        return "bad node links";
    }
    if (before != nullptr && greatestUnder(tree, before, level - 1) >= item.key) {
        return "bad parent min";
    }
    walk->childBefore = child;
    return nullptr;
}

const char* nodeFault(Walk* walk, const korBtreeNode* node, int32_t level)
{
    const korBtree* tree = walk->tree;
    if (node != tree->root && node->itemCount < halfOf(tree)) {
        return "node count too low";
    }
    if (node->start < 0 || node->start >= capacityOf(tree)) {
        return "bad node start";
    }
    for (int32_t position = 0; position < node->itemCount; ++position) {
        int32_t index = ringIndex(tree, node, position);
        if (node->items[index].key <= walk->keyBefore) {
            return "keys out of order";
        }
        walk->keyBefore = node->items[index].key;
        const char* fault =
            level == 1 ? leafItemFault(walk, node, index) : innerItemFault(walk, node->items[index], level);
        if (fault != nullptr) {
            return fault;
        }
    }
    return nullptr;
}

const char* levelFault(Walk* walk, const korBtreeNode* first, int32_t level)
{
    const korBtree* tree = walk->tree;
    if (first->previous != nullptr) {
        return "non-null previous";
    }
    if (level == 1 && (first != tree->firstLeaf || firstKeyOf(tree, first) != tree->minKey)) {
        return "bad min";
    }
    walk->keyBefore = INT64_MIN; // so the least key of all counts as out of order
    walk->childBefore = nullptr;
    const korBtreeNode* last = first;
    for (const korBtreeNode* node = first; node != nullptr; node = node->next) {
        if (const char* fault = nodeFault(walk, node, level)) {
            return fault;
        }
        last = node;
    }
    if (level > 1) {
        return walk->childBefore == nullptr || walk->childBefore->next != nullptr ? "bad last child" : nullptr;
    }
    return last != tree->lastLeaf || lastKeyOf(tree, last) != tree->maxKey ? "bad max" : nullptr;
}

} // namespace

const char* findBtreeFault(const korBtree* tree)
{
    if (tree->count == 0 && tree->levels != 1) {
        return "empty tree should have exactly 1 level";
    }
    if (isBadRoot(tree)) {
        return "bad root";
    }
    if (tree->count == 0) {
        return nullptr;
    }
    Walk walk = {tree, 0, nullptr, 0, false};
    const korBtreeNode* first = tree->root;
    for (int32_t level = tree->levels; level > 0; --level) {
        if (const char* fault = levelFault(&walk, first, level)) {
            return fault;
        }
        first = childOf(itemAt(tree, first, 0));
    }
    if (!walk.lastKeySeen) {
        return "dangling last key";
    }
    return walk.leafItems != tree->count ? "bad count" : nullptr;
}

} // namespace kor
