// session.cpp - what a client's packets do, by the rules of MQTT 3.1.1 for a clean session: the first packet is a
// CONNECT, and no other one is.

#include "exchange.h"

#include <korutil/korAlloc.h>
#include <korutil/korRand.h>
#include <korutil/korSpookyHash.h>
#include <korutil/korText.h>

#include <cstring>

namespace {

constexpr int32_t madeUpIdSize = 24;
constexpr int64_t answersLimit = 1024 * 1024; // bytes of answers that a client may leave unread

/// A text of a client's as statements show it: cut, and without bytes that could upset a terminal.
struct Shown {
    char text[256];
};

Shown shown(mqtt::Bytes bytes)
{
    Shown shown;
    _kor_snprintf(shown.text, sizeof(shown.text), "%.*s", static_cast<int>(bytes.length),
                  reinterpret_cast<const char*>(bytes.data));
    for (char* at = shown.text; *at != 0; at++) {
        *at = static_cast<unsigned char>(*at) < ' ' || *at == 0x7f ? '?' : *at;
    }
    return shown;
}

// ---- CONNECT --------------------------------------------------------------------------------------------------------

// The client's id as a text of the heap; for an empty one a text that nobody else has.
char* makeClientId(korEx* ex, uint8_t depth, mqtt::Bytes asked)
{
    bool isEmpty = asked.length == 0;
    auto* id = static_cast<char*>(_kor_malloc(KOR_AT(ex, depth), isEmpty ? madeUpIdSize : asked.length + 1));
    if (id == nullptr) {
        return nullptr;
    }
    if (isEmpty) {
        _korRand_GetRandomName(KOR_AT(ex, depth), id, madeUpIdSize);
    } else {
        std::memcpy(id, asked.data, asked.length);
        id[asked.length] = 0;
    }
    return id;
}

// Gives a client that is to be watched alone a logger of its own, which shows everything.
void startTrace(korEx* ex, uint8_t depth, Connection* connection)
{
    const char* traced = connection->exchange->settings.traced;
    if (traced != nullptr && std::strcmp(traced, connection->clientId) == 0) {
        connection->logKey = _korSpookyHash_Short(traced, std::strlen(traced), nullptr) | 1;
        _korLogger_SetLogLevelsForId(KOR_AT(ex, depth), connection->logKey, "clients:debug");
    }
}

// A client id has one connection: the newest.
void takeOver(korEx* ex, uint8_t depth, Connection* connection)
{
    korStrHash* clients = connection->exchange->clients;
    auto value = reinterpret_cast<uint64_t>(connection);
    auto* former =
        reinterpret_cast<Connection*>(_korStrHash_Set(KOR_AT(ex, depth), clients, connection->clientId, 1, value));
    if (former != nullptr) {
        doom(former, KOR_LOG_INFO, "its client id is used by a new connection", nullptr);
    }
}

korBuffer* keepWill(korEx* ex, uint8_t depth, const mqtt::Publish& will)
{
    uint32_t size = mqtt::publishSize(will.topic.length, will.payload.length, will.qos);
    korBuffer* packet =
        _korBuffer_CreateFromCacheOrPool(KOR_AT(ex, depth), nullptr, nullptr, static_cast<int32_t>(size));
    if (packet != nullptr) {
        mqtt::writePublish(KOR_AT(ex, depth), packet, will);
    }
    return packet;
}

void answerConnect(korEx* ex, uint8_t depth, Connection* connection, uint8_t code)
{
    mqtt::writeConnack(KOR_AT(ex, depth), answersOf(KOR_AT(ex, depth), &connection->outbox), code);
    markDirty(connection);
}

void refuse(korEx* ex, uint8_t depth, Connection* connection, uint8_t code)
{
    answerConnect(KOR_AT(ex, depth), connection, code);
    flush(KOR_AT(ex, depth), connection);
    bool isProtocol = code == mqtt::unacceptableProtocol;
    doom(connection, KOR_LOG_WARN,
         isProtocol ? "refused: the protocol is not MQTT 3.1.1" : "refused: no client id and no clean session",
         nullptr);
}

void handleConnect(korEx* ex, uint8_t depth, Connection* connection, uint8_t* packet, const mqtt::Header& header)
{
    mqtt::Connect connect;
    mqtt::readConnect(KOR_AT(ex, depth), packet, header, &connect);
    if (ex->code != 0) {
        return;
    }
    if (connect.refusal != mqtt::accepted) {
        refuse(KOR_AT(ex, depth), connection, connect.refusal);
        return;
    }
    connection->clientId = makeClientId(KOR_AT(ex, depth), connect.clientId);
    if (ex->code != 0) {
        return;
    }
    _kor_snprintf(connection->name, sizeof(connection->name), "client %s",
                  shown(mqtt::bytesOf(connection->clientId)).text);
    startTrace(KOR_AT(ex, depth), connection);
    takeOver(KOR_AT(ex, depth), connection);
    if (connect.hasWill) {
        connection->will = keepWill(KOR_AT(ex, depth), connect.will);
    }
    setKeepAlive(KOR_AT(ex, depth), connection, int64_t{1500} * connect.keepAlive);
    answerConnect(KOR_AT(ex, depth), connection, mqtt::accepted);
    CLIENT_LOG(connection, KOR_LOG_VERBOSE, "connected, keep-alive %u s%s", connect.keepAlive,
               connect.hasWill ? ", with a will" : "");
}

// ---- The other packets ----------------------------------------------------------------------------------------------

void handlePublish(korEx* ex, uint8_t depth, Connection* connection, uint8_t* packet, const mqtt::Header& header)
{
    mqtt::Publish publish;
    mqtt::readPublish(KOR_AT(ex, depth), packet, header, &publish);
    if (ex->code != 0) {
        return;
    }
    CLIENT_LOG(connection, KOR_LOG_DEBUG, "publishes %u bytes to %s, QoS %u%s", publish.payload.length,
               shown(publish.topic).text, publish.qos, publish.retain ? ", retained" : "");
    route(KOR_AT(ex, depth), connection->exchange, publish);
    if (publish.qos > 0) {
        korBuffer* answers = answersOf(KOR_AT(ex, depth), &connection->outbox);
        mqtt::writeAcknowledgement(KOR_AT(ex, depth), answers, mqtt::Type::puback, publish.packetId);
        markDirty(connection);
    }
}

void handlePuback(korEx* ex, uint8_t depth, Connection* connection, uint8_t* packet, const mqtt::Header& header)
{
    uint16_t packetId = mqtt::readAcknowledgement(KOR_AT(ex, depth), packet, header);
    if (ex->code != 0) {
        return;
    }
    OutboxPools* pools = &connection->exchange->outboxPools;
    if (!acknowledge(KOR_AT_D(depth, ex), pools, &connection->outbox, packetId)) {
        CLIENT_LOG(connection, KOR_LOG_DEBUG, "acknowledges %u, which does not wait for it", packetId);
    }
    if (hasOutput(&connection->outbox)) {
        markDirty(connection); // packets with QoS 1 may have waited for a free id
    }
}

// Writes the answer before the retained messages are queued, which come behind it.
void handleSubscribe(korEx* ex, uint8_t depth, Connection* connection, uint8_t* packet, const mqtt::Header& header)
{
    mqtt::FilterList list = mqtt::openFilters(KOR_AT(ex, depth), packet, header);
    korBuffer* granted =
        _korBuffer_CreateFromCacheOrPool(KOR_AT(ex, depth), nullptr, nullptr, static_cast<int32_t>(header.packetSize));
    mqtt::Bytes filter;
    uint8_t qos = 0;
    while (mqtt::nextFilter(KOR_AT(ex, depth), &list, &filter, &qos)) {
        uint8_t answer = subscribe(KOR_AT(ex, depth), connection, filter, qos);
        CLIENT_LOG(connection, KOR_LOG_DEBUG, "subscribes to %s, QoS %u", shown(filter).text, qos);
        *granted->position++ = answer; // one byte for each filter, which takes more than that in the packet
        if (answer != mqtt::subscriptionFailed) {
            deliverRetained(KOR_AT(ex, depth), connection, filter, answer);
        }
    }
    if (ex->code == 0) {
        korBuffer* answers = answersOf(KOR_AT(ex, depth), &connection->outbox);
        mqtt::Bytes all = {granted->data, static_cast<uint32_t>(granted->position - granted->data)};
        mqtt::writeSuback(KOR_AT(ex, depth), answers, list.packetId, all);
        markDirty(connection);
    }
    _korBuffer_ReleaseToCache(KOR_AT_D(depth, ex), granted, nullptr);
}

void handleUnsubscribe(korEx* ex, uint8_t depth, Connection* connection, uint8_t* packet, const mqtt::Header& header)
{
    mqtt::FilterList list = mqtt::openFilters(KOR_AT(ex, depth), packet, header);
    mqtt::Bytes filter;
    while (mqtt::nextFilter(KOR_AT(ex, depth), &list, &filter, nullptr)) {
        unsubscribe(KOR_AT_D(depth, ex), connection, filter);
    }
    korBuffer* answers = answersOf(KOR_AT(ex, depth), &connection->outbox);
    mqtt::writeAcknowledgement(KOR_AT(ex, depth), answers, mqtt::Type::unsuback, list.packetId);
    markDirty(connection);
}

void handlePing(korEx* ex, uint8_t depth, Connection* connection, const mqtt::Header& header)
{
    mqtt::readEmpty(KOR_AT(ex, depth), header);
    mqtt::writeEmpty(KOR_AT(ex, depth), answersOf(KOR_AT(ex, depth), &connection->outbox), mqtt::Type::pingresp);
    markDirty(connection);
}

// The one end that is in order: the will is forgotten.
void handleDisconnect(korEx* ex, uint8_t depth, Connection* connection, const mqtt::Header& header)
{
    mqtt::readEmpty(KOR_AT(ex, depth), header);
    if (ex->code == 0) {
        _korBuffer_ReleaseToCache(KOR_AT_D(depth, ex), connection->will, nullptr);
        connection->will = nullptr;
        doom(connection, KOR_LOG_VERBOSE, "disconnected", nullptr);
    }
}

void checkOrder(korEx* ex, uint8_t depth, const Connection* connection, mqtt::Type type)
{
    bool isConnected = connection->clientId != nullptr;
    if (isConnected && type == mqtt::Type::connect) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_VALUE, "second CONNECT");
    } else if (!isConnected && type != mqtt::Type::connect) {
        KOR_RAISE_F(ex, depth, KOR_ERROR_INVALID_VALUE, "%s before CONNECT", mqtt::nameOf(type));
    }
}

void checkAnswers(korEx* ex, uint8_t depth, const Outbox* outbox)
{
    if (outbox->answers != nullptr && outbox->answers->position - outbox->answers->data > answersLimit) {
        KOR_RAISE(ex, depth, KOR_ERROR_RESOURCE_LIMIT, "answers are not read");
    }
}

} // namespace

void handlePacket(korEx* ex, uint8_t depth, Connection* connection, uint8_t* packet, const mqtt::Header& header)
{
    checkOrder(KOR_AT(ex, depth), connection, header.type);
    checkAnswers(KOR_AT(ex, depth), &connection->outbox);
    if (ex->code != 0) {
        return;
    }
    switch (header.type) {
    case mqtt::Type::connect:
        handleConnect(KOR_AT(ex, depth), connection, packet, header);
        break;
    case mqtt::Type::publish:
        handlePublish(KOR_AT(ex, depth), connection, packet, header);
        break;
    case mqtt::Type::puback:
        handlePuback(KOR_AT(ex, depth), connection, packet, header);
        break;
    case mqtt::Type::subscribe:
        handleSubscribe(KOR_AT(ex, depth), connection, packet, header);
        break;
    case mqtt::Type::unsubscribe:
        handleUnsubscribe(KOR_AT(ex, depth), connection, packet, header);
        break;
    case mqtt::Type::pingreq:
        handlePing(KOR_AT(ex, depth), connection, header);
        break;
    case mqtt::Type::disconnect:
        handleDisconnect(KOR_AT(ex, depth), connection, header);
        break;
    default:
        KOR_RAISE_F(ex, depth, KOR_ERROR_INVALID_VALUE, "%s is not a client's to send", mqtt::nameOf(header.type));
    }
}

// A connection that was taken over leaves the id and its logger to the new one.
void endSession(uint8_t depth, korEx* ex, Connection* connection)
{
    unsubscribeAll(KOR_AT_D(depth, ex), connection);
    if (connection->clientId == nullptr) {
        return;
    }
    KOR_EX_PRIVATE(own, ex, depth);
    korStrHash* clients = connection->exchange->clients;
    if (_korStrHash_Get(KOR_AT(&own, depth), clients, connection->clientId) == reinterpret_cast<uint64_t>(connection)) {
        _korStrHash_Remove(KOR_AT_D(depth, ex), clients, connection->clientId);
        _korLogger_DestroyLoggerByKey(KOR_AT_D(depth, ex), connection->logKey); // 0 is no key
    }
    _kor_free(KOR_AT_D(depth, ex), connection->clientId);
}
