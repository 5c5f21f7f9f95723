// client.cpp - the client's side of a connection. Bytes that come in are parsed where they were received; only the
// beginning of a packet that has not come in whole is copied, in front of what the next receive brings.

#include "client.h"

#include "wouldBlock.h"

#include <korutil/korAlloc.h>
#include <korutil/korTime.h>

#include <cstring>

namespace mqtt {
namespace {

constexpr uint32_t packetLimit = 2u << 20;
constexpr uint32_t receiveSize = 256u << 10;
constexpr int32_t bufferSize = 1024; // to begin with

// Takes what an attempt came to into the caller's exception, unless it only has to be tried again later.
void passOn(korEx* ex, uint8_t depth, const korEx& attempt)
{
    if (attempt.code != 0 && !wouldBlock(&attempt)) {
        ex->osError = attempt.osError;
        KOR_RAISE(ex, depth, attempt.code, attempt.description);
    }
}

uint32_t usedBytes(const korBuffer* buffer)
{
    return static_cast<uint32_t>(buffer->position - buffer->data);
}

uint16_t nextPacketId(Client* client)
{
    client->lastPacketId = client->lastPacketId == UINT16_MAX ? uint16_t{1} : uint16_t(client->lastPacketId + 1);
    return client->lastPacketId;
}

// ---- Events ---------------------------------------------------------------------------------------------------------

// The client's event is not with the poller at the time of the call.
void watch(korEx* ex, uint8_t depth, Client* client, uint32_t mask)
{
    _korPollerEvent_InitNetwork(KOR_AT(ex, depth), &client->event, client, nullptr, mask, client->socket);
    _korPoller_AddEvent(KOR_AT(ex, depth), client->loop->poller, &client->event);
}

// The poller lets go of the event before the return: its record may be filled anew, and added again.
void unwatch(uint8_t depth, korEx* ex, Client* client)
{
    KOR_EX_PRIVATE(removal, ex, depth);
    _korPoller_RemoveEvent(KOR_AT_D(depth, &removal), client->loop->poller, &client->event);
    _korPoller_ProcessRemoveEvents(KOR_AT(&removal, depth), client->loop->poller, 1);
}

void watchWritable(korEx* ex, uint8_t depth, Client* client, bool wanted)
{
    if (client->isWriteWaiting != wanted) {
        client->isWriteWaiting = wanted;
        unwatch(KOR_AT_D(depth, ex), client);
        watch(KOR_AT(ex, depth), client, wanted ? KOR_POLL_READ | KOR_POLL_WRITE : KOR_POLL_READ);
    }
}

// ---- Packets --------------------------------------------------------------------------------------------------------

void serveMessage(korEx* ex, uint8_t depth, Client* client, uint8_t* packet, const Header& header)
{
    Publish message;
    readPublish(KOR_AT(ex, depth), packet, header, &message);
    if (ex->code == 0 && client->onMessage != nullptr) {
        client->onMessage(KOR_AT(ex, depth), client, message);
    }
    if (message.qos > 0) {
        writeAcknowledgement(KOR_AT(ex, depth), client->output, Type::puback, message.packetId);
    }
}

void serveAcknowledgement(korEx* ex, uint8_t depth, Client* client, uint8_t* packet, const Header& header)
{
    uint16_t packetId = readAcknowledgement(KOR_AT(ex, depth), packet, header);
    if (ex->code == 0 && header.type == Type::puback && client->onAcknowledged != nullptr) {
        client->onAcknowledged(KOR_AT(ex, depth), client, packetId);
    }
}

void servePacket(korEx* ex, uint8_t depth, Client* client, uint8_t* packet, const Header& header)
{
    uint16_t packetId = 0;
    switch (header.type) {
    case Type::publish:
        serveMessage(KOR_AT(ex, depth), client, packet, header);
        return;
    case Type::connack:
        client->answerCode = readConnack(KOR_AT(ex, depth), packet, header);
        break;
    case Type::suback:
        client->answerCode = readSuback(KOR_AT(ex, depth), packet, header, &packetId);
        break;
    case Type::puback:
    case Type::unsuback:
        serveAcknowledgement(KOR_AT(ex, depth), client, packet, header);
        break;
    case Type::pingresp:
        readEmpty(KOR_AT(ex, depth), header);
        return;
    default:
        KOR_RAISE_F(ex, depth, KOR_ERROR_INVALID_VALUE, "%s is not a server's to send", nameOf(header.type));
    }
    client->answer = header.type == Type::puback ? client->answer : header.type;
}

// Serves the whole packets among the bytes and gives how many bytes those are.
uint32_t servePackets(korEx* ex, uint8_t depth, Client* client, uint8_t* bytes, uint32_t available)
{
    uint32_t served = 0;
    Header header;
    while (readHeader(KOR_AT(ex, depth), bytes + served, available - served, packetLimit, &header) &&
           header.packetSize <= available - served) {
        servePacket(KOR_AT(ex, depth), client, bytes + served, header);
        served += header.packetSize;
    }
    return served;
}

void keepRest(korEx* ex, uint8_t depth, Client* client, const uint8_t* bytes, uint32_t length)
{
    client->rest->position = client->rest->data;
    if (length > 0 && reserve(KOR_AT(ex, depth), client->rest, length)) {
        std::memcpy(client->rest->position, bytes, length);
        client->rest->position += length;
    }
}

void receive(korEx* ex, uint8_t depth, Client* client)
{
    uint8_t* area = client->loop->area;
    uint32_t kept = usedBytes(client->rest); // part of a packet within the limit, so the area has room behind it
    std::memcpy(area, client->rest->data, kept);
    KOR_EX_PRIVATE(attempt, ex, depth);
    int32_t received = _korSocket_Recv(KOR_AT(&attempt, depth), client->socket, area + kept, receiveSize, 0);
    passOn(KOR_AT(ex, depth), attempt);
    if (received == 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INTERRUPTED, "server has closed the connection");
    }
    if (received > 0) {
        uint32_t available = kept + static_cast<uint32_t>(received);
        uint32_t served = servePackets(KOR_AT(ex, depth), client, area, available);
        keepRest(KOR_AT(ex, depth), client, area + served, available - served);
        flush(KOR_AT(ex, depth), client);
    }
}

// An event may stand in the list twice, or have been taken back since the wait: both ways then find nothing to do.
void serveEvent(korEx* ex, uint8_t depth, Loop* loop, const korPollerEvent* event)
{
    auto* client = static_cast<Client*>(_korPollerEvent_GetContext(KOR_AT(ex, depth), event));
    if (client->isWriteWaiting) {
        flush(KOR_AT(ex, depth), client);
    }
    receive(KOR_AT(ex, depth), client);
    if (ex->code != 0) {
        loop->failed = client;
    }
}

void awaitAnswer(korEx* ex, uint8_t depth, Client* client, Type wanted)
{
    client->answer = {};
    flush(KOR_AT(ex, depth), client);
    uint64_t deadline = _kor_GetCurrentMilliseconds() + answerTimeout;
    while (ex->code == 0 && client->answer != wanted) {
        uint64_t now = _kor_GetCurrentMilliseconds();
        if (now >= deadline) {
            KOR_RAISE(ex, depth, KOR_ERROR_TIMEOUT, "server does not answer");
            return;
        }
        turn(KOR_AT(ex, depth), client->loop, static_cast<int32_t>(deadline - now));
    }
}

void greet(korEx* ex, uint8_t depth, Client* client, const char* clientId)
{
    Connect connect = {};
    connect.cleanSession = true;
    connect.keepAlive = client->keepAlive;
    connect.clientId = bytesOf(clientId);
    connect.hasWill = client->hasWill;
    connect.will = client->will;
    writeConnect(KOR_AT(ex, depth), client->output, connect);
    awaitAnswer(KOR_AT(ex, depth), client, Type::connack);
    if (ex->code == 0 && client->answerCode != accepted) {
        KOR_RAISE_F(ex, depth, KOR_ERROR_NOT_PERMITTED, "server refuses the connection: code %d", client->answerCode);
    }
}

// What its packets say last, as far as the socket takes it at once. The peer may be gone: nobody is told.
void sayGoodbye(uint8_t depth, korEx* ex, Client* client)
{
    KOR_EX_PRIVATE(goodbye, ex, depth);
    writeEmpty(KOR_AT(&goodbye, depth), client->output, Type::disconnect);
    flush(KOR_AT(&goodbye, depth), client);
}

bool isOpen(const Client* client)
{
    return client->socket != _korSocketInvalid && client->output != nullptr;
}

} // namespace

// ---- The loop -------------------------------------------------------------------------------------------------------

void openLoop(korEx* ex, uint8_t depth, Loop* loop)
{
    loop->failed = nullptr;
    loop->poller = _korPoller_CreateEx(KOR_AT(ex, depth), 1);
    if (ex->code == 0) {
        loop->area = static_cast<uint8_t*>(_kor_malloc(KOR_AT(ex, depth), packetLimit + receiveSize));
    }
}

void closeLoop(uint8_t depth, korEx* ex, Loop* loop)
{
    _korPoller_Destroy(KOR_AT_D(depth, ex), loop->poller);
    _kor_free(KOR_AT_D(depth, ex), loop->area);
    *loop = {};
}

int32_t turn(korEx* ex, uint8_t depth, Loop* loop, int32_t timeout)
{
    korPollerEvent** ready = nullptr;
    loop->failed = nullptr;
    int32_t count = _korPoller_Wait(KOR_AT(ex, depth), loop->poller, &ready, 1, timeout);
    for (int32_t i = 0; i < count && ex->code == 0; i++) {
        serveEvent(KOR_AT(ex, depth), loop, ready[i]);
    }
    return count;
}

// ---- A client -------------------------------------------------------------------------------------------------------

void openClient(korEx* ex, uint8_t depth, Client* client, Loop* loop, const char* host, const char* service,
                const char* clientId)
{
    client->loop = loop;
    client->socket = _korSocket_CreateConnection(KOR_AT(ex, depth), host, service, answerTimeout);
    _korSocket_SetBlocking(KOR_AT(ex, depth), client->socket, 0);
    client->output = _korBuffer_CreateWithData(KOR_AT(ex, depth), nullptr, bufferSize);
    client->rest = _korBuffer_CreateWithData(KOR_AT(ex, depth), nullptr, bufferSize);
    watch(KOR_AT(ex, depth), client, KOR_POLL_READ);
    greet(KOR_AT(ex, depth), client, clientId);
}

uint8_t subscribe(korEx* ex, uint8_t depth, Client* client, const char* filter, uint8_t qos)
{
    writeSubscribe(KOR_AT(ex, depth), client->output, nextPacketId(client), bytesOf(filter), qos);
    awaitAnswer(KOR_AT(ex, depth), client, Type::suback);
    if (ex->code == 0 && client->answerCode == subscriptionFailed) {
        KOR_RAISE_F(ex, depth, KOR_ERROR_NOT_PERMITTED, "server refuses the subscription to %s", filter);
    }
    return client->answerCode;
}

void unsubscribe(korEx* ex, uint8_t depth, Client* client, const char* filter)
{
    writeUnsubscribe(KOR_AT(ex, depth), client->output, nextPacketId(client), bytesOf(filter));
    awaitAnswer(KOR_AT(ex, depth), client, Type::unsuback);
}

uint16_t publish(korEx* ex, uint8_t depth, Client* client, const Publish& message)
{
    Publish numbered = message;
    numbered.duplicate = false;
    numbered.packetId = message.qos > 0 ? nextPacketId(client) : uint16_t{0};
    writePublish(KOR_AT(ex, depth), client->output, numbered);
    return numbered.packetId;
}

void ping(korEx* ex, uint8_t depth, Client* client)
{
    writeEmpty(KOR_AT(ex, depth), client->output, Type::pingreq);
}

void flush(korEx* ex, uint8_t depth, Client* client)
{
    korBuffer* output = client->output;
    if (ex->code != 0 || queuedBytes(client) == 0) {
        return;
    }
    KOR_EX_PRIVATE(attempt, ex, depth);
    while (attempt.code == 0 && queuedBytes(client) > 0) {
        int32_t taken = _korSocket_Send(KOR_AT(&attempt, depth), client->socket, output->data + client->sent,
                                        static_cast<int32_t>(queuedBytes(client)), 0);
        client->sent += taken > 0 ? static_cast<uint32_t>(taken) : 0;
    }
    passOn(KOR_AT(ex, depth), attempt);
    uint32_t left = queuedBytes(client);
    std::memmove(output->data, output->data + client->sent, left);
    output->position = output->data + left;
    client->sent = 0;
    watchWritable(KOR_AT(ex, depth), client, left > 0);
}

uint32_t queuedBytes(const Client* client)
{
    return usedBytes(client->output) - client->sent;
}

void closeClient(uint8_t depth, korEx* ex, Client* client)
{
    if (isOpen(client)) {
        sayGoodbye(KOR_AT_D(depth, ex), client);
    }
    dropClient(KOR_AT_D(depth, ex), client);
}

void dropClient(uint8_t depth, korEx* ex, Client* client)
{
    if (client->loop == nullptr) {
        return;
    }
    unwatch(KOR_AT_D(depth, ex), client);
    _korBuffer_ReleaseToCache(KOR_AT_D(depth, ex), client->output, nullptr);
    _korBuffer_ReleaseToCache(KOR_AT_D(depth, ex), client->rest, nullptr);
    _korSocket_ForceClose(KOR_AT_D(depth, ex), client->socket);
    Client owners = {};
    owners.owner = client->owner;
    owners.onMessage = client->onMessage;
    owners.onAcknowledged = client->onAcknowledged;
    owners.hasWill = client->hasWill;
    owners.will = client->will;
    owners.keepAlive = client->keepAlive;
    *client = owners;
}

} // namespace mqtt
