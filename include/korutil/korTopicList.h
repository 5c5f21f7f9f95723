// korTopicList.h - the wildcard topic index: which values stand at a topic, and which of all topics match one.
//
// A topic is a text of tokens with "/" between them; every "/" begins a further token, which may be empty. A token of
// exactly "+" stands for any one token, one of exactly "#" for all that follow, at least one. Nothing is validated:
// tokens may be of any number and length, and "#" may stand anywhere. Values are opaque 64-bit numbers; a topic may
// hold any number of them, the same one more than once.
//
//     korTopicList* list = _korTopicList_CreatePooled(KOR_AT(ex, depth));
//     _korTopicList_Insert(KOR_AT(ex, depth), list, "sensors/+/temperature", subscriber);
//     const korDpa* found = _korTopicList_Get(KOR_AT(ex, depth), list, "sensors/7/temperature");
//     for (int32_t i = 0; found != NULL && i < found->count; i++)
//         deliver(found->items[i]);
//     _korTopicList_Destroy(KOR_AT_D(depth, ex), list);
//
// What a query finds:
//
// | query                    | wildcards in stored topics | wildcards in the query | finds                            |
// |--------------------------|----------------------------|------------------------|----------------------------------|
// | _korTopicList_Get        | act                        | act                    | stored topics that can match it  |
// | _korTopicList_GetNarrow  | act                        | match only wildcards   | stored topics that cover it      |
// | _korTopicList_GetLiteral | plain text                 | plain text             | the stored topic of the same text
// | | _korTopicList_All        |                            |                        | everything |
//
// A stored "a/#" is not found by "a". A "#" in the middle of a stored topic is reached by a query of "#" or a literal
// one only. Results are neither sorted nor freed of duplicates.
//
// None of this locks, and queries write, too: callers serialise all access. Errors: code 2 (No memory), no description.

#ifndef KORUTIL_KORTOPICLIST_H
#define KORUTIL_KORTOPICLIST_H

#include "korutil/korDpa.h"
#include "korutil/korHash.h"

KOR_BEGIN_DECLS

typedef struct korTopicNode korTopicNode;

/// All tokens that stand at one place behind the same tokens.
typedef struct korTopicLevel {
    korTopicNode* plusNode; ///< the node of "+", which is in `nodes`, too; or NULL
    korTopicNode* hashNode; ///< the node of "#", likewise
    korHash* nodes;         ///< token to node
} korTopicLevel;

/// A token, the values of the topic that ends there, and what follows it. It has values, or a level below it.
struct korTopicNode {
    korTopicLevel* childLevel; ///< NULL if no topic goes on from here
    korDpa* values;            ///< NULL if no topic ends here; never empty
    korTopicNode* parent;      ///< NULL on the first level
    const char* token;         ///< not terminated
    uint32_t tokenLength;      ///< 0 for the empty token
};

/// The index. Written by the library alone.
typedef struct korTopicList {
    korTopicLevel* rootLevel; ///< always there
    korDpa* results;          ///< of every query but the literal one
    uint32_t count;           ///< values, duplicates included
    korDpa* nodeStack;        ///< scratch: a path of nodes
    korDpa* levelStack;       ///< scratch: what a query comes back to
    korDpa* tokenStack;       ///< scratch: and with which rest of its topic
    korDpa* lengthStack;      ///< scratch
    korPool* levelPool;       ///< NULL, as all pools of a list that uses the heap
    korPool* nodePool;
    korPool* tokenPool;
    korPool* hashPool;
    korPool* hashEntryPool;
    korPool* dpaPool;
    korPool* dpaArrayPool;
    uint8_t ownsPools; ///< 1 = the pools go with the list
} korTopicList;

/// Sees a topic and its values, which stay the list's; gives a value to remove from that topic, or 0.
typedef uint64_t (*korTopicCallback)(korEx* ex, uint8_t depth, const char* topic, const korDpa* values, void* closure);

// ---- Making ---------------------------------------------------------------------------------------------------------

/// Makes pools that several lists may share: an array of seven, for _korTopicList_DestroyPools. NULL after a failure.
KOR_API korPool** _korTopicList_CreatePools(korEx* ex, uint8_t depth);
/// Destroys such pools, after all lists that use them. NULL is accepted. Works with an error pending.
KOR_API void _korTopicList_DestroyPools(uint8_t depth, korEx* ex, korPool** pools);

/// Makes an empty list that uses the heap. NULL after a failure.
KOR_API korTopicList* _korTopicList_Create(korEx* ex, uint8_t depth);
/// Makes an empty list with pools of its own. NULL after a failure.
KOR_API korTopicList* _korTopicList_CreatePooled(korEx* ex, uint8_t depth);
/// Makes an empty list with the caller's pools; NULL for `pools` is the same as _korTopicList_CreatePooled. NULL after
/// a failure.
KOR_API korTopicList* _korTopicList_CreatePooledEx(korEx* ex, uint8_t depth, korPool** pools);

/// Frees a list; stored values stay the caller's. NULL is accepted. Works with an error pending.
KOR_API void _korTopicList_Destroy(uint8_t depth, korEx* ex, korTopicList* list);

// ---- Changing -------------------------------------------------------------------------------------------------------

/// Stores a value at a topic, whether or not it stands there already. Does nothing for a NULL list or topic.
KOR_API void _korTopicList_Insert(korEx* ex, uint8_t depth, korTopicList* list, const char* topic, uint64_t value);
/// The same; `*node`, if asked for, gets the topic's node, which lives as long as the topic has values.
KOR_API void _korTopicList_InsertEx(korEx* ex, uint8_t depth, korTopicList* list, const char* topic, uint64_t value,
                                    korTopicNode** node);

/// Removes a value, once, from a topic, or all of the topic's values if `value` is 0. Gives how many were removed; 0
/// for a NULL list or topic. The order of the values that are left may change. Works with an error pending and cannot
/// fail.
KOR_API uint32_t _korTopicList_Remove(uint8_t depth, korEx* ex, korTopicList* list, const char* topic, uint64_t value);
/// The same; `*remaining`, if asked for, gets how many values are left at the topic, and is not written if the topic
/// has none to begin with.
KOR_API uint32_t _korTopicList_RemoveEx(uint8_t depth, korEx* ex, korTopicList* list, const char* topic, uint64_t value,
                                        int32_t* remaining);

// ---- Asking ---------------------------------------------------------------------------------------------------------

/// All values at stored topics that can match `topic`, or NULL if there are none. The array is the list's and the same
/// one for all queries: it is valid until the next of them. If memory runs out, code 2, and what was found so far.
KOR_API const korDpa* _korTopicList_Get(korEx* ex, uint8_t depth, korTopicList* list, const char* topic);
/// All values at stored topics that cover `topic`; otherwise as _korTopicList_Get.
KOR_API const korDpa* _korTopicList_GetNarrow(korEx* ex, uint8_t depth, korTopicList* list, const char* topic);
/// The values at the stored topic of exactly this text, or NULL. The array is the topic's own: it changes with it.
KOR_API const korDpa* _korTopicList_GetLiteral(korEx* ex, uint8_t depth, korTopicList* list, const char* topic);
/// All values; otherwise as _korTopicList_Get.
KOR_API const korDpa* _korTopicList_All(korEx* ex, uint8_t depth, korTopicList* list);

/// How many values are stored, duplicates included; 0 with an error pending.
KOR_API uint32_t _korTopicList_Count(korEx* ex, uint8_t depth, const korTopicList* list);
/// How many values stand at a node of _korTopicList_InsertEx, which must still have some; 0 with an error pending.
KOR_API uint32_t _korTopicList_SameTopicCount(korEx* ex, uint8_t depth, const korTopicNode* node);

/// Writes the topic of a node into `*buffer` of `*size` bytes, which may be NULL and 0 and is reallocated as needed:
/// the caller frees it with _kor_free. Gives the topic's length with its terminator; 0 after a failure.
KOR_API int32_t _korTopicList_Topic(korEx* ex, uint8_t depth, korTopicList* list, const korTopicNode* node,
                                    char** buffer, int32_t* size);

/// Shows every topic that has values to `callback`, a topic before those that go on from it, and removes what it asks
/// for. An error that it raises ends the walk. It must not change the list in any other way, nor query it.
KOR_API void _korTopicList_Enumerate(korEx* ex, uint8_t depth, korTopicList* list, korTopicCallback callback,
                                     void* closure);

KOR_END_DECLS

#endif
