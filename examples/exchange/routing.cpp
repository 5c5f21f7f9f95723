// routing.cpp - who gets which message. Filters are kept in one topic index and retained messages in another; a message
// asks the first which filters match it, a new filter asks the second which messages it matches.
//
// The index has a rule of its own where the standard has another: a stored "a/#" is not found by "a" (asking for "a/#"
// finds a stored "a" all the same). So such a filter is stored at "a" as well. And it knows nothing of topics that
// begin with '$', which a leading wildcard must not take: that is tested on what it gives.

#include "exchange.h"

#include <korutil/korAlloc.h>

#include <cstring>

namespace {

constexpr int32_t maxSubscriptions = 65536;

/// Output that waits in an outbox before it is sent within the turn, not at its end: so that what comes in at once does
/// not fill the queue of a client that reads well.
constexpr uint64_t eagerBytes = 256 * 1024;

/// A message on its way to its receivers, and the packets that have been made of it so far, by QoS.
struct Message {
    mqtt::Publish publish;
    korBuffer* packets[2];
};

bool isHidden(mqtt::Bytes topic)
{
    return topic.length > 0 && topic.data[0] == '$';
}

bool hasLeadingWildcard(mqtt::Bytes filter)
{
    return filter.data[0] == '+' || filter.data[0] == '#';
}

// The topic or filter as a terminated text, valid until the next one.
const char* terminated(Exchange* exchange, mqtt::Bytes text)
{
    std::memcpy(exchange->topic, text.data, text.length);
    exchange->topic[text.length] = 0;
    return exchange->topic;
}

// Cuts "a/#" to "a" in the exchange's text; false for any other filter.
bool cutToParent(Exchange* exchange, mqtt::Bytes filter)
{
    if (filter.length < 2 || std::memcmp(filter.data + filter.length - 2, "/#", 2) != 0) {
        return false;
    }
    exchange->topic[filter.length - 2] = 0;
    return true;
}

korBuffer* makeBuffer(korEx* ex, uint8_t depth, Exchange* exchange, uint32_t size)
{
    bool isSmall = size <= smallPacketSize;
    return _korBuffer_CreateFromCacheOrPool(KOR_AT(ex, depth), nullptr, isSmall ? exchange->smallPackets : nullptr,
                                            static_cast<int32_t>(isSmall ? smallPacketSize : size));
}

// The packet with that QoS, without the flags and the id that each receiver gets his own of. The message keeps it.
korBuffer* packetOf(korEx* ex, uint8_t depth, Exchange* exchange, Message* message, uint8_t qos)
{
    korBuffer** packet = &message->packets[qos];
    if (*packet == nullptr) {
        mqtt::Publish publish = message->publish;
        publish.qos = qos;
        publish.retain = false;
        publish.duplicate = false;
        uint32_t size = mqtt::publishSize(publish.topic.length, publish.payload.length, qos);
        *packet = makeBuffer(KOR_AT(ex, depth), exchange, size);
        if (*packet != nullptr) {
            mqtt::writePublish(KOR_AT(ex, depth), *packet, publish);
        }
    }
    return ex->code == 0 ? *packet : nullptr;
}

void releasePackets(uint8_t depth, korEx* ex, Message* message)
{
    _korBuffer_ReleaseToCache(KOR_AT_D(depth, ex), message->packets[0], nullptr);
    _korBuffer_ReleaseToCache(KOR_AT_D(depth, ex), message->packets[1], nullptr);
}

void countDrop(Connection* connection)
{
    connection->exchange->statistics.counters.dropped++;
    if (!connection->isDropping) {
        connection->isDropping = true;
        CLIENT_LOG(connection, KOR_LOG_WARN, "reads too slowly: messages with QoS 0 are dropped");
    }
}

// True if the outbox takes a packet of that weight. Sends first if much is waiting.
bool hasRoom(korEx* ex, uint8_t depth, Connection* connection, uint64_t weight, uint8_t qos)
{
    const Settings& settings = connection->exchange->settings;
    Outbox* outbox = &connection->outbox;
    if (outbox->queuedBytes + weight > eagerBytes && !connection->isWriteWaiting) {
        flush(KOR_AT(ex, depth), connection);
    }
    if (outbox->bytes + weight <= settings.queueBound) {
        connection->isDropping = false;
        return true;
    }
    if (qos == 0) {
        countDrop(connection);
        return false;
    }
    if (outbox->bytes + weight <= settings.queueLimit) {
        return true;
    }
    doom(connection, KOR_LOG_WARN, "reads too slowly", nullptr);
    return false;
}

// Queues the message for one client. A failure is that client's, who is closed for it: the others still get theirs.
void deliver(korEx* ex, uint8_t depth, Connection* connection, Message* message, uint8_t qos, uint8_t flags)
{
    KOR_EX_PRIVATE(own, ex, depth);
    Exchange* exchange = connection->exchange;
    korBuffer* packet = packetOf(KOR_AT(&own, depth), exchange, message, qos);
    if (packet != nullptr && hasRoom(KOR_AT(&own, depth), connection, weightOf(packet), qos)) {
        const mqtt::Publish& publish = message->publish;
        uint32_t offset = mqtt::packetIdOffset(publish.topic.length, publish.payload.length, qos);
        enqueue(KOR_AT(&own, depth), &exchange->outboxPools, &connection->outbox, packet, qos > 0 ? offset : 0, flags);
        markDirty(connection);
    }
    if (own.code != 0) {
        doom(connection, KOR_LOG_SEVERE, "a message could not be delivered", &own);
    }
}

// Lists each client of matching filters once, with the highest QoS of them.
void findReceivers(korEx* ex, uint8_t depth, Exchange* exchange, mqtt::Bytes topic)
{
    const korDpa* found = _korTopicList_Get(KOR_AT(ex, depth), exchange->subscriptions, terminated(exchange, topic));
    exchange->messageSerial++;
    exchange->receivers.count = 0;
    for (int32_t i = 0; found != nullptr && i < found->count; i++) {
        auto* subscription = reinterpret_cast<Subscription*>(found->items[i]);
        Connection* connection = subscription->connection;
        if (connection == nullptr || connection->doomed || (subscription->leadingWildcard && isHidden(topic))) {
            continue;
        }
        if (connection->messageSerial != exchange->messageSerial) {
            connection->messageSerial = exchange->messageSerial;
            connection->messageQos = subscription->qos;
            _korDpa_AddSafe(KOR_AT(ex, depth), &exchange->receivers, reinterpret_cast<uint64_t>(connection));
        } else if (connection->messageQos < subscription->qos) {
            connection->messageQos = subscription->qos;
        }
    }
}

// What is retained at a topic beside `packet`, which may be NULL.
korBuffer* formerAt(korEx* ex, uint8_t depth, Exchange* exchange, const char* topic, const korBuffer* packet)
{
    const korDpa* found = _korTopicList_GetLiteral(KOR_AT(ex, depth), exchange->retained, topic);
    for (int32_t i = 0; found != nullptr && i < found->count; i++) {
        auto* former = reinterpret_cast<korBuffer*>(found->items[i]);
        if (former != packet) {
            return former;
        }
    }
    return nullptr;
}

// Puts the message in the place of the one that the topic had; one without a payload only ends it. Without memory a
// removal can fail: the former message then stays until the next one comes.
void retain(korEx* ex, uint8_t depth, Exchange* exchange, Message* message)
{
    const char* topic = terminated(exchange, message->publish.topic);
    korBuffer* packet = nullptr;
    if (message->publish.payload.length > 0) {
        packet = packetOf(KOR_AT(ex, depth), exchange, message, message->publish.qos);
        _korTopicList_Insert(KOR_AT(ex, depth), exchange->retained, topic, reinterpret_cast<uint64_t>(packet));
        if (ex->code != 0) {
            return;
        }
        KOR_ATOMIC_ADD(&packet->refCount, 1);
    }
    while (korBuffer* former = formerAt(KOR_AT(ex, depth), exchange, topic, packet)) {
        auto value = reinterpret_cast<uint64_t>(former);
        if (_korTopicList_Remove(KOR_AT_D(depth, ex), exchange->retained, topic, value) == 0) {
            return;
        }
        _korBuffer_ReleaseToCache(KOR_AT_D(depth, ex), former, nullptr);
    }
}

// The packet stays the caller's, and the message points into it.
mqtt::Publish readBack(korEx* ex, uint8_t depth, const korBuffer* packet)
{
    mqtt::Header header;
    mqtt::Publish publish = {};
    auto size = static_cast<uint32_t>(packet->position - packet->data);
    if (mqtt::readHeader(KOR_AT(ex, depth), packet->data, size, size, &header)) {
        mqtt::readPublish(KOR_AT(ex, depth), packet->data, header, &publish);
    }
    return publish;
}

void deliverKept(korEx* ex, uint8_t depth, Connection* connection, korBuffer* packet, bool leadingWildcard, uint8_t qos)
{
    Message message = {readBack(KOR_AT(ex, depth), packet), {nullptr, nullptr}};
    if (ex->code != 0 || (leadingWildcard && isHidden(message.publish.topic))) {
        return;
    }
    uint8_t keptQos = message.publish.qos;
    message.packets[keptQos] = packet;
    KOR_ATOMIC_ADD(&packet->refCount, 1);
    deliver(KOR_AT(ex, depth), connection, &message, keptQos < qos ? keptQos : qos, mqtt::retainBit);
    releasePackets(KOR_AT_D(depth, ex), &message);
}

Subscription* subscriptionAt(korEx* ex, uint8_t depth, Connection* connection, const char* filter)
{
    return reinterpret_cast<Subscription*>(_korStrHash_Get(KOR_AT(ex, depth), connection->subscriptions, filter));
}

// Without memory a removal can fail: the record then stays for good and points at nobody.
void removeFromIndex(uint8_t depth, korEx* ex, Exchange* exchange, mqtt::Bytes filter, Subscription* subscription)
{
    KOR_EX_PRIVATE(own, ex, depth);
    auto value = reinterpret_cast<uint64_t>(subscription);
    subscription->connection = nullptr;
    _korTopicList_Remove(KOR_AT_D(depth, &own), exchange->subscriptions, terminated(exchange, filter), value);
    if (cutToParent(exchange, filter)) {
        _korTopicList_Remove(KOR_AT_D(depth, &own), exchange->subscriptions, exchange->topic, value);
    }
    if (own.code == 0) {
        _korPool_Return(KOR_AT_D(depth, &own), exchange->subscriptionPool, subscription);
    }
}

// On an error the filter is not known anywhere.
void addSubscription(korEx* ex, uint8_t depth, Connection* connection, mqtt::Bytes filter, uint8_t qos)
{
    Exchange* exchange = connection->exchange;
    auto* subscription = static_cast<Subscription*>(_korPool_Get(KOR_AT(ex, depth), exchange->subscriptionPool));
    if (subscription == nullptr) {
        return;
    }
    *subscription = {connection, qos, hasLeadingWildcard(filter)};
    auto value = reinterpret_cast<uint64_t>(subscription);
    const char* text = terminated(exchange, filter);
    _korTopicList_Insert(KOR_AT(ex, depth), exchange->subscriptions, text, value);
    _korStrHash_Set(KOR_AT(ex, depth), connection->subscriptions, text, 1, value);
    if (cutToParent(exchange, filter)) {
        _korTopicList_Insert(KOR_AT(ex, depth), exchange->subscriptions, text, value);
    }
    if (ex->code != 0) {
        _korStrHash_Remove(KOR_AT_D(depth, ex), connection->subscriptions, terminated(exchange, filter));
        removeFromIndex(KOR_AT_D(depth, ex), exchange, filter, subscription);
    }
}

} // namespace

void route(korEx* ex, uint8_t depth, Exchange* exchange, const mqtt::Publish& publish)
{
    Message message = {publish, {nullptr, nullptr}};
    exchange->statistics.counters.received++;
    if (publish.retain) {
        retain(KOR_AT(ex, depth), exchange, &message);
    }
    findReceivers(KOR_AT(ex, depth), exchange, publish.topic);
    for (int32_t i = 0; i < exchange->receivers.count; i++) {
        auto* connection = reinterpret_cast<Connection*>(exchange->receivers.items[i]);
        uint8_t qos = publish.qos < connection->messageQos ? publish.qos : connection->messageQos;
        deliver(KOR_AT(ex, depth), connection, &message, qos, 0);
    }
    releasePackets(KOR_AT_D(depth, ex), &message);
}

void routePacket(korEx* ex, uint8_t depth, Exchange* exchange, const korBuffer* packet)
{
    mqtt::Publish publish = readBack(KOR_AT(ex, depth), packet);
    if (ex->code == 0) {
        route(KOR_AT(ex, depth), exchange, publish);
    }
}

uint8_t subscribe(korEx* ex, uint8_t depth, Connection* connection, mqtt::Bytes filter, uint8_t qos)
{
    uint8_t granted = qos > 1 ? 1 : qos;
    if (connection->subscriptions == nullptr) {
        connection->subscriptions = _korStrHash_Create(KOR_AT(ex, depth), 4);
        if (ex->code != 0) {
            return mqtt::subscriptionFailed;
        }
    }
    const char* text = terminated(connection->exchange, filter);
    Subscription* present = subscriptionAt(KOR_AT(ex, depth), connection, text);
    if (present != nullptr) {
        present->qos = granted;
        return granted;
    }
    if (connection->subscriptionCount == maxSubscriptions) {
        CLIENT_LOG(connection, KOR_LOG_WARN, "has %d filters, and gets no more", maxSubscriptions);
        return mqtt::subscriptionFailed;
    }
    addSubscription(KOR_AT(ex, depth), connection, filter, granted);
    if (ex->code == 0) {
        connection->subscriptionCount++;
        connection->exchange->filters++;
    }
    return granted;
}

void deliverRetained(korEx* ex, uint8_t depth, Connection* connection, mqtt::Bytes filter, uint8_t qos)
{
    Exchange* exchange = connection->exchange;
    const korDpa* found = _korTopicList_Get(KOR_AT(ex, depth), exchange->retained, terminated(exchange, filter));
    for (int32_t i = 0; found != nullptr && i < found->count; i++) {
        auto* packet = reinterpret_cast<korBuffer*>(found->items[i]);
        deliverKept(KOR_AT(ex, depth), connection, packet, hasLeadingWildcard(filter), qos);
    }
}

void unsubscribe(uint8_t depth, korEx* ex, Connection* connection, mqtt::Bytes filter)
{
    if (connection->subscriptions == nullptr) {
        return;
    }
    const char* text = terminated(connection->exchange, filter);
    auto* subscription =
        reinterpret_cast<Subscription*>(_korStrHash_Remove(KOR_AT_D(depth, ex), connection->subscriptions, text));
    if (subscription != nullptr) {
        connection->subscriptionCount--;
        connection->exchange->filters--;
        removeFromIndex(KOR_AT_D(depth, ex), connection->exchange, filter, subscription);
    }
}

void unsubscribeAll(uint8_t depth, korEx* ex, Connection* connection)
{
    if (connection->subscriptions == nullptr) {
        return;
    }
    korStrHashIterator iterator;
    const char* filter;
    uint64_t value;
    _korStrHash_IteratorInit(connection->subscriptions, &iterator);
    while (_korStrHash_Next(&iterator, &filter, &value)) {
        removeFromIndex(KOR_AT_D(depth, ex), connection->exchange, mqtt::bytesOf(filter),
                        reinterpret_cast<Subscription*>(value));
    }
    connection->exchange->filters -= static_cast<uint32_t>(connection->subscriptionCount);
    _korStrHash_Destroy(KOR_AT_D(depth, ex), connection->subscriptions);
    connection->subscriptions = nullptr;
}

void dropRetained(uint8_t depth, korEx* ex, Exchange* exchange)
{
    KOR_EX_PRIVATE(own, ex, depth);
    const korDpa* all = _korTopicList_All(KOR_AT(&own, depth), exchange->retained);
    for (int32_t i = 0; all != nullptr && i < all->count; i++) {
        _korBuffer_ReleaseToCache(KOR_AT_D(depth, ex), reinterpret_cast<korBuffer*>(all->items[i]), nullptr);
    }
}
