// connections.cpp - the bytes of a client: accepted, received, sent, ended.
//
// All clients share one area to receive into and one to send from; a client has memory of its own only while a packet
// has come in part, or while its socket does not take what it is sent. Nothing that goes wrong with a client leaves its
// connection: the connection is doomed, and buried at the end of the turn, when nobody looks at it any more.

#include "exchange.h"

#include "wouldBlock.h"

#include <korutil/korAlloc.h>
#include <korutil/korObjectMap.h>
#include <korutil/korText.h>

#include <cstring>

namespace {

constexpr int64_t connectTime = 10'000; // milliseconds from the acceptance to the CONNECT
constexpr int32_t partSize = 4096;      // what has come of a packet beyond this makes it a long one
constexpr int32_t acceptedAtOnce = 64;

// ---- Keep-alive -----------------------------------------------------------------------------------------------------

// Runs on the timer's executor. A connection that has gone meanwhile is not in the object map any more.
void checkKeepAlive(korEx* ex, uint8_t depth, korTimer* timer, uint64_t task, void* closure)
{
    KOR_EX_PRIVATE(own, ex, depth);
    auto id = reinterpret_cast<uint64_t>(closure);
    auto* connection = static_cast<Connection*>(_korObjectMap_Get(KOR_AT(&own, depth), id));
    if (connection == nullptr) {
        return;
    }
    Exchange* exchange = connection->exchange;
    int64_t silence = nowOf(exchange) - KOR_ATOMIC_LOAD(&connection->lastHeard);
    int64_t allowed = KOR_ATOMIC_LOAD(&connection->keepAlive);
    bool isOver = allowed != 0 && silence >= allowed;
    if (!isOver && allowed != 0) {
        _korTimer_AdjustTask(KOR_AT_D(depth, &own), timer, task, allowed - silence);
    }
    if (!isOver || !post(KOR_AT(&own, depth), exchange, &connection->expiry)) {
        releaseConnection(KOR_AT_D(depth, ex), connection);
    }
}

// ---- Accepting ------------------------------------------------------------------------------------------------------

// On an error the socket is still the caller's.
Connection* makeConnection(korEx* ex, uint8_t depth, Exchange* exchange, korSocket socket)
{
    auto* connection = static_cast<Connection*>(_korPool_Get(KOR_AT(ex, depth), exchange->connectionPool));
    if (connection == nullptr) {
        return nullptr;
    }
    std::memset(connection, 0, sizeof(Connection));
    connection->exchange = exchange;
    connection->socket = socket;
    connection->lastHeard = exchange->now;
    connection->expiry = {{nullptr}, RequestKind::expire, 0, exchange, connection};
    connection->id = _korObjectMap_Register(KOR_AT(ex, depth), connection);
    if (connection->id == 0) {
        _korPool_Return(KOR_AT_D(depth, ex), exchange->connectionPool, connection);
        return nullptr;
    }
    return connection;
}

void enlist(Connection* connection)
{
    Exchange* exchange = connection->exchange;
    connection->next = exchange->connections;
    if (connection->next != nullptr) {
        connection->next->previous = connection;
    }
    exchange->connections = connection;
}

void delist(Connection* connection)
{
    (connection->previous != nullptr ? connection->previous->next : connection->exchange->connections) =
        connection->next;
    if (connection->next != nullptr) {
        connection->next->previous = connection->previous;
    }
}

// The connection's event is not with the poller at the time of the call.
void waitFor(korEx* ex, uint8_t depth, Connection* connection, uint32_t mask)
{
    _korPollerEvent_InitNetwork(KOR_AT(ex, depth), &connection->event, connection, nullptr, mask, connection->socket);
    _korPoller_AddEvent(KOR_AT(ex, depth), connection->exchange->poller, &connection->event);
}

// The socket belongs to the connection from here on; a failure dooms it.
void welcome(korEx* ex, uint8_t depth, Exchange* exchange, korSocket socket)
{
    Connection* connection = makeConnection(KOR_AT(ex, depth), exchange, socket);
    if (connection == nullptr) {
        _korSocket_ForceClose(KOR_AT_D(depth, ex), socket);
        return;
    }
    exchange->accepted++;
    _kor_snprintf(connection->name, sizeof(connection->name), "connection %llu",
                  static_cast<unsigned long long>(exchange->accepted));
    enlist(connection);
    KOR_EX_PRIVATE(own, ex, depth);
    _korSocket_SetBlocking(KOR_AT(&own, depth), socket, 0);
    waitFor(KOR_AT(&own, depth), connection, KOR_POLL_READ);
    setKeepAlive(KOR_AT(&own, depth), connection, connectTime);
    CLIENT_LOG(connection, KOR_LOG_VERBOSE, "accepted");
    if (own.code != 0) {
        doom(connection, KOR_LOG_SEVERE, "could not be set up", &own);
    }
}

// ---- Receiving ------------------------------------------------------------------------------------------------------

// Handles the whole packets at the start of the bytes and gives how many bytes they have.
uint32_t handlePackets(korEx* ex, uint8_t depth, Connection* connection, uint8_t* bytes, uint32_t size)
{
    uint32_t done = 0;
    mqtt::Header header;
    uint32_t limit = connection->exchange->settings.packetLimit;
    while (!connection->doomed && mqtt::readHeader(KOR_AT(ex, depth), bytes + done, size - done, limit, &header) &&
           header.packetSize <= size - done) {
        handlePacket(KOR_AT(ex, depth), connection, bytes + done, header);
        done += header.packetSize;
    }
    return done;
}

// Receives into a buffer, behind `position`. 0 if nothing came.
uint32_t receiveInto(korEx* ex, uint8_t depth, Connection* connection, korBuffer* buffer)
{
    KOR_EX_PRIVATE(own, ex, depth);
    auto room = static_cast<int32_t>(buffer->data + buffer->capacity - buffer->position);
    int32_t size = _korSocket_Recv(KOR_AT(&own, depth), connection->socket, buffer->position, room, 0);
    if (size <= 0) {
        if (size == 0) {
            doom(connection, KOR_LOG_VERBOSE, "the client has closed the connection", nullptr);
        } else if (!wouldBlock(&own)) {
            doom(connection, KOR_LOG_VERBOSE, "the connection is broken", &own);
        }
        return 0;
    }
    buffer->position += size;
    KOR_ATOMIC_STORE_RELAXED(&connection->lastHeard, connection->exchange->now);
    connection->exchange->statistics.counters.receivedBytes += static_cast<uint64_t>(size);
    return static_cast<uint32_t>(size);
}

uint32_t sizeOf(const korBuffer* buffer)
{
    return static_cast<uint32_t>(buffer->position - buffer->data);
}

void dropPart(uint8_t depth, korEx* ex, Connection* connection)
{
    _korBuffer_ReleaseToCache(KOR_AT_D(depth, ex), connection->input, nullptr);
    connection->input = nullptr;
}

// Keeps the beginning of a packet until more of it comes.
void keepPart(korEx* ex, uint8_t depth, Connection* connection, const uint8_t* bytes, uint32_t size)
{
    if (connection->input == nullptr) {
        connection->input = _korBuffer_CreateFromCacheOrPool(KOR_AT(ex, depth), nullptr, nullptr, partSize);
    }
    if (ex->code != 0) {
        return;
    }
    connection->input->position = connection->input->data;
    if (mqtt::reserve(KOR_AT(ex, depth), connection->input, size)) {
        std::memcpy(connection->input->data, bytes, size);
        connection->input->position += size;
    }
}

// Into the area that all share, behind the short beginning of a packet that may have been kept.
void receiveShared(korEx* ex, uint8_t depth, Connection* connection)
{
    korBuffer* input = connection->exchange->input;
    input->position = input->data;
    if (connection->input != nullptr) {
        std::memcpy(input->data, connection->input->data, sizeOf(connection->input));
        input->position += sizeOf(connection->input);
    }
    if (receiveInto(KOR_AT(ex, depth), connection, input) == 0) {
        return;
    }
    uint32_t size = sizeOf(input);
    uint32_t done = handlePackets(KOR_AT(ex, depth), connection, input->data, size);
    if (done == size) {
        dropPart(KOR_AT_D(depth, ex), connection);
    } else if (ex->code == 0 && !connection->doomed) {
        keepPart(KOR_AT(ex, depth), connection, input->data + done, size - done);
    }
}

// Into the connection's own buffer, which holds the better part of a long packet. It doubles with what has really come,
// not with what the header announces.
void receiveLong(korEx* ex, uint8_t depth, Connection* connection)
{
    korBuffer* input = connection->input;
    if (!mqtt::reserve(KOR_AT(ex, depth), input, partSize) || receiveInto(KOR_AT(ex, depth), connection, input) == 0) {
        return;
    }
    uint32_t size = sizeOf(input);
    uint32_t done = handlePackets(KOR_AT(ex, depth), connection, input->data, size);
    if (done > 0) {
        connection->input = nullptr; // the rest is of another packet
        if (done < size && ex->code == 0 && !connection->doomed) {
            keepPart(KOR_AT(ex, depth), connection, input->data + done, size - done);
        }
        _korBuffer_ReleaseToCache(KOR_AT_D(depth, ex), input, nullptr);
    }
}

// ---- Sending --------------------------------------------------------------------------------------------------------

// Gives the number of bytes that the socket took. Fewer than all: it takes no more for now, or the connection is
// doomed.
uint32_t sendSome(korEx* ex, uint8_t depth, Connection* connection, const uint8_t* bytes, uint32_t size)
{
    KOR_EX_PRIVATE(own, ex, depth);
    int32_t sent = _korSocket_Send(KOR_AT(&own, depth), connection->socket, bytes, static_cast<int32_t>(size), 0);
    if (sent < 0) {
        if (!wouldBlock(&own)) {
            doom(connection, KOR_LOG_VERBOSE, "the connection is broken", &own);
        }
        return 0;
    }
    connection->exchange->statistics.counters.sentBytes += static_cast<uint64_t>(sent);
    return static_cast<uint32_t>(sent);
}

// True when nothing of it is left.
bool sendRest(korEx* ex, uint8_t depth, Connection* connection)
{
    Outbox* outbox = &connection->outbox;
    if (outbox->rest != nullptr) {
        auto size = static_cast<uint32_t>(outbox->rest->end - outbox->rest->position);
        uint32_t sent = sendSome(KOR_AT(ex, depth), connection, outbox->rest->position, size);
        shortenRest(KOR_AT_D(depth, ex), outbox, sent);
    }
    return outbox->rest == nullptr;
}

// True when the socket took all that was staged.
bool sendStaged(korEx* ex, uint8_t depth, Connection* connection)
{
    Exchange* exchange = connection->exchange;
    korBuffer* staging = exchange->staging;
    uint32_t packets = stage(KOR_AT(ex, depth), &exchange->outboxPools, &connection->outbox, staging, exchange->now);
    exchange->statistics.counters.delivered += packets;
    auto size = static_cast<uint32_t>(staging->position - staging->data);
    if (ex->code != 0 || size == 0) {
        return false;
    }
    uint32_t sent = sendSome(KOR_AT(ex, depth), connection, staging->data, size);
    if (sent < size && !connection->doomed) {
        keepRest(KOR_AT(ex, depth), &connection->outbox, staging->data + sent, size - sent);
    }
    return sent == size;
}

// Has the poller tell, or no longer tell, when the socket takes bytes again.
void waitForWriting(korEx* ex, uint8_t depth, Connection* connection, bool isWaiting)
{
    if (connection->isWriteWaiting == isWaiting || connection->doomed) {
        return;
    }
    korPoller* poller = connection->exchange->poller;
    connection->isWriteWaiting = isWaiting;
    _korPoller_RemoveEvent(KOR_AT_D(depth, ex), poller, &connection->event);
    _korPoller_ProcessRemoveEvents(KOR_AT(ex, depth), poller, 1); // this thread is the waiter: it is out at once
    waitFor(KOR_AT(ex, depth), connection, isWaiting ? KOR_POLL_READ | KOR_POLL_WRITE : KOR_POLL_READ);
}

// ---- Ending ---------------------------------------------------------------------------------------------------------

void publishWill(korEx* ex, uint8_t depth, Connection* connection)
{
    KOR_EX_PRIVATE(own, ex, depth);
    routePacket(KOR_AT(&own, depth), connection->exchange, connection->will);
    if (own.code != 0) {
        CLIENT_LOG(connection, KOR_LOG_SEVERE, "its will could not be published: %s", korEx_GetSummaryString(&own));
    }
}

// False if memory was lacking: the poller then still knows the record, which must stay for good.
bool stopWaiting(uint8_t depth, korEx* ex, Connection* connection)
{
    KOR_EX_PRIVATE(own, ex, depth);
    Exchange* exchange = connection->exchange;
    _korPoller_RemoveEvent(KOR_AT_D(depth, &own), exchange->poller, &connection->event);
    bool stopped = own.code == 0;
    _korPoller_ProcessRemoveEvents(KOR_AT(&own, depth), exchange->poller, 1);
    _korTimer_CancelTask(KOR_AT_D(depth, &own), exchange->timer, connection->keepAliveTask);
    return stopped;
}

} // namespace

void acceptConnections(korEx* ex, uint8_t depth, Exchange* exchange)
{
    KOR_EX_PRIVATE(own, ex, depth);
    for (int32_t i = 0; i < acceptedAtOnce && own.code == 0; i++) {
        korSocket socket = _korSocket_Accept(KOR_AT(&own, depth), exchange->listener, nullptr, nullptr);
        if (own.code == 0) {
            welcome(KOR_AT(&own, depth), exchange, socket);
        }
    }
    if (own.code != 0 && !wouldBlock(&own)) {
        // Out of descriptors or memory, as a rule: the listener would be reported again at once, and for ever.
        _korLogger_LogExN_v3(exchange->serverComponent, nullptr, nullptr, KOR_LOG_SEVERE, &own, 0,
                             "cannot accept a connection; trying again in a moment");
        _korPoller_RemoveEvent(KOR_AT_D(depth, ex), exchange->poller, &exchange->listening);
        exchange->isListening = false;
    }
}

void receive(korEx* ex, uint8_t depth, Connection* connection)
{
    KOR_EX_PRIVATE(own, ex, depth);
    if (connection->input == nullptr || sizeOf(connection->input) <= static_cast<uint32_t>(partSize)) {
        receiveShared(KOR_AT(&own, depth), connection);
    } else {
        receiveLong(KOR_AT(&own, depth), connection);
    }
    if (own.code != 0) {
        doom(connection, KOR_LOG_WARN, "what it sent cannot be served", &own);
    }
}

void flush(korEx* ex, uint8_t depth, Connection* connection)
{
    KOR_EX_PRIVATE(own, ex, depth);
    if (connection->doomed) {
        return;
    }
    if (sendRest(KOR_AT(&own, depth), connection)) {
        while (hasOutput(&connection->outbox) && sendStaged(KOR_AT(&own, depth), connection)) {
        }
    }
    waitForWriting(KOR_AT(&own, depth), connection, connection->outbox.rest != nullptr);
    if (own.code != 0) {
        doom(connection, KOR_LOG_SEVERE, "cannot be sent its messages", &own);
    }
}

void markDirty(Connection* connection)
{
    if (!connection->isDirty) {
        connection->isDirty = true;
        connection->nextDirty = connection->exchange->dirty;
        connection->exchange->dirty = connection;
    }
}

void doom(Connection* connection, int32_t level, const char* reason, const korEx* cause)
{
    if (connection->doomed) {
        return;
    }
    connection->doomed = true;
    connection->nextDoomed = connection->exchange->doomed;
    connection->exchange->doomed = connection;
    if (cause == nullptr) {
        CLIENT_LOG(connection, level, "closed: %s", reason);
    } else {
        char text[KOR_DESCRIPTION_SIZE];
        _korEx_PrintErrInfo(cause, text, sizeof(text));
        CLIENT_LOG(connection, level, "closed: %s: %s", reason, text);
    }
}

void bury(korEx* ex, uint8_t depth, Connection* connection)
{
    Exchange* exchange = connection->exchange;
    bool stopped = stopWaiting(KOR_AT_D(depth, ex), connection);
    if (connection->will != nullptr && !exchange->stopping) {
        publishWill(KOR_AT(ex, depth), connection);
    }
    endSession(KOR_AT_D(depth, ex), connection);
    _korBuffer_ReleaseToCache(KOR_AT_D(depth, ex), connection->will, nullptr);
    _korBuffer_ReleaseToCache(KOR_AT_D(depth, ex), connection->input, nullptr);
    clearOutbox(KOR_AT_D(depth, ex), &exchange->outboxPools, &connection->outbox);
    _korSocket_ShutdownWrite(KOR_AT_D(depth, ex), connection->socket);
    _korSocket_ForceClose(KOR_AT_D(depth, ex), connection->socket);
    delist(connection);
    exchange->closed++;
    KOR_EX_PRIVATE(own, ex, depth);
    _korObjectMap_Unregister(KOR_AT(&own, depth), connection->id);
    if (stopped) {
        releaseConnection(KOR_AT_D(depth, ex), connection);
    }
}

void setKeepAlive(korEx* ex, uint8_t depth, Connection* connection, int64_t milliseconds)
{
    korTimer* timer = connection->exchange->timer;
    KOR_ATOMIC_STORE(&connection->keepAlive, milliseconds);
    if (milliseconds == 0) {
        _korTimer_CancelTask(KOR_AT_D(depth, ex), timer, connection->keepAliveTask);
        connection->keepAliveTask = 0;
    } else if (connection->keepAliveTask != 0) {
        _korTimer_AdjustTask(KOR_AT_D(depth, ex), timer, connection->keepAliveTask, milliseconds);
    } else {
        connection->keepAliveTask =
            _korTimer_ScheduleTask(KOR_AT(ex, depth), timer, checkKeepAlive, nullptr,
                                   reinterpret_cast<void*>(connection->id), milliseconds, milliseconds);
    }
}

void releaseConnection(uint8_t depth, korEx* ex, Connection* connection)
{
    Exchange* exchange = connection->exchange;
    if (_korObjectMap_Release(KOR_AT_D(depth, ex), connection->id)) {
        _korPool_Return(KOR_AT_D(depth, ex), exchange->connectionPool, connection);
    }
}
