// outbox.cpp - a delivery is in one of two lists: in the queue until it is sent and, with QoS 1, among the
// unacknowledged until its acknowledgement comes or it is queued again. From the first sending on `ids` knows it too.

#include "outbox.h"

#include "mqtt.h"

#include <cstring>

namespace {

constexpr uint32_t stagedSize = 64 * 1024;
constexpr int32_t answersSize = 256;

void appendTo(DeliveryList* list, Delivery* delivery)
{
    delivery->next = nullptr;
    delivery->previous = list->last;
    (list->last != nullptr ? list->last->next : list->first) = delivery;
    list->last = delivery;
}

void removeFrom(DeliveryList* list, Delivery* delivery)
{
    (delivery->previous != nullptr ? delivery->previous->next : list->first) = delivery->next;
    (delivery->next != nullptr ? delivery->next->previous : list->last) = delivery->previous;
}

// The two ways into the lists, and the one out of them.

void addToQueue(Outbox* outbox, Delivery* delivery)
{
    delivery->unacknowledged = false;
    appendTo(&outbox->queue, delivery);
    outbox->queuedBytes += weightOf(delivery->packet);
}

void addToUnacknowledged(Outbox* outbox, Delivery* delivery)
{
    delivery->unacknowledged = true;
    appendTo(&outbox->unacknowledged, delivery);
}

void takeOut(Outbox* outbox, Delivery* delivery)
{
    if (delivery->unacknowledged) {
        removeFrom(&outbox->unacknowledged, delivery);
    } else {
        removeFrom(&outbox->queue, delivery);
        outbox->queuedBytes -= weightOf(delivery->packet);
    }
}

void endDelivery(uint8_t depth, korEx* ex, OutboxPools* pools, Outbox* outbox, Delivery* delivery)
{
    takeOut(outbox, delivery);
    outbox->bytes -= weightOf(delivery->packet);
    _korBuffer_ReleaseToCache(KOR_AT_D(depth, ex), delivery->packet, nullptr);
    _korPool_Return(KOR_AT_D(depth, ex), pools->deliveries, delivery);
}

// Gives a delivery the next id that none has; there is one, since fewer wait than there are ids.
void nameDelivery(korEx* ex, uint8_t depth, OutboxPools* pools, Outbox* outbox, Delivery* delivery)
{
    if (outbox->ids == nullptr) {
        outbox->ids = _korI64Hash_CreatePooled(KOR_AT(ex, depth), &pools->ids, 1);
    }
    uint16_t id = outbox->lastId;
    do {
        id = static_cast<uint16_t>(id + 1);
    } while (ex->code == 0 && (id == 0 || _korI64Hash_Get(KOR_AT(ex, depth), outbox->ids, id) != 0));
    _korI64Hash_SetPooled(KOR_AT(ex, depth), outbox->ids, &pools->ids, id, reinterpret_cast<uint64_t>(delivery));
    if (ex->code == 0) {
        delivery->packetId = id;
        outbox->lastId = id;
    }
}

bool mustWait(const Outbox* outbox, const Delivery* delivery)
{
    return delivery->idOffset != 0 && delivery->packetId == 0 && outbox->ids != nullptr &&
           outbox->ids->entryCount >= maxUnacknowledged;
}

// Copies a packet and writes over the copy what is this client's own.
void copyPacket(korBuffer* staging, const Delivery* delivery)
{
    auto size = static_cast<uint32_t>(delivery->packet->position - delivery->packet->data);
    uint8_t* copy = staging->position;
    std::memcpy(copy, delivery->packet->data, size);
    copy[0] = static_cast<uint8_t>(copy[0] | delivery->flags);
    if (delivery->idOffset != 0) {
        copy[delivery->idOffset] = static_cast<uint8_t>(delivery->packetId >> 8);
        copy[delivery->idOffset + 1] = static_cast<uint8_t>(delivery->packetId);
    }
    staging->position += size;
}

// On an error nothing has changed.
void stageDelivery(korEx* ex, uint8_t depth, OutboxPools* pools, Outbox* outbox, Delivery* delivery, korBuffer* staging,
                   int64_t now)
{
    auto size = static_cast<uint32_t>(delivery->packet->position - delivery->packet->data);
    if (!mqtt::reserve(KOR_AT(ex, depth), staging, size)) {
        return;
    }
    if (delivery->idOffset != 0 && delivery->packetId == 0) {
        nameDelivery(KOR_AT(ex, depth), pools, outbox, delivery);
        if (ex->code != 0) {
            return;
        }
    }
    copyPacket(staging, delivery);
    if (delivery->idOffset == 0) {
        endDelivery(KOR_AT_D(depth, ex), pools, outbox, delivery);
        return;
    }
    takeOut(outbox, delivery);
    delivery->sentAt = now;
    addToUnacknowledged(outbox, delivery);
}

void stageAnswers(korEx* ex, uint8_t depth, Outbox* outbox, korBuffer* staging)
{
    if (outbox->answers == nullptr) {
        return;
    }
    auto size = static_cast<uint32_t>(outbox->answers->position - outbox->answers->data);
    if (!mqtt::reserve(KOR_AT(ex, depth), staging, size)) {
        return;
    }
    std::memcpy(staging->position, outbox->answers->data, size);
    staging->position += size;
    _korBuffer_ReleaseToCache(KOR_AT_D(depth, ex), outbox->answers, nullptr);
    outbox->answers = nullptr;
}

} // namespace

void openOutboxPools(korEx* ex, uint8_t depth, OutboxPools* pools)
{
    pools->deliveries = _korPool_Create(KOR_AT(ex, depth), 1024, sizeof(Delivery), nullptr, nullptr, 0, 128);
    _korI64Hash_CreatePoolsEx(KOR_AT(ex, depth), &pools->ids, 0);
}

void closeOutboxPools(uint8_t depth, korEx* ex, OutboxPools* pools)
{
    if (pools->ids.hashPool != nullptr) {
        _korI64Hash_DestroyPools(KOR_AT_D(depth, ex), &pools->ids);
    }
    _korPool_Destroy(KOR_AT_D(depth, ex), pools->deliveries);
}

uint64_t weightOf(const korBuffer* packet)
{
    return sizeof(Delivery) + sizeof(korBuffer) + static_cast<uint64_t>(packet->position - packet->data);
}

korBuffer* answersOf(korEx* ex, uint8_t depth, Outbox* outbox)
{
    if (outbox->answers == nullptr) {
        outbox->answers = _korBuffer_CreateFromCacheOrPool(KOR_AT(ex, depth), nullptr, nullptr, answersSize);
    }
    return ex->code == 0 ? outbox->answers : nullptr;
}

void enqueue(korEx* ex, uint8_t depth, OutboxPools* pools, Outbox* outbox, korBuffer* packet, uint32_t idOffset,
             uint8_t flags)
{
    auto* delivery = static_cast<Delivery*>(_korPool_Get(KOR_AT(ex, depth), pools->deliveries));
    if (delivery == nullptr) {
        return;
    }
    KOR_ATOMIC_ADD(&packet->refCount, 1);
    *delivery = {nullptr, nullptr, packet, 0, idOffset, 0, flags, false};
    outbox->bytes += weightOf(packet);
    addToQueue(outbox, delivery);
}

bool hasOutput(const Outbox* outbox)
{
    const Delivery* first = outbox->queue.first;
    return outbox->rest != nullptr || outbox->answers != nullptr || (first != nullptr && !mustWait(outbox, first));
}

uint32_t stage(korEx* ex, uint8_t depth, OutboxPools* pools, Outbox* outbox, korBuffer* staging, int64_t now)
{
    uint32_t count = 0;
    staging->position = staging->data;
    stageAnswers(KOR_AT(ex, depth), outbox, staging);
    while (ex->code == 0 && outbox->queue.first != nullptr && !mustWait(outbox, outbox->queue.first) &&
           staging->position - staging->data < stagedSize) {
        stageDelivery(KOR_AT(ex, depth), pools, outbox, outbox->queue.first, staging, now);
        count++;
    }
    return count;
}

void keepRest(korEx* ex, uint8_t depth, Outbox* outbox, const uint8_t* bytes, uint32_t size)
{
    auto capacity = static_cast<int32_t>(size);
    outbox->rest = _korBuffer_CreateFromCacheOrPool(KOR_AT(ex, depth), nullptr, nullptr, capacity);
    if (outbox->rest != nullptr) {
        std::memcpy(outbox->rest->data, bytes, size);
        outbox->rest->end = outbox->rest->data + size;
    }
}

void shortenRest(uint8_t depth, korEx* ex, Outbox* outbox, uint32_t size)
{
    outbox->rest->position += size;
    if (outbox->rest->position == outbox->rest->end) {
        _korBuffer_ReleaseToCache(KOR_AT_D(depth, ex), outbox->rest, nullptr);
        outbox->rest = nullptr;
    }
}

bool acknowledge(uint8_t depth, korEx* ex, OutboxPools* pools, Outbox* outbox, uint16_t packetId)
{
    if (outbox->ids == nullptr) {
        return false;
    }
    auto* delivery =
        reinterpret_cast<Delivery*>(_korI64Hash_RemovePooled(KOR_AT_D(depth, ex), outbox->ids, &pools->ids, packetId));
    if (delivery != nullptr) {
        endDelivery(KOR_AT_D(depth, ex), pools, outbox, delivery);
    }
    return delivery != nullptr;
}

uint32_t resend(Outbox* outbox, int64_t before)
{
    uint32_t count = 0;
    Delivery* delivery = outbox->unacknowledged.first;
    while (delivery != nullptr && delivery->sentAt < before) {
        takeOut(outbox, delivery);
        delivery->flags = static_cast<uint8_t>(delivery->flags | mqtt::duplicateBit);
        addToQueue(outbox, delivery);
        delivery = outbox->unacknowledged.first;
        count++;
    }
    return count;
}

void clearOutbox(uint8_t depth, korEx* ex, OutboxPools* pools, Outbox* outbox)
{
    while (outbox->queue.first != nullptr) {
        endDelivery(KOR_AT_D(depth, ex), pools, outbox, outbox->queue.first);
    }
    while (outbox->unacknowledged.first != nullptr) {
        endDelivery(KOR_AT_D(depth, ex), pools, outbox, outbox->unacknowledged.first);
    }
    _korI64Hash_DestroyPooled(KOR_AT_D(depth, ex), outbox->ids, &pools->ids);
    _korBuffer_ReleaseToCache(KOR_AT_D(depth, ex), outbox->answers, nullptr);
    _korBuffer_ReleaseToCache(KOR_AT_D(depth, ex), outbox->rest, nullptr);
}
