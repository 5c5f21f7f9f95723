// korTopicList.h - the wildcard topic index: which values are stored under topics that match a given topic.
//
// A topic is a text of tokens divided by '/'. Every '/' begins a further token, so "a//b" has an empty token in the
// middle, "a/" one at its end, and the empty topic is one empty token. The tokens "+" and "#" are wildcards, and only
// as whole tokens: "+x" and "##" are plain text. A stored "+" stands for any one token, a stored "#" at the end for one
// or more. No topic is refused: any length, any number of tokens, wildcards anywhere.
//
//     korTopicList* list = _korTopicList_CreatePooled(KOR_AT(ex, depth));
//     _korTopicList_Insert(KOR_AT(ex, depth), list, "orders/+/new", subscriber);
//     const korDpa* found = _korTopicList_Get(KOR_AT(ex, depth), list, "orders/emea/new");
//     for (int32_t i = 0; found != NULL && i < found->count; i++)
//         deliver(found->items[i]);
//     _korTopicList_Destroy(KOR_AT_D(depth, ex), list);
//
// A value is an opaque 64-bit number that stays the caller's. It may be stored any number of times, at one topic or at
// many, and each counts. The value 0 can be stored, but not removed by itself.
//
// The index is a trie: each level has a table from token to node, a node has the values of the topic that ends there
// and the level below. What has fallen empty is pruned at once. Topics of any depth are handled without recursion.
//
// Threads. A list has no lock, and every operation writes to it, queries too: callers serialise all of them.
//
// Errors that any allocation raises: code 2 (No memory), no description.

#ifndef KORUTIL_KORTOPICLIST_H
#define KORUTIL_KORTOPICLIST_H

#include "korutil/korDpa.h"
#include "korutil/korEx.h"
#include "korutil/korHash.h"
#include "korutil/korPool.h"

KOR_BEGIN_DECLS

/// The tokens of one position.
typedef struct korTopicLevel {
    struct korTopicNode* plusNode; ///< the node of the token "+", or NULL; it is also in `nodes`
    struct korTopicNode* hashNode; ///< the node of the token "#", or NULL; it is also in `nodes`
    korHash* nodes;                ///< token to node, owned
} korTopicLevel;

/// A token in its place, and with it the topic that ends there.
typedef struct korTopicNode {
    korTopicLevel* childLevel;   ///< the tokens of the next position, owned, or NULL
    korDpa* values;              ///< the values of the topic that ends here, owned; NULL when there are none
    struct korTopicNode* parent; ///< the token before; NULL in the first level
    const char* token;           ///< the token, owned and not terminated; an empty one is a static text
    uint32_t tokenLength;        ///< its length
} korTopicNode;

/// The index. Callers leave its fields to the functions.
typedef struct korTopicList {
    korTopicLevel* rootLevel; ///< the first tokens; always there
    korDpa* results;          ///< what the queries give, reused by each
    uint32_t count;           ///< values stored, duplicates included
    korDpa* nodeStack;        ///< scratch path: nodes
    korDpa* levelStack;       ///< scratch path: levels
    korDpa* tokenStack;       ///< scratch path: tokens, inside the caller's topic
    korDpa* lengthStack;      ///< scratch path: lengths of tokens
    korPool* levelPool;       ///< levels; this and the next six are NULL in a list on the heap
    korPool* nodePool;        ///< nodes
    korPool* tokenPool;       ///< tokens of up to 32 bytes
    korPool* hashPool;        ///< tables of the levels
    korPool* hashEntryPool;   ///< entries of those tables
    korPool* dpaPool;         ///< value arrays of the nodes
    korPool* dpaArrayPool;    ///< their storage, two values a chunk
    uint8_t ownsPools;        ///< 1 = the pools go with the list
} korTopicList;

/// Visits one topic and its values. Gives a value to be removed from that topic, or 0 to leave it as it is. It must not
/// use the list in any other way. An error that it raises stops the enumeration.
typedef uint64_t (*korTopicListCallback)(korEx* ex, uint8_t depth, const char* topic, const korDpa* values,
                                         void* closure);

// ---- Making ---------------------------------------------------------------------------------------------------------

/// Makes the pools that lists can share: an array of seven, in the order of the list's fields. They must outlive the
/// lists, and go with _korTopicList_DestroyPools. NULL on an error: code 2.
KOR_API korPool** _korTopicList_CreatePools(korEx* ex, uint8_t depth);

/// Destroys pools of _korTopicList_CreatePools, and the array. NULL is accepted. Works with an error pending.
KOR_API void _korTopicList_DestroyPools(uint8_t depth, korEx* ex, korPool** pools);

/// Makes a list whose records all come from the heap. For large lists that are asked more than they change: what a
/// topic needs lies together. The caller destroys it with _korTopicList_Destroy. NULL on an error: code 2.
KOR_API korTopicList* _korTopicList_Create(korEx* ex, uint8_t depth);

/// The same with records from seven pools of its own, for lists that change often.
KOR_API korTopicList* _korTopicList_CreatePooled(korEx* ex, uint8_t depth);

/// The same with the caller's pools, of _korTopicList_CreatePools. NULL pools: as _korTopicList_CreatePooled.
KOR_API korTopicList* _korTopicList_CreatePooledEx(korEx* ex, uint8_t depth, korPool** pools);

/// Frees the list and all its topics, and the pools if they are its own. Values are not touched. NULL is accepted.
/// Works with an error pending.
KOR_API void _korTopicList_Destroy(uint8_t depth, korEx* ex, korTopicList* list);

// ---- Storing --------------------------------------------------------------------------------------------------------

/// Stores a value at a topic; one that is there already is stored once more. A NULL list or topic and a pending error
/// do nothing. On an error nothing is stored. Errors: 1 "Key is too long", for a token of 2^31 bytes and more; 2.
KOR_API void _korTopicList_Insert(korEx* ex, uint8_t depth, korTopicList* list, const char* topic, uint64_t value);

/// The same, and `*node`, unless `node` is NULL, becomes the node of the topic. A node lives as long as it has values
/// or nodes below it. On an error `*node` stays as it was.
KOR_API void _korTopicList_InsertEx(korEx* ex, uint8_t depth, korTopicList* list, const char* topic, uint64_t value,
                                    korTopicNode** node);

/// Removes one `value` from a topic of exactly this text, or with 0 all values of it, and gives the number removed. The
/// order of the values that stay is not kept. A NULL list or topic gives 0. Works with an error pending. Error: 2, for
/// topics of more than 17 tokens; the result tells what was removed.
KOR_API int32_t _korTopicList_Remove(uint8_t depth, korEx* ex, korTopicList* list, const char* topic, uint64_t value);

/// The same, and `*remaining`, unless NULL, becomes the number of values left at the topic. It stays as it was if the
/// topic had none.
KOR_API int32_t _korTopicList_RemoveEx(uint8_t depth, korEx* ex, korTopicList* list, const char* topic, uint64_t value,
                                       int32_t* remaining);

// ---- Questions about what is stored ---------------------------------------------------------------------------------

/// Rebuilds the topic of a node of _korTopicList_InsertEx in `*buffer` of `*size` bytes, which is reallocated if it is
/// too small and may start as NULL and 0. The caller frees it with _kor_free or _korUtil_Free, after an error too.
/// Gives the length with the terminator; 0 on an error: 2; 22 (no description) for a text that reaches 2^31 bytes.
KOR_API int32_t _korTopicList_Topic(korEx* ex, uint8_t depth, korTopicList* list, const korTopicNode* node,
                                    char** buffer, int32_t* size);

/// Calls `callback` for each topic that has values, a topic before those below it, and removes the values that it
/// gives. The text and the array are valid during the call. Errors: what `callback` raises, 2, and 22 (no description)
/// for a topic that reaches 2^31 bytes; the enumeration then ends.
KOR_API void _korTopicList_Enumerate(korEx* ex, uint8_t depth, korTopicList* list, korTopicListCallback callback,
                                     void* closure);

/// The number of values in the list, duplicates included; 0 with an error pending.
KOR_API uint32_t _korTopicList_Count(korEx* ex, uint8_t depth, const korTopicList* list);

/// The number of values at a node of _korTopicList_InsertEx, which must still have values; 0 with an error pending.
KOR_API int32_t _korTopicList_SameTopicCount(korEx* ex, uint8_t depth, const korTopicNode* node);

// ---- Matching -------------------------------------------------------------------------------------------------------
//
// A query is a topic and may have wildcards. What it finds is a flat array of values: not sorted, and with a value as
// often as it is stored at topics that match. A stored "a/#" is found by "a/b" and "a/b/c", and not by "a". Below a
// stored "#" that is not the last token, only the query token "#" and _korTopicList_GetLiteral look.
//
// The array of the first two queries and of _korTopicList_All is the list's own, valid until the next of these calls;
// it must not be changed. They give NULL if nothing was found, for a NULL list or topic, and with an error pending.
// Error: 2, and the result is then what had been found before.

/// All values that can match: wildcards act as wildcards on both sides. The stored "a/+" matches the query "a/b", the
/// stored "a/b" the query "a/+".
KOR_API const korDpa* _korTopicList_Get(korEx* ex, uint8_t depth, korTopicList* list, const char* topic);

/// All values whose topics cover the query: wildcards of the query are matched by wildcards only. The stored "a/+"
/// answers the query "a/+", the stored "a/b" does not.
KOR_API const korDpa* _korTopicList_GetNarrow(korEx* ex, uint8_t depth, korTopicList* list, const char* topic);

/// The values of the one topic of exactly this text, in the node's own array, which is valid until that topic is
/// changed and must not be changed by the caller. NULL if it has none, for a NULL list or topic, and with an error
/// pending. Error: 2.
KOR_API const korDpa* _korTopicList_GetLiteral(korEx* ex, uint8_t depth, korTopicList* list, const char* topic);

/// All values of the list, a topic before those below it.
KOR_API const korDpa* _korTopicList_All(korEx* ex, uint8_t depth, korTopicList* list);

KOR_END_DECLS

#endif
