// korRQueue.h - the ring queue: a bounded, lock-free queue of 64-bit values other than 0, with operations for one and
// for many threads at each end. A call does a bounded number of steps and hands a lost race back to the caller.
//
// A slot of the ring holds a value beside the sequence number of the position that it was filled for, and both change
// in one 16-byte compare-and-swap. Sequence numbers only grow, so a writer that was held up can not be fooled by a slot
// that looks as it did before. Producers do not read the consumers' position, nor the other way round.
//
// Choose one operation for each end:
//
//     many producers: _korRQueue_Push         many consumers: _korRQueue_Pop
//     one producer:   _korRQueue_SeqPush      one consumer:   _korRQueue_SeqPop
//
//     korRQueue* queue = _korRQueue_Create(KOR_AT(ex, depth), 1024);
//     while (_korRQueue_Push(queue, value) != KOR_RQUEUE_DONE)     // many threads
//         ...                                                      // lost a race, or full: try again, or do other work
//     uint64_t value = _korRQueue_SeqPop(queue);                   // one thread; 0 = nothing there
//     _korRQueue_Destroy(KOR_AT_D(depth, ex), queue);
//
// How a full queue is noticed depends on the consumer. _korRQueue_SeqPop tells the producers from time to time how far
// they may run, which is one ring of twice the size asked for ahead of itself: with it a producer is refused in time,
// for good. _korRQueue_Pop tells nothing: a producer is refused at the end of the first ring as long as that slot is
// filled, and never again once it has passed. Users of _korRQueue_Pop see to it themselves that no more than twice
// `queueSize` values are in the queue; beyond that, values are overwritten and the consumers come to a halt.
//
// Values in a queue are the caller's. The operations have no exception object: their results say all.

#ifndef KORUTIL_KORRQUEUE_H
#define KORUTIL_KORRQUEUE_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// What a push says.
#define KOR_RQUEUE_DONE 1
#define KOR_RQUEUE_LOST 0
#define KOR_RQUEUE_FULL (-1)

/// A slot of the ring, with two cache lines to itself. The first two fields change in one step.
typedef struct korRQueueSlot {
    uint64_t sequence; ///< atomic: the position that the slot was last filled for
    uint64_t value;    ///< atomic: 0 = emptied by _korRQueue_Pop
    uint8_t gap[112];  ///< unused
} __attribute__((aligned(128))) korRQueueSlot;

/// The queue: a half for the producers and a half for the consumers. Made and freed by the library alone.
typedef struct korRQueue {
    uint64_t pushPosition;   ///< atomic: sequence number of the next slot to fill
    uint64_t pushLimit;      ///< atomic: the position at which a producer must look for fullness
    uint64_t pushMask;       ///< `slotCount` - 1
    uint64_t slotCount;      ///< twice the size asked for
    korRQueueSlot* pushRing; ///< the ring
    uint8_t pushGap[88];     ///< unused
    uint64_t popPosition;    ///< atomic: sequence number of the next slot to read
    uint64_t popLimit;       ///< the position at which a single consumer moves `pushLimit`
    uint64_t popMask;        ///< `slotCount` - 1
    korRQueueSlot* popRing;  ///< the same ring, owned
    uint64_t queueSize;      ///< the size asked for
    void* allocation;        ///< the memory in which the ring lies
    uint8_t popGap[80];      ///< unused
} korRQueue;

/// Makes an empty queue with a ring of twice `size` slots, of 128 bytes each. The caller destroys it. NULL on an error:
/// code 11 "CPU must support double compare and swap"; code 1 "Queue size must be a positive power of two", which is
/// one below 2^31; code 2.
KOR_API korRQueue* _korRQueue_Create(korEx* ex, uint8_t depth, uint32_t size);

/// Frees a queue that no thread is in. NULL is accepted. Works with an error pending.
KOR_API void _korRQueue_Destroy(uint8_t depth, korEx* ex, korRQueue* queue);

/// Puts `value` at the end, from any number of threads. KOR_RQUEUE_DONE, or nothing was stored: KOR_RQUEUE_LOST if two
/// attempts met other producers, KOR_RQUEUE_FULL if there is no room. A value of 0 is refused like that, too.
KOR_API int32_t _korRQueue_Push(korRQueue* queue, uint64_t value);

/// The same for one producer at a time, with no other kind of push beside it. KOR_RQUEUE_DONE or KOR_RQUEUE_FULL.
KOR_API int32_t _korRQueue_SeqPush(korRQueue* queue, uint64_t value);

/// Takes the first value, from any number of threads: 1 with the value in `*value`, or 0, with `*value` untouched, if
/// two attempts found nothing or met other consumers.
KOR_API int32_t _korRQueue_Pop(korRQueue* queue, uint64_t* value);

/// Takes the first value, for one consumer at a time, with no _korRQueue_Pop beside it. 0 = nothing there.
KOR_API uint64_t _korRQueue_SeqPop(korRQueue* queue);

/// Not available: a reserved name. Ends the process.
KOR_API void _korRQueue_PushMany(void) __attribute__((noreturn));
/// Not available: a reserved name. Ends the process.
KOR_API void _korRQueue_PopMany(void) __attribute__((noreturn));

KOR_END_DECLS

#endif
