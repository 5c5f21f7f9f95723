// outbox.h - what waits to go to one client: answers, packets to be sent, packets sent and not yet acknowledged.
//
// A packet is encoded once for all its receivers and shared between their outboxes by its reference count; what differs
// from one receiver to the next, the flags and the packet id, is kept with the delivery and written over the copy that
// goes to the socket. An outbox belongs to the input thread. An idle one holds no memory beyond its record.

#ifndef EXCHANGE_OUTBOX_H
#define EXCHANGE_OUTBOX_H

#include <korutil/korBuffer.h>
#include <korutil/korI64Hash.h>

#include <cstdint>

/// One packet on its way to one client.
struct Delivery {
    Delivery* next;
    Delivery* previous;
    korBuffer* packet;   ///< holds a reference
    int64_t sentAt;      ///< milliseconds; of a delivery that waits for its acknowledgement
    uint32_t idOffset;   ///< where the packet id stands in the packet; 0 with QoS 0
    uint16_t packetId;   ///< 0 until it is sent for the first time
    uint8_t flags;       ///< bits of the first byte that the shared packet does not have
    bool unacknowledged; ///< in that list, not in the queue
};

/// Deliveries in order. A zeroed record is an empty list.
struct DeliveryList {
    Delivery* first;
    Delivery* last;
};

/// A zeroed record is an empty outbox.
struct Outbox {
    korBuffer* answers;          ///< whole packets that go before the queue, up to `position`; NULL for none
    korBuffer* rest;             ///< bytes, from `position` to `end`, that the socket has not taken yet; NULL for none
    DeliveryList queue;          ///< to be sent
    DeliveryList unacknowledged; ///< sent with QoS 1, the oldest first
    korI64Hash* ids;             ///< packet id to delivery, of all that were sent with QoS 1; NULL until the first one
    uint64_t bytes;              ///< memory that the deliveries hold, sharing left aside
    uint64_t queuedBytes;        ///< the same of those in the queue
    uint16_t lastId;
};

/// Where the memory of all outboxes comes from.
struct OutboxPools {
    korPool* deliveries;
    korI64HashPools ids;
};

/// The most deliveries of a client that may wait for acknowledgement; further ones with QoS 1 wait in the queue.
constexpr uint32_t maxUnacknowledged = 32768;

void openOutboxPools(korEx* ex, uint8_t depth, OutboxPools* pools);
void closeOutboxPools(uint8_t depth, korEx* ex, OutboxPools* pools);

/// What a packet counts for in `bytes`.
uint64_t weightOf(const korBuffer* packet);

/// The buffer that an answer is to be appended to; NULL on an error.
korBuffer* answersOf(korEx* ex, uint8_t depth, Outbox* outbox);

/// Queues a packet, of which the outbox takes a reference of its own. `idOffset` is 0 for QoS 0.
void enqueue(korEx* ex, uint8_t depth, OutboxPools* pools, Outbox* outbox, korBuffer* packet, uint32_t idOffset,
             uint8_t flags);

/// True if there is something to send now.
bool hasOutput(const Outbox* outbox);

/// Moves answers and then packets to `staging`, some 64 KiB of them and always whole ones, and gives their number of
/// packets from the queue. Those with QoS 1 get their ids and wait for acknowledgement from now on.
uint32_t stage(korEx* ex, uint8_t depth, OutboxPools* pools, Outbox* outbox, korBuffer* staging, int64_t now);

/// Keeps what the socket did not take of staged bytes.
void keepRest(korEx* ex, uint8_t depth, Outbox* outbox, const uint8_t* bytes, uint32_t size);
/// Tells that the socket took so many bytes of the rest.
void shortenRest(uint8_t depth, korEx* ex, Outbox* outbox, uint32_t size);

/// Ends the delivery of an acknowledged id; false if there is none.
bool acknowledge(uint8_t depth, korEx* ex, OutboxPools* pools, Outbox* outbox, uint16_t packetId);

/// Queues again what was sent before `before` and is not acknowledged, marked as sent again, in its order. Gives the
/// number.
uint32_t resend(Outbox* outbox, int64_t before);

/// Gives everything back.
void clearOutbox(uint8_t depth, korEx* ex, OutboxPools* pools, Outbox* outbox);

#endif
