// korBtree.cpp - the ordered map from 64-bit keys to 64-bit values; btreeNode.h has the ring that a node is.
//
// What holds between operations: keys ascend along each level; a node other than the root is at least half full; the
// key of an inner item is a lower bound of the child's first key and above everything under the child before. A removal
// leaves such separators as they are, so they need not be keys of the tree. The remembered place holds `lastKey`.

#include "korutil/korBtree.h"
#include "containers/btreeNode.h"
#include "containers/cachedChunk.h"
#include "foundation/hostile.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <utility>

static_assert(sizeof(korBtree) == 96 && offsetof(korBtree, root) == 24 && offsetof(korBtree, lastIndex) == 80);
static_assert(sizeof(korBtreeItem) == 16 && offsetof(korBtreeNode, items) == 24);

namespace kor {
namespace {

constexpr int32_t maxLevels = 64; // nodes have two items at least: 2^63 entries need no more

// An item of a node: by ring index, or by logical position.
struct Place {
    korBtreeNode* node;
    int32_t index;
};
struct Spot {
    korBtreeNode* node;
    int32_t position;
};

// ---- The frame of a tree --------------------------------------------------------------------------------------------

bool isValidCapacity(korEx* ex, uint8_t depth, int16_t maxItemsPerNode)
{
    if (ex->code == 0 && (maxItemsPerNode < 4 || (maxItemsPerNode & (maxItemsPerNode - 1)) != 0)) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "maxItemsPerNode must be 4 or greater power of 2");
    }
    return ex->code == 0;
}

int32_t nodeBytes(int16_t maxItemsPerNode)
{
    return maxItemsPerNode * static_cast<int32_t>(sizeof(korBtreeItem)) +
           static_cast<int32_t>(offsetof(korBtreeNode, items));
}

korBtreeNode* createNode(korEx* ex, uint8_t depth, const korBtree* tree)
{
    auto* node = static_cast<korBtreeNode*>(_korPoolCache_Get(KOR_AT(ex, depth), tree->poolCache));
    if (node != nullptr) {
        node->itemCount = 0;
        node->start = 0;
        node->previous = nullptr;
        node->next = nullptr;
    }
    return node;
}

void freeNode(uint8_t depth, korEx* ex, const korBtree* tree, korBtreeNode* node)
{
    returnToCache(KOR_AT_D(depth, ex), tree->poolCache, node);
}

// Frees a subtree, its leaves at level 1.
void destroyNode(uint8_t depth, korEx* ex, const korBtree* tree, korBtreeNode* node, int32_t level)
{
    for (int32_t position = 0; level > 1 && position < node->itemCount; ++position) {
        destroyNode(KOR_AT_D(depth, ex), tree, childOf(itemAt(tree, node, position)), level - 1);
    }
    freeNode(KOR_AT_D(depth, ex), tree, node);
}

void remember(korBtree* tree, Place place)
{
    tree->lastKey = place.node->items[place.index].key;
    tree->lastNode = place.node;
    tree->lastIndex = place.index;
}

// ---- Finding --------------------------------------------------------------------------------------------------------

// The two neighbourhoods of the remembered place. No node: the key is not near.
Place findAbove(const korBtree* tree, int64_t key)
{
    Place here = {tree->lastNode, tree->lastIndex};
    if (here.index == lastIndexOf(tree, here.node)) {
        korBtreeNode* next = here.node->next;
        if (next == nullptr) {
            return here;
        }
        return {firstKeyOf(tree, next) >= key ? next : nullptr, next->start};
    }
    int32_t after = (here.index + 1) & tree->indexMask;
    int64_t keyAfter = here.node->items[after].key;
    return {keyAfter >= key ? here.node : nullptr, keyAfter == key ? after : here.index};
}

Place findBelow(const korBtree* tree, int64_t key)
{
    Place here = {tree->lastNode, tree->lastIndex};
    if (here.index == here.node->start) {
        korBtreeNode* previous = here.node->previous;
        if (previous == nullptr) {
            return here;
        }
        int64_t keyBefore = lastKeyOf(tree, previous);
        if (keyBefore == key) {
            return {previous, lastIndexOf(tree, previous)};
        }
        return {keyBefore < key ? here.node : nullptr, here.index};
    }
    int32_t before = (here.index - 1) & tree->indexMask;
    return {here.node->items[before].key <= key ? here.node : nullptr, before};
}

// Whether a key may be near: not if it lies outside the items on both sides of the remembered one. One test, so that
// keys at random cost no mistaken jump.
bool mayBeNear(const korBtree* tree, int64_t key)
{
    const korBtreeNode* node = tree->lastNode;
    int32_t position = (tree->lastIndex - node->start) & tree->indexMask;
    if (position == 0 || position == node->itemCount - 1) {
        return true;
    }
    int64_t keyBefore = node->items[(tree->lastIndex - 1) & tree->indexMask].key;
    int64_t keyAfter = node->items[(tree->lastIndex + 1) & tree->indexMask].key;
    return (static_cast<int>(keyBefore <= key) & static_cast<int>(key <= keyAfter)) != 0;
}

Place findNear(const korBtree* tree, int64_t key)
{
    if (tree->lastNode == nullptr || key == tree->lastKey) {
        return {tree->lastNode, tree->lastIndex};
    }
    if (!mayBeNear(tree, key)) {
        return {nullptr, 0};
    }
    return key > tree->lastKey ? findAbove(tree, key) : findBelow(tree, key);
}

// The greatest key not above `key`; the first item of its node if `key` lies below all of them. Near the remembered
// place a key that lies between two nodes gives the first item of the second, which is where separators allow it.
Place find(const korBtree* tree, int64_t key)
{
    Place near = findNear(tree, key);
    if (near.node != nullptr) {
        return near;
    }
    korBtreeNode* node = tree->root;
    for (int32_t level = tree->levels; level > 1; --level) {
        node = childOf(&node->items[search(tree, node, key)]);
    }
    return {node, search(tree, node, key)};
}

int32_t positionOf(const korBtree* tree, Place place)
{
    return (place.index - place.node->start) & tree->indexMask;
}

// ---- Walking --------------------------------------------------------------------------------------------------------

Place placeAfter(const korBtree* tree, Place place)
{
    if (place.index != lastIndexOf(tree, place.node)) {
        return {place.node, (place.index + 1) & tree->indexMask};
    }
    korBtreeNode* next = place.node->next;
    return {next, next != nullptr ? next->start : 0};
}

Place placeBefore(const korBtree* tree, Place place)
{
    if (place.index != place.node->start) {
        return {place.node, (place.index - 1) & tree->indexMask};
    }
    korBtreeNode* previous = place.node->previous;
    return {previous, previous != nullptr ? lastIndexOf(tree, previous) : 0};
}

// The first entry above a key that is not the remembered one; no node if there is none. Apart from the walk's own step,
// so that the step needs no stack.
__attribute__((noinline)) Place placeAbove(const korBtree* tree, int64_t key)
{
    if (key < tree->minKey) {
        return {tree->firstLeaf, tree->firstLeaf->start};
    }
    Place place = find(tree, key);
    return place.node->items[place.index].key > key ? place : placeAfter(tree, place);
}

// The first entry below a key that is not the remembered one; no node if there is none.
__attribute__((noinline)) Place placeBelow(const korBtree* tree, int64_t key)
{
    if (key > tree->maxKey) {
        return {tree->lastLeaf, lastIndexOf(tree, tree->lastLeaf)};
    }
    Place place = find(tree, key);
    return place.node->items[place.index].key < key ? place : placeBefore(tree, place);
}

bool visit(korBtree* tree, Place place, int64_t* key, uint64_t* value)
{
    if (place.node == nullptr) {
        return false;
    }
    remember(tree, place);
    if (key != nullptr) {
        *key = tree->lastKey;
    }
    if (value != nullptr) {
        *value = place.node->items[place.index].value;
    }
    return true;
}

// ---- Separators -----------------------------------------------------------------------------------------------------

// Where the parent has a node that is not the root. Any key of the node leads there.
Spot parentOf(const korBtree* tree, const korBtreeNode* node, int64_t keyOfNode)
{
    korBtreeNode* parent = tree->root;
    for (;;) {
        Place place = {parent, search(tree, parent, keyOfNode)};
        korBtreeNode* child = childOf(&parent->items[place.index]);
        if (child == node) {
            return {parent, positionOf(tree, place)};
        }
        parent = child;
    }
}

// The first node of a level is reached by first items alone, without a search.
void lowerFirstSeparators(korBtree* tree, const korBtreeNode* node, int64_t newKey)
{
    for (korBtreeNode* parent = tree->root; parent != node;) {
        korBtreeItem* item = itemAt(tree, parent, 0);
        item->key = newKey;
        parent = childOf(item);
    }
}

// Gives a node that is not the root a new separator. One that is its parent's first item is the parent's separator,
// too, and so on upwards: all items from the last one on the way down that is no first item get the new key.
void updateSeparator(korBtree* tree, const korBtreeNode* node, int64_t oldFirstKey, int64_t newKey)
{
    if (node->previous == nullptr) {
        lowerFirstSeparators(tree, node, newKey);
        return;
    }
    korBtreeItem* path[maxLevels];
    int32_t length = 0;
    int32_t changed = 0; // the first item of the path to change
    for (korBtreeNode* parent = tree->root; parent != node; parent = childOf(path[length - 1])) {
        int32_t index = search(tree, parent, oldFirstKey);
        if (index != parent->start) {
            changed = length;
        }
        KOR_INVARIANT(length < tree->levels);
        path[length++] = &parent->items[index];
    }
    for (; changed < length; ++changed) {
        path[changed]->key = newKey;
    }
}

// ---- The ring -------------------------------------------------------------------------------------------------------

void shift(korBtreeNode* node, int32_t from, int32_t to, int32_t count)
{
    memmove(&node->items[to], &node->items[from], static_cast<size_t>(count) * sizeof(korBtreeItem));
}

// Makes room at a position that holds an item. What moves is never split by the ring's end.
void openGap(const korBtree* tree, korBtreeNode* node, int32_t position)
{
    int32_t index = ringIndex(tree, node, position);
    int32_t start = node->start;
    int32_t last = lastIndexOf(tree, node);
    bool tailIsShorter = last > start && last < tree->indexMask && last - index + 1 < index - start;
    if (index >= start && (start != 0 || index == 0) && !tailIsShorter) {
        shift(node, start, start - 1, index - start);
        node->start = (start - 1) & tree->indexMask;
    } else {
        shift(node, index, index + 1, last - index + 1);
    }
}

// Takes the item at a position out; `itemCount` is the caller's to lower.
void closeGap(const korBtree* tree, korBtreeNode* node, int32_t position)
{
    int32_t start = node->start;
    int32_t index = ringIndex(tree, node, position);
    int32_t behind = node->itemCount - 1 - position;
    bool wrapped = lastIndexOf(tree, node) < start;
    if (position == 0) {
        node->start = (start + 1) & tree->indexMask;
    } else if (behind == 0) {
        return;
    } else if (wrapped ? capacityOf(tree) - start > position : behind >= position) {
        shift(node, start, start + 1, position);
        node->start = (start + 1) & tree->indexMask;
    } else {
        shift(node, index + 1, index, behind);
    }
}

// Puts an item into a node that is not full.
void insertItem(const korBtree* tree, korBtreeNode* node, int32_t position, const korBtreeItem& item)
{
    KOR_INVARIANT(node->itemCount < capacityOf(tree) && position <= node->itemCount);
    if (position < node->itemCount) {
        openGap(tree, node, position);
    }
    *itemAt(tree, node, position) = item;
    ++node->itemCount;
}

// Copies items from one node's positions to another's, across both rings' ends. Counts are the caller's.
void copyItems(const korBtree* tree, Spot from, Spot to, int32_t count)
{
    while (count > 0) {
        int32_t source = ringIndex(tree, from.node, from.position);
        int32_t target = ringIndex(tree, to.node, to.position);
        int32_t run = std::min({count, capacityOf(tree) - source, capacityOf(tree) - target});
        memcpy(&to.node->items[target], &from.node->items[source], static_cast<size_t>(run) * sizeof(korBtreeItem));
        from.position += run;
        to.position += run;
        count -= run;
    }
}

// How many items go sideways at once to a neighbour with that much room, or from one with that many to spare.
int32_t batch(int32_t room)
{
    return room < 9 ? room : room < 18 ? 8 : room / 2;
}

// ---- Inserting ------------------------------------------------------------------------------------------------------

bool isFull(const korBtree* tree, const korBtreeNode* node)
{
    return node->itemCount == capacityOf(tree);
}

bool hasRoom(const korBtree* tree, const korBtreeNode* node)
{
    return node != nullptr && !isFull(tree, node);
}

// Full, with no neighbour that could take an item: it will be split.
bool isCrowded(const korBtree* tree, const korBtreeNode* node)
{
    return isFull(tree, node) && !hasRoom(tree, node->previous) && !hasRoom(tree, node->next);
}

void freeSpares(uint8_t depth, korEx* ex, const korBtree* tree, korBtreeNode* spares)
{
    while (spares != nullptr) {
        freeNode(KOR_AT_D(depth, ex), tree, std::exchange(spares, spares->next));
    }
}

bool addSpare(korEx* ex, uint8_t depth, const korBtree* tree, korBtreeNode** spares)
{
    korBtreeNode* node = createNode(KOR_AT(ex, depth), tree);
    if (node == nullptr) {
        freeSpares(KOR_AT_D(depth, ex), tree, *spares);
        return false;
    }
    node->next = *spares;
    *spares = node;
    return true;
}

// Takes the nodes that splitting `node`, and the nodes above it in turn, will need. This is all of a set that can fail,
// and it comes before anything moves.
bool takeSpares(korEx* ex, uint8_t depth, const korBtree* tree, const korBtreeNode* node, korBtreeNode** spares)
{
    while (isCrowded(tree, node)) {
        if (!addSpare(KOR_AT(ex, depth), tree, spares)) {
            return false;
        }
        if (node == tree->root) {
            return addSpare(KOR_AT(ex, depth), tree, spares);
        }
        node = parentOf(tree, node, firstKeyOf(tree, node)).node;
    }
    return true;
}

korBtreeNode* useSpare(korBtreeNode** spares)
{
    korBtreeNode* node = *spares; // takeSpares has counted the splits: there is one
    *spares = node->next;         // NOLINT(clang-analyzer-core.NullDereference)
    node->next = nullptr;
    return node;
}

// An item in front of all goes to the neighbour by itself.
Spot passToPrevious(korBtree* tree, Spot spot, const korBtreeItem& item)
{
    korBtreeNode* node = spot.node;
    korBtreeNode* previous = node->previous;
    int64_t oldFirstKey = firstKeyOf(tree, node);
    int32_t moved = std::min(batch(capacityOf(tree) - previous->itemCount), spot.position);
    Spot result = {node, spot.position - moved};
    if (spot.position == 0) {
        result = {previous, previous->itemCount};
    }
    copyItems(tree, {node, 0}, {previous, previous->itemCount}, moved);
    previous->itemCount += moved;
    node->start = ringIndex(tree, node, moved);
    node->itemCount -= moved;
    insertItem(tree, result.node, result.position, item);
    updateSeparator(tree, node, oldFirstKey, firstKeyOf(tree, node));
    return result;
}

// An item behind all goes to the neighbour by itself.
Spot passToNext(korBtree* tree, Spot spot, const korBtreeItem& item)
{
    korBtreeNode* node = spot.node;
    korBtreeNode* next = node->next;
    int64_t nextFirstKey = firstKeyOf(tree, next);
    int32_t moved = std::min(batch(capacityOf(tree) - next->itemCount), node->itemCount - spot.position);
    Spot result = spot;
    if (spot.position == node->itemCount) {
        result = {next, 0};
    }
    next->start = ringIndex(tree, next, -moved);
    next->itemCount += moved;
    node->itemCount -= moved;
    copyItems(tree, {node, node->itemCount}, {next, 0}, moved);
    if (spot.position == 0) {
        updateSeparator(tree, node, firstKeyOf(tree, node), item.key);
    }
    insertItem(tree, result.node, result.position, item);
    updateSeparator(tree, next, nextFirstKey, firstKeyOf(tree, next));
    return result;
}

void linkBehind(korBtree* tree, korBtreeNode* node, korBtreeNode* fresh)
{
    fresh->previous = node;
    fresh->next = node->next;
    if (fresh->next != nullptr) {
        fresh->next->previous = fresh;
    }
    node->next = fresh;
    if (tree->lastLeaf == node) {
        tree->lastLeaf = fresh;
    }
}

// Shares the items of a full node, and the new one among them, out to it and `fresh` behind it.
Spot split(korBtree* tree, Spot spot, const korBtreeItem& item, korBtreeNode* fresh)
{
    korBtreeNode* node = spot.node;
    int32_t half = halfOf(tree);
    linkBehind(tree, node, fresh);
    node->itemCount = half;
    if (spot.position >= half) {
        Spot result = {fresh, spot.position - half};
        copyItems(tree, {node, half}, {fresh, 0}, result.position);
        copyItems(tree, spot, {fresh, result.position + 1}, capacityOf(tree) - spot.position);
        fresh->items[result.position] = item;
        fresh->itemCount = half + 1;
        return result;
    }
    copyItems(tree, {node, half}, {fresh, 0}, half);
    fresh->itemCount = half;
    if (spot.position == 0 && node != tree->root) {
        updateSeparator(tree, node, firstKeyOf(tree, node), item.key);
    }
    for (int32_t position = half; position > spot.position; --position) {
        *itemAt(tree, node, position) = *itemAt(tree, node, position - 1);
    }
    *itemAt(tree, node, spot.position) = item;
    ++node->itemCount;
    return spot;
}

korBtreeItem separatorOf(const korBtree* tree, korBtreeNode* node)
{
    return {firstKeyOf(tree, node), reinterpret_cast<uint64_t>(node)};
}

void growRoot(korBtree* tree, korBtreeNode* root, korBtreeNode* left, korBtreeNode* right)
{
    root->items[0] = separatorOf(tree, left);
    root->items[1] = separatorOf(tree, right);
    root->itemCount = 2;
    tree->root = root;
    ++tree->levels;
}

// Puts an item into a full node, or into one beside it; gives where it is. Neighbours are asked for room before the
// node is split, and the new node's separator may in turn meet a full parent.
Spot insertKey(korBtree* tree, Spot spot, const korBtreeItem& item, korBtreeNode** spares)
{
    korBtreeNode* node = spot.node;
    if (hasRoom(tree, node->previous)) {
        return passToPrevious(tree, spot, item);
    }
    if (hasRoom(tree, node->next)) {
        return passToNext(tree, spot, item);
    }
    korBtreeNode* fresh = useSpare(spares);
    Spot result = split(tree, spot, item, fresh);
    if (node == tree->root) {
        growRoot(tree, useSpare(spares), node, fresh);
        return result;
    }
    Spot parent = parentOf(tree, node, firstKeyOf(tree, node));
    ++parent.position; // the new node comes behind the old one
    if (isFull(tree, parent.node)) {
        insertKey(tree, parent, separatorOf(tree, fresh), spares);
    } else {
        insertItem(tree, parent.node, parent.position, separatorOf(tree, fresh));
    }
    return result;
}

// Where a key is, or else where it belongs; a new least or greatest key is noted as such.
Spot chooseLeaf(korBtree* tree, int64_t key)
{
    if (tree->count == 0) {
        tree->root->start = 0;
        tree->minKey = tree->maxKey = key;
        tree->firstLeaf = tree->lastLeaf = tree->root;
        return {tree->root, 0};
    }
    if (key > tree->maxKey) {
        tree->maxKey = key;
        return {tree->lastLeaf, tree->lastLeaf->itemCount};
    }
    if (key < tree->minKey) {
        tree->minKey = key;
        return {tree->firstLeaf, 0};
    }
    Place place = find(tree, key);
    int32_t position = positionOf(tree, place);
    return {place.node, place.node->items[place.index].key < key ? position + 1 : position};
}

korBtreeItem* itemWithKey(const korBtree* tree, Spot spot, int64_t key)
{
    korBtreeItem* item = spot.position < spot.node->itemCount ? itemAt(tree, spot.node, spot.position) : nullptr;
    return item != nullptr && item->key == key ? item : nullptr;
}

// Inserts a new key at its spot; no node if memory is short, and then nothing has changed.
Spot insertAt(korEx* ex, uint8_t depth, korBtree* tree, Spot spot, const korBtreeItem& item)
{
    if (isFull(tree, spot.node)) {
        korBtreeNode* spares = nullptr;
        return takeSpares(KOR_AT(ex, depth), tree, spot.node, &spares) ? insertKey(tree, spot, item, &spares)
                                                                       : Spot{nullptr, 0};
    }
    if (spot.position == 0 && spot.node != tree->root) {
        updateSeparator(tree, spot.node, firstKeyOf(tree, spot.node), item.key);
    }
    insertItem(tree, spot.node, spot.position, item);
    return spot;
}

// ---- Removing -------------------------------------------------------------------------------------------------------

// What moves is cut so that it is in one piece, at both ends of the move.
bool borrowFromPrevious(korBtree* tree, Spot* spot)
{
    korBtreeNode* node = spot->node;
    korBtreeNode* previous = node->previous;
    if (previous == nullptr || previous->itemCount <= halfOf(tree)) {
        return false;
    }
    int64_t oldFirstKey = firstKeyOf(tree, node);
    int32_t moved = std::min(batch(previous->itemCount - halfOf(tree)), lastIndexOf(tree, previous) + 1);
    if (node->start != 0) {
        moved = std::min(moved, node->start);
    }
    node->start = ringIndex(tree, node, -moved);
    node->itemCount += moved;
    previous->itemCount -= moved;
    copyItems(tree, {previous, previous->itemCount}, {node, 0}, moved);
    spot->position += moved;
    updateSeparator(tree, node, oldFirstKey, firstKeyOf(tree, node));
    return true;
}

bool borrowFromNext(korBtree* tree, korBtreeNode* node)
{
    korBtreeNode* next = node->next;
    if (next == nullptr || next->itemCount <= halfOf(tree)) {
        return false;
    }
    int64_t nextFirstKey = firstKeyOf(tree, next);
    int32_t moved = std::min(batch(next->itemCount - halfOf(tree)), capacityOf(tree) - next->start);
    int32_t roomBehind = capacityOf(tree) - 1 - lastIndexOf(tree, node);
    if (roomBehind != 0) {
        moved = std::min(moved, roomBehind);
    }
    copyItems(tree, {next, 0}, {node, node->itemCount}, moved);
    node->itemCount += moved;
    next->start = ringIndex(tree, next, moved);
    next->itemCount -= moved;
    updateSeparator(tree, next, nextFirstKey, firstKeyOf(tree, next));
    return true;
}

void unlinkNode(korBtree* tree, korBtreeNode* left, const korBtreeNode* right)
{
    left->next = right->next;
    if (left->next != nullptr) {
        left->next->previous = left;
    } else if (tree->lastLeaf == right) {
        tree->lastLeaf = left;
    }
}

Spot mergeNode(uint8_t depth, korEx* ex, korBtree* tree, Spot spot);

// Takes the item of a node that is gone out of its parent.
void dropChild(uint8_t depth, korEx* ex, korBtree* tree, Spot child, korBtreeNode* left, int64_t goneFirstKey)
{
    korBtreeNode* parent = child.node;
    if (parent == tree->root && parent->itemCount == 2) {
        freeNode(KOR_AT_D(depth, ex), tree, parent);
        tree->root = left;
        --tree->levels;
        return;
    }
    closeGap(tree, parent, child.position);
    if (child.position == 0 && parent != tree->root) {
        updateSeparator(tree, parent, goneFirstKey, firstKeyOf(tree, parent));
    }
    --parent->itemCount;
    mergeNode(KOR_AT_D(depth, ex), tree, {parent, 0});
}

// Fills a thin node up from a neighbour, or makes one node of it and a neighbour. Gives where the item of `spot`, which
// may be one behind the last, is afterwards.
Spot mergeNode(uint8_t depth, korEx* ex, korBtree* tree, Spot spot)
{
    korBtreeNode* node = spot.node;
    if (node == tree->root || node->itemCount >= halfOf(tree) || borrowFromPrevious(tree, &spot) ||
        borrowFromNext(tree, node)) {
        return spot;
    }
    korBtreeNode* left = node->previous != nullptr ? node->previous : node;
    korBtreeNode* right = left->next;
    if (left != node) {
        spot = {left, spot.position + left->itemCount};
    }
    int64_t rightFirstKey = firstKeyOf(tree, right);
    Spot parent = parentOf(tree, right, rightFirstKey);
    copyItems(tree, {right, 0}, {left, left->itemCount}, right->itemCount);
    left->itemCount += right->itemCount;
    unlinkNode(tree, left, right);
    freeNode(KOR_AT_D(depth, ex), tree, right);
    dropChild(KOR_AT_D(depth, ex), tree, parent, left, rightFirstKey);
    return spot;
}

Place placeOf(const korBtree* tree, Spot spot)
{
    return {spot.node, ringIndex(tree, spot.node, spot.position)};
}

// The first item at a spot or behind it: that of the next node if the spot is behind the last.
Place placeFrom(const korBtree* tree, Spot spot)
{
    if (spot.position >= spot.node->itemCount && spot.node->next != nullptr) {
        return {spot.node->next, spot.node->next->start};
    }
    return {spot.node, ringIndex(tree, spot.node, std::min(spot.position, spot.node->itemCount - 1))};
}

// Where the key to be removed is; no node if it is absent. After a set that failed for want of memory a bound may be a
// key that is not there.
Spot locate(const korBtree* tree, int64_t key)
{
    Place place = key == tree->minKey   ? Place{tree->firstLeaf, tree->firstLeaf->start}
                  : key == tree->maxKey ? Place{tree->lastLeaf, lastIndexOf(tree, tree->lastLeaf)}
                                        : find(tree, key);
    if (place.node->items[place.index].key != key) {
        return {nullptr, 0};
    }
    return {place.node, positionOf(tree, place)};
}

} // namespace
} // namespace kor

using namespace kor;

// ---- Pools ----------------------------------------------------------------------------------------------------------

korPool* _korBtree_CreateSharedPool(korEx* ex, uint8_t depth, int16_t maxItemsPerNode)
{
    if (!isValidCapacity(KOR_AT(ex, depth), maxItemsPerNode)) {
        return nullptr;
    }
    return _korPool_Create(KOR_AT(ex, depth), 1024, nodeBytes(maxItemsPerNode), nullptr, nullptr, 1, 128);
}

korPoolCache* _korBtree_CreatePoolsEx(korEx* ex, uint8_t depth, korPool* pool, int64_t cacheSize)
{
    if (ex->code != 0) {
        return nullptr;
    }
    if (pool == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return nullptr;
    }
    return _korPoolCache_Create(KOR_AT(ex, depth), cacheSize, pool);
}

korPoolCache* _korBtree_CreatePools(korEx* ex, uint8_t depth, int16_t maxItemsPerNode, int64_t cacheSize)
{
    korPool* pool = _korBtree_CreateSharedPool(KOR_AT(ex, depth), maxItemsPerNode);
    korPoolCache* poolCache = _korBtree_CreatePoolsEx(KOR_AT(ex, depth), pool, cacheSize);
    if (poolCache == nullptr) {
        _korPool_Destroy(KOR_AT_D(depth, ex), pool);
    }
    return poolCache;
}

void _korBtree_DestroyPool(uint8_t depth, korEx* ex, korPoolCache* poolCache)
{
    _korPoolCache_Destroy(KOR_AT_D(depth, ex), poolCache);
}

void _korBtree_DestroyPools(uint8_t depth, korEx* ex, korPoolCache* poolCache)
{
    if (poolCache != nullptr) {
        korPool* pool = poolCache->pool;
        _korPoolCache_Destroy(KOR_AT_D(depth, ex), poolCache);
        _korPool_Destroy(KOR_AT_D(depth, ex), pool);
    }
}

// ---- Making ---------------------------------------------------------------------------------------------------------

void _korBtree_Init(korEx* ex, uint8_t depth, korBtree* tree, korPoolCache* poolCache, uint16_t maxItemsPerNode,
                    int64_t cacheSize)
{
    *tree = {};
    auto capacity = static_cast<int16_t>(maxItemsPerNode);
    if (!isValidCapacity(KOR_AT(ex, depth), capacity)) {
        return;
    }
    if (poolCache != nullptr && _korPool_ChunkSize(poolCache->pool) < static_cast<uint32_t>(nodeBytes(capacity))) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "chunks of the pool are smaller than a node");
        return;
    }
    tree->maxItemsPerNode = capacity;
    tree->indexMask = static_cast<int16_t>(capacity - 1);
    tree->levels = 1;
    tree->ownsPools = poolCache == nullptr;
    tree->poolCache = poolCache != nullptr ? poolCache : _korBtree_CreatePools(KOR_AT(ex, depth), capacity, cacheSize);
    if (ex->code == 0) {
        tree->root = createNode(KOR_AT(ex, depth), tree);
    }
    if (ex->code != 0) {
        _korBtree_Clear(KOR_AT_D(depth, ex), tree);
        *tree = {};
    }
}

korBtree* _korBtree_Create(korEx* ex, uint8_t depth, korPoolCache* poolCache, uint16_t maxItemsPerNode,
                           int64_t cacheSize)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto* tree = requestZeroed<korBtree>(KOR_AT(ex, depth));
    if (tree == nullptr) {
        return nullptr;
    }
    _korBtree_Init(KOR_AT(ex, depth), tree, poolCache, maxItemsPerNode, cacheSize);
    if (ex->code != 0) {
        _kor_free(KOR_AT_D(depth, ex), tree);
        return nullptr;
    }
    return tree;
}

void _korBtree_Clear(uint8_t depth, korEx* ex, korBtree* tree)
{
    if (tree == nullptr) {
        return;
    }
    if (tree->root != nullptr) {
        destroyNode(KOR_AT_D(depth, ex), tree, tree->root, tree->levels);
    }
    if (tree->ownsPools != 0) {
        _korBtree_DestroyPools(KOR_AT_D(depth, ex), tree->poolCache);
    }
}

void _korBtree_Destroy(uint8_t depth, korEx* ex, korBtree* tree)
{
    if (tree != nullptr) {
        _korBtree_Clear(KOR_AT_D(depth, ex), tree);
        _kor_free(KOR_AT_D(depth, ex), tree);
    }
}

// ---- Using ----------------------------------------------------------------------------------------------------------

uint64_t _korBtree_Get(korEx* ex, uint8_t, korBtree* tree, int64_t key)
{
    if (ex->code != 0 || tree->count == 0 || key < tree->minKey || key > tree->maxKey) {
        return 0;
    }
    Place place = find(tree, key);
    const korBtreeItem& item = place.node->items[place.index];
    if (item.key != key) {
        return 0;
    }
    remember(tree, place);
    return item.value;
}

bool _korBtree_GetNext(korEx* ex, uint8_t, korBtree* tree, int64_t key, int64_t* nextKey, uint64_t* nextValue)
{
    if (ex->code != 0 || tree->count == 0 || tree->maxKey <= key) {
        return false;
    }
    Place place =
        KOR_LIKELY(key == tree->lastKey) ? placeAfter(tree, {tree->lastNode, tree->lastIndex}) : placeAbove(tree, key);
    return visit(tree, place, nextKey, nextValue);
}

bool _korBtree_GetPrevious(korEx* ex, uint8_t, korBtree* tree, int64_t key, int64_t* previousKey,
                           uint64_t* previousValue)
{
    if (ex->code != 0 || tree->count == 0 || tree->minKey >= key) {
        return false;
    }
    Place place =
        KOR_LIKELY(key == tree->lastKey) ? placeBefore(tree, {tree->lastNode, tree->lastIndex}) : placeBelow(tree, key);
    return visit(tree, place, previousKey, previousValue);
}

uint64_t _korBtree_Set(korEx* ex, uint8_t depth, korBtree* tree, int64_t key, uint64_t value)
{
    if (ex->code != 0) {
        return 0;
    }
    Spot spot = chooseLeaf(tree, key);
    if (korBtreeItem* present = itemWithKey(tree, spot, key)) {
        remember(tree, placeOf(tree, spot));
        return std::exchange(present->value, value);
    }
    spot = insertAt(KOR_AT(ex, depth), tree, spot, {key, value});
    if (spot.node != nullptr) {
        remember(tree, placeOf(tree, spot));
        ++tree->count;
    }
    return 0;
}

uint64_t _korBtree_Remove(uint8_t depth, korEx* ex, korBtree* tree, int64_t key)
{
    if (tree == nullptr || tree->count == 0 || key < tree->minKey || key > tree->maxKey) {
        return 0;
    }
    Spot spot = locate(tree, key);
    if (spot.node == nullptr) {
        return 0;
    }
    uint64_t value = itemAt(tree, spot.node, spot.position)->value;
    if (--tree->count == 0) {
        spot.node->itemCount = 0;
        return value;
    }
    closeGap(tree, spot.node, spot.position);
    --spot.node->itemCount;
    if (key == tree->minKey) {
        tree->minKey = firstKeyOf(tree, tree->firstLeaf);
    } else if (key == tree->maxKey) {
        tree->maxKey = lastKeyOf(tree, tree->lastLeaf);
    }
    remember(tree, placeFrom(tree, mergeNode(KOR_AT_D(depth, ex), tree, spot)));
    return value;
}

void _korBtree_CheckIntegrity(korEx* ex, uint8_t depth, const korBtree* tree)
{
    const char* fault = ex->code != 0 ? nullptr : findBtreeFault(tree);
    if (fault != nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, fault);
    }
}
