// loop.cpp - the input thread: it waits for sockets and requests, serves what is ready, sends what that has led to, and
// ends the connections that are doomed. One round of this is a turn.

#include "exchange.h"

#include <korutil/korTime.h>

namespace {

constexpr int32_t failuresInARow = 100;

void expire(korEx* ex, uint8_t depth, Connection* connection)
{
    const char* reason = connection->clientId != nullptr ? "keep-alive time is over" : "no CONNECT came";
    doom(connection, KOR_LOG_INFO, reason, nullptr);
    releaseConnection(KOR_AT_D(depth, ex), connection);
}

void resendAll(Exchange* exchange)
{
    int64_t before = exchange->now - int64_t{1000} * exchange->settings.retryInterval;
    for (Connection* connection = exchange->connections; connection != nullptr; connection = connection->next) {
        uint32_t count = resend(&connection->outbox, before);
        if (count > 0) {
            exchange->statistics.counters.resent += count;
            CLIENT_LOG(connection, KOR_LOG_VERBOSE, "%u messages are sent again", count);
            markDirty(connection);
        }
    }
}

void resumeListening(korEx* ex, uint8_t depth, Exchange* exchange)
{
    if (!exchange->isListening) {
        _korPoller_AddEvent(KOR_AT(ex, depth), exchange->poller, &exchange->listening);
        exchange->isListening = ex->code == 0;
    }
}

void handleRequest(korEx* ex, uint8_t depth, Exchange* exchange, Request* request)
{
    KOR_ATOMIC_STORE(&request->queued, 0);
    switch (request->kind) {
    case RequestKind::expire:
        expire(KOR_AT(ex, depth), request->connection);
        break;
    case RequestKind::tick:
        resendAll(exchange);
        resumeListening(KOR_AT(ex, depth), exchange);
        break;
    case RequestKind::report:
        startReport(KOR_AT(ex, depth), exchange);
        break;
    case RequestKind::stop:
        exchange->stopping = true;
        break;
    }
}

void handleRequests(korEx* ex, uint8_t depth, Exchange* exchange)
{
    while (auto* request = static_cast<Request*>(_korFastQueue_Pop(KOR_AT(ex, depth), exchange->requests))) {
        handleRequest(KOR_AT(ex, depth), exchange, request);
    }
}

void serve(korEx* ex, uint8_t depth, Exchange* exchange, const korPollerEvent* event)
{
    auto* connection = static_cast<Connection*>(_korPollerEvent_GetContext(KOR_AT(ex, depth), event));
    if (connection == nullptr) {
        acceptConnections(KOR_AT(ex, depth), exchange);
    } else if (!connection->doomed) {
        if (connection->isWriteWaiting) {
            markDirty(connection); // it may take bytes again; trying does no harm
        }
        receive(KOR_AT(ex, depth), connection);
    }
}

void flushDirty(korEx* ex, uint8_t depth, Exchange* exchange)
{
    while (Connection* connection = exchange->dirty) {
        exchange->dirty = connection->nextDirty;
        connection->isDirty = false;
        flush(KOR_AT(ex, depth), connection);
    }
}

// Sends and buries until neither leads to more: a will has receivers, and a receiver may be doomed by it.
void settle(korEx* ex, uint8_t depth, Exchange* exchange)
{
    flushDirty(KOR_AT(ex, depth), exchange);
    while (Connection* connection = exchange->doomed) {
        exchange->doomed = connection->nextDoomed;
        bury(KOR_AT(ex, depth), connection);
        flushDirty(KOR_AT(ex, depth), exchange);
    }
}

// Looks for events some times before it sleeps: a client that answers at once is served without the cost of a sleep and
// its wake-up. What another thread asks for ends either wait; once it has, the request is in the queue.
int32_t await(korEx* ex, uint8_t depth, Exchange* exchange, korPollerEvent*** ready)
{
    int64_t end = _korPerf_TimerNow() + exchange->spinTicks;
    while (ex->code == 0 && _korPerf_TimerNow() < end) {
        int32_t count = _korPoller_Wait(KOR_AT(ex, depth), exchange->poller, ready, 1, 0);
        if (count > 0 || !_korFastQueue_IsEmpty(KOR_AT(ex, depth), exchange->requests)) {
            return count;
        }
        _kor_Sleep(0); // whoever else wants this processor may be a client
    }
    return _korPoller_Wait(KOR_AT(ex, depth), exchange->poller, ready, 1, -1);
}

void turn(korEx* ex, uint8_t depth, Exchange* exchange)
{
    korPollerEvent** ready = nullptr;
    int32_t count = await(KOR_AT(ex, depth), exchange, &ready);
    int64_t start = _korPerf_TimerNow();
    exchange->now = nowOf(exchange);
    for (int32_t i = 0; i < count; i++) {
        if (i == 0 || ready[i] != ready[i - 1]) { // told of more than one thing, an event stands there more than once
            serve(KOR_AT(ex, depth), exchange, ready[i]);
        }
    }
    handleRequests(KOR_AT(ex, depth), exchange);
    settle(KOR_AT(ex, depth), exchange);
    countTurn(KOR_AT(ex, depth), exchange, _korPerf_TimerNow() - start);
}

void closeAll(korEx* ex, uint8_t depth, Exchange* exchange)
{
    for (Connection* connection = exchange->connections; connection != nullptr; connection = connection->next) {
        doom(connection, KOR_LOG_VERBOSE, "the server stops", nullptr);
    }
    settle(KOR_AT(ex, depth), exchange);
}

} // namespace

bool post(korEx* ex, uint8_t depth, Exchange* exchange, Request* request)
{
    uint8_t idle = 0;
    if (!KOR_ATOMIC_CAS(&request->queued, &idle, uint8_t{1})) {
        return false;
    }
    _korFastQueue_Push(KOR_AT(ex, depth), exchange->requests, request);
    _korPoller_Interrupt(KOR_AT_D(depth, ex), exchange->poller);
    return true;
}

int64_t nowOf(const Exchange* exchange)
{
    return static_cast<int64_t>(static_cast<double>(_korPerf_TimerNow()) * exchange->secondsPerTick * 1000);
}

void runExchange(korEx* ex, uint8_t depth, Exchange* exchange)
{
    int32_t failures = 0;
    while (!exchange->stopping) {
        KOR_EX_PRIVATE(own, ex, depth);
        turn(KOR_AT(&own, depth), exchange);
        failures = own.code != 0 ? failures + 1 : 0;
        if (own.code != 0) {
            _korLogger_LogExN_v3(exchange->serverComponent, nullptr, nullptr, KOR_LOG_SEVERE, &own, 0, "a turn failed");
        }
        if (failures == failuresInARow) {
            KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "the server cannot wait for its clients any more");
            exchange->stopping = true;
        }
    }
    KOR_EX_PRIVATE(own, ex, depth);
    closeAll(KOR_AT(&own, depth), exchange);
}
