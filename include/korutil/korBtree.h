// korBtree.h - an ordered map from signed 64-bit keys to 64-bit values.
//
// All entries lie in the leaves, inner nodes hold separators, and the nodes of a level are linked to their neighbours.
// The items of a node lie in a ring, so that adding at the front of a node moves nothing. The tree remembers the place
// that it touched last: walks, and lookups nearby, need no search from the root. Before a full node is split and before
// thin ones are merged, items go to a neighbour, in batches, so that nodes stay well filled.
//
//     korBtree* tree = _korBtree_Create(KOR_AT(ex, depth), NULL, 64, 0);
//     _korBtree_Set(KOR_AT(ex, depth), tree, 7, 42);
//     uint64_t value = _korBtree_Get(KOR_AT(ex, depth), tree, 7);
//     _korBtree_Destroy(KOR_AT_D(depth, ex), tree);
//
// A walk over all entries from the least key; from the greatest it goes with _korBtree_GetPrevious:
//
//     int64_t key = tree->minKey;
//     uint64_t value = _korBtree_Get(KOR_AT(ex, depth), tree, key);
//     for (bool more = tree->count != 0; more; more = _korBtree_GetNext(KOR_AT(ex, depth), tree, key, &key, &value))
//         use(key, value);
//
// Threads. None of this locks, and reads write the remembered place: callers serialise.
//
// With an error pending, operations that take `ex` first do nothing and give 0, false or NULL. What allocates may raise
// code 2 (No memory), no description.

#ifndef KORUTIL_KORBTREE_H
#define KORUTIL_KORBTREE_H

#include "korutil/korPoolCache.h"

KOR_BEGIN_DECLS

/// A key with what belongs to it: in a leaf the caller's value, in an inner node the child whose keys begin there.
typedef struct korBtreeItem {
    int64_t key;
    uint64_t value;
} korBtreeItem;

/// A node. It is followed by the rest of its items: a node has room for the tree's `maxItemsPerNode`. The item at
/// logical position p lies at ring index (`start` + p) & `indexMask`.
typedef struct korBtreeNode {
    int32_t itemCount;             ///< items in use
    int32_t start;                 ///< ring index of the first item
    struct korBtreeNode* previous; ///< the node before it on its level, or NULL
    struct korBtreeNode* next;     ///< the node after it on its level, or NULL
    korBtreeItem items[1];         ///< `maxItemsPerNode` of them
} korBtreeNode;

/// The tree. Callers read `count` and, while it is not 0, `minKey` and `maxKey`, and leave the rest to the functions.
typedef struct korBtree {
    int64_t count;           ///< entries
    int16_t maxItemsPerNode; ///< capacity of a node: 4 or a greater power of two
    int16_t indexMask;       ///< `maxItemsPerNode` - 1
    int32_t levels;          ///< height; 1 while the root is a leaf
    uint8_t ownsPools;       ///< 1 = the pools were made with the tree and go with it
    korBtreeNode* root;      ///< never NULL while the tree lives
    int64_t maxKey;          ///< the greatest key
    korBtreeNode* lastLeaf;  ///< the leaf with `maxKey`
    int64_t minKey;          ///< the least key
    korBtreeNode* firstLeaf; ///< the leaf with `minKey`
    int64_t lastKey;         ///< key of the remembered place
    korBtreeNode* lastNode;  ///< its node; NULL until the first set
    int32_t lastIndex;       ///< its ring index
    korPoolCache* poolCache; ///< where nodes come from
} korBtree;

// ---- Pools ----------------------------------------------------------------------------------------------------------

/// Makes a pool of nodes that caches of several trees may draw on. The caller gives it up with _korPool_Destroy. NULL
/// on an error.
///
/// Errors: 1 "maxItemsPerNode must be 4 or greater power of 2"; 2; what _korPool_Create raises.
KOR_API korPool* _korBtree_CreateSharedPool(korEx* ex, uint8_t depth, int16_t maxItemsPerNode);
/// Makes a cache on a shared pool; `cacheSize` as _korPoolCache_Init takes it. One owner may use it for several trees.
/// Undone by _korBtree_DestroyPool. NULL on an error: code 1, no description, for a NULL pool; 2.
KOR_API korPoolCache* _korBtree_CreatePoolsEx(korEx* ex, uint8_t depth, korPool* pool, int64_t cacheSize);
/// Makes a pool and a cache on it. Undone by _korBtree_DestroyPools. NULL on an error, as the two above.
KOR_API korPoolCache* _korBtree_CreatePools(korEx* ex, uint8_t depth, int16_t maxItemsPerNode, int64_t cacheSize);
/// Destroys a cache and leaves the pool under it. Its trees must be gone. NULL is accepted. Works with an error
/// pending.
KOR_API void _korBtree_DestroyPool(uint8_t depth, korEx* ex, korPoolCache* poolCache);
/// Destroys a cache and the pool under it. Its trees must be gone. NULL is accepted. Works with an error pending.
KOR_API void _korBtree_DestroyPools(uint8_t depth, korEx* ex, korPoolCache* poolCache);

// ---- Making ---------------------------------------------------------------------------------------------------------

/// Initialises an empty tree in the caller's memory. `maxItemsPerNode` is a power of two from 4 to 16384: small nodes
/// suit changes at random, large ones walks. With a NULL `poolCache` the tree makes pools of its own, with `cacheSize`.
/// Undone by _korBtree_Clear; after an error there is nothing to undo, and _korBtree_Clear accepts it.
///
/// Errors: 1 "maxItemsPerNode must be 4 or greater power of 2"; 1 "chunks of the pool are smaller than a node"; 2.
KOR_API void _korBtree_Init(korEx* ex, uint8_t depth, korBtree* tree, korPoolCache* poolCache, uint16_t maxItemsPerNode,
                            int64_t cacheSize);
/// The same on the heap. The caller destroys it with _korBtree_Destroy. NULL on an error, as _korBtree_Init.
KOR_API korBtree* _korBtree_Create(korEx* ex, uint8_t depth, korPoolCache* poolCache, uint16_t maxItemsPerNode,
                                   int64_t cacheSize);
/// Frees all nodes, and the pools that the tree owns. Values stay the caller's. This ends the tree: once, and only
/// _korBtree_Init makes a tree of the object again. NULL is accepted. Works with an error pending.
KOR_API void _korBtree_Clear(uint8_t depth, korEx* ex, korBtree* tree);
/// Clears a tree of _korBtree_Create and frees it. NULL is accepted. Works with an error pending.
KOR_API void _korBtree_Destroy(uint8_t depth, korEx* ex, korBtree* tree);

// ---- Using ----------------------------------------------------------------------------------------------------------

/// The value of a key, or 0 if the key is absent.
KOR_API uint64_t _korBtree_Get(korEx* ex, uint8_t depth, korBtree* tree, int64_t key);
/// The first entry with a key above `key`, which need not be in the tree; false if there is none. The out pointers may
/// be NULL. With the key that the last call gave this is one step, without a search.
KOR_API bool _korBtree_GetNext(korEx* ex, uint8_t depth, korBtree* tree, int64_t key, int64_t* nextKey,
                               uint64_t* nextValue);
/// The same downwards: the first entry with a key below `key`.
KOR_API bool _korBtree_GetPrevious(korEx* ex, uint8_t depth, korBtree* tree, int64_t key, int64_t* previousKey,
                                   uint64_t* previousValue);
/// Sets the value of a key and gives the value before, or 0 if the key is new. Code 2: the entry is not there and all
/// others are, but a key below `minKey` or above `maxKey` has already become `minKey` or `maxKey`.
KOR_API uint64_t _korBtree_Set(korEx* ex, uint8_t depth, korBtree* tree, int64_t key, uint64_t value);
/// Removes a key and gives its value, or 0 if it is absent. A NULL tree gives 0. Works with an error pending.
KOR_API uint64_t _korBtree_Remove(uint8_t depth, korEx* ex, korBtree* tree, int64_t key);

/// Tests the whole structure, for tests and for the hunt after wild writes. Raises code 10 with a description of the
/// first fault. Values that are 0 count as a fault, and so does the key INT64_MIN, though both can be stored.
KOR_API void _korBtree_CheckIntegrity(korEx* ex, uint8_t depth, const korBtree* tree);

KOR_END_DECLS

#endif
