// exchange.h - the server's state, and its parts in reading order: korexchange.cpp starts and stops it, loop.cpp waits
// and serves, connections.cpp has the bytes of a client, session.cpp its packets, routing.cpp who gets which message,
// statistics.cpp the counts.
//
// One thread, the input thread, owns all of this. The others are the timer's executor, which watches keep-alive times
// and makes reports, and the main thread, which waits for a signal. They touch nothing here but the atomic fields, and
// hand the input thread requests.

#ifndef EXCHANGE_EXCHANGE_H
#define EXCHANGE_EXCHANGE_H

#include "mqtt.h"
#include "outbox.h"

#include <korutil/korExecutor.h>
#include <korutil/korLogger.h>
#include <korutil/korPerf.h>
#include <korutil/korPoller.h>
#include <korutil/korSocket.h>
#include <korutil/korStrHash.h>
#include <korutil/korTimer.h>
#include <korutil/korTopicList.h>

struct Exchange;
struct Connection;

/// Packets of up to so many bytes, most of all messages, come from a pool.
constexpr uint32_t smallPacketSize = 208;

/// What the command line says.
struct Settings {
    const char* port = "1883";
    const char* bind = "127.0.0.1";
    const char* levels = nullptr;           ///< of statements
    const char* traced = nullptr;           ///< client id whose statements are all shown
    uint32_t statsInterval = 0;             ///< seconds; 0 = no reports
    uint32_t retryInterval = 20;            ///< seconds until a packet with QoS 1 is sent again
    uint32_t spinTime = 50;                 ///< microseconds to look for events before sleeping
    uint32_t packetLimit = 1024 * 1024;     ///< bytes of the largest packet that is taken
    uint32_t queueBound = 16 * 1024 * 1024; ///< bytes of an outbox from which on QoS 0 is dropped
    uint32_t queueLimit = 64 * 1024 * 1024; ///< bytes of an outbox from which on the client is disconnected
};

// ---- Requests: what other threads want of the input thread ----------------------------------------------------------

enum class RequestKind : uint8_t {
    expire, ///< the connection's keep-alive time has run out; comes with a reference to it
    tick,   ///< time to look for packets that were not acknowledged
    report,
    stop
};

/// Lies in the record that it is about, so that asking allocates nothing.
struct Request {
    korFastQueueItem link;
    RequestKind kind;
    uint8_t queued; ///< atomic: 1 = on its way
    Exchange* exchange;
    Connection* connection; ///< of an expiry
};

/// Hands a request to the input thread; one that is on its way already is not sent again, and gives false.
bool post(korEx* ex, uint8_t depth, Exchange* exchange, Request* request);

// ---- Clients --------------------------------------------------------------------------------------------------------

/// One filter of one client. Its address is the value in the topic index.
struct Subscription {
    Connection* connection; ///< NULL = over, but memory to take it out of the index was lacking
    uint8_t qos;
    bool leadingWildcard; ///< does not take topics that begin with '$'
};

/// A client's connection, from its acceptance to its burial at the end of the turn in which it was doomed.
struct Connection {
    Exchange* exchange;
    korSocket socket;
    korPollerEvent event;   ///< something to receive and, while `isWriteWaiting`, room to send
    uint64_t id;            ///< in the object map; what the keep-alive task knows of the connection
    uint64_t keepAliveTask; ///< 0 = none
    int64_t keepAlive;      ///< atomic: milliseconds of silence that are allowed
    int64_t lastHeard;      ///< atomic: milliseconds
    Request expiry;

    char* clientId;   ///< NULL before the CONNECT
    char name[40];    ///< for statements: "client ..." or "connection ..."
    uint64_t logKey;  ///< of a traced client; 0 = the global logger
    korBuffer* input; ///< the beginning of a packet whose end has not come; NULL for none
    korBuffer* will;  ///< a PUBLISH, or NULL
    Outbox outbox;
    korStrHash* subscriptions; ///< filter to Subscription; NULL until the first one
    int32_t subscriptionCount;

    uint64_t messageSerial; ///< the message that found this connection last,
    uint8_t messageQos;     ///< and the highest QoS of the filters that did
    bool doomed;
    bool isWriteWaiting;
    bool isDirty;
    bool isDropping;        ///< messages are being dropped, which has been told
    Connection* nextDirty;  ///< on the list of those that have something to send
    Connection* nextDoomed; ///< on the list of those that go at the end of the turn
    Connection* next;       ///< on the list of all
    Connection* previous;
};

// ---- Statistics -----------------------------------------------------------------------------------------------------

/// What happened since the last report.
struct Counters {
    uint64_t received;      ///< messages
    uint64_t receivedBytes; ///< of everything
    uint64_t delivered;     ///< packets with messages handed to sockets
    uint64_t sentBytes;     ///< of everything
    uint64_t dropped;
    uint64_t resent;
};

struct Statistics {
    Counters counters;
    korPerfStat turns;      ///< ticks that the input thread was busy at a time: what a message waits here at most
    korPerfHist* turnTimes; ///< the same as a histogram
};

// ---- The server -----------------------------------------------------------------------------------------------------

struct Exchange {
    Settings settings;
    uint8_t serverComponent; ///< of statements about the server
    uint8_t clientComponent; ///< of statements about one client
    korSocket listener;
    korPollerEvent listening;
    bool isListening; ///< false while no descriptor is left for a connection
    uint16_t port;

    korPoller* poller;
    korFastQueue* requests;
    korExecutor* executor;
    korTimer* timer;
    Request tick;
    Request report;
    Request stop;
    bool stopping;
    double secondsPerTick;
    int64_t spinTicks; ///< how long the input thread looks for events before it sleeps
    int64_t now;       ///< milliseconds; of this turn

    korPool* connectionPool;
    korPool* subscriptionPool;
    korPool* smallPackets; ///< buffers with `smallPacketSize` bytes
    OutboxPools outboxPools;
    korBuffer* input;   ///< what was received last, of any connection
    korBuffer* staging; ///< what is to be sent next, of any connection
    char* topic;        ///< the topic at hand, terminated

    korTopicList* subscriptions; ///< filter to Subscription
    korTopicList* retained;      ///< topic to its PUBLISH, a korBuffer with a reference
    korStrHash* clients;         ///< client id to Connection
    korDpa receivers;            ///< connections that the message at hand goes to
    uint64_t messageSerial;

    uint64_t accepted; ///< connections so far
    uint64_t closed;
    uint32_t filters;
    int64_t reportedAt; ///< milliseconds
    Connection* connections;
    Connection* dirty;
    Connection* doomed;
    Statistics statistics;
};

// korexchange.cpp

/// Makes everything, and listens. On an error what was made is still to be closed.
void openExchange(korEx* ex, uint8_t depth, Exchange* exchange, const Settings& settings);
void closeExchange(uint8_t depth, korEx* ex, Exchange* exchange);

// loop.cpp

/// Serves until a request to stop comes.
void runExchange(korEx* ex, uint8_t depth, Exchange* exchange);
/// Milliseconds of a clock that only goes forward. Any thread.
int64_t nowOf(const Exchange* exchange);

// connections.cpp

/// Takes all connections that wait at the listener.
void acceptConnections(korEx* ex, uint8_t depth, Exchange* exchange);
/// Receives once and handles every whole packet.
void receive(korEx* ex, uint8_t depth, Connection* connection);
/// Sends until nothing is left or the socket takes no more.
void flush(korEx* ex, uint8_t depth, Connection* connection);
/// Has the connection flushed at the end of the turn.
void markDirty(Connection* connection);
/// Closes the connection at the end of the turn. `reason` is told at `level`; `cause` may be NULL.
void doom(Connection* connection, int32_t level, const char* reason, const korEx* cause);
/// Ends a doomed connection: its will, its subscriptions, its socket.
void bury(korEx* ex, uint8_t depth, Connection* connection);
/// Sets how long the client may be silent, in milliseconds; 0 for ever.
void setKeepAlive(korEx* ex, uint8_t depth, Connection* connection, int64_t milliseconds);
/// Gives back the reference that came with an expiry.
void releaseConnection(uint8_t depth, korEx* ex, Connection* connection);

// session.cpp

/// Handles one whole packet. What the client did wrong is raised.
void handlePacket(korEx* ex, uint8_t depth, Connection* connection, uint8_t* packet, const mqtt::Header& header);
/// Forgets what the session has made of the client: its id and its subscriptions.
void endSession(uint8_t depth, korEx* ex, Connection* connection);

// routing.cpp

/// Keeps a message if it is to be retained, and delivers it to all who subscribe to it.
void route(korEx* ex, uint8_t depth, Exchange* exchange, const mqtt::Publish& publish);
/// Routes the message of a PUBLISH that is kept in a buffer.
void routePacket(korEx* ex, uint8_t depth, Exchange* exchange, const korBuffer* packet);
/// Subscribes and gives the QoS granted.
uint8_t subscribe(korEx* ex, uint8_t depth, Connection* connection, mqtt::Bytes filter, uint8_t qos);
/// Delivers the retained messages of a filter.
void deliverRetained(korEx* ex, uint8_t depth, Connection* connection, mqtt::Bytes filter, uint8_t qos);
void unsubscribe(uint8_t depth, korEx* ex, Connection* connection, mqtt::Bytes filter);
void unsubscribeAll(uint8_t depth, korEx* ex, Connection* connection);
/// Gives back all retained messages.
void dropRetained(uint8_t depth, korEx* ex, Exchange* exchange);

// statistics.cpp

void openStatistics(korEx* ex, uint8_t depth, Exchange* exchange);
void closeStatistics(uint8_t depth, korEx* ex, Exchange* exchange);
/// Counts a turn that took so many ticks.
void countTurn(korEx* ex, uint8_t depth, Exchange* exchange, int64_t ticks);
/// Has a report of what happened since the last one printed, beside the input thread.
void startReport(korEx* ex, uint8_t depth, Exchange* exchange);

/// A statement about a client: with the client's own logger if it is traced.
#define CLIENT_LOG(connection, level, ...)                                                                        \
    ((connection)->logKey != 0 || korLogger_isLoggable((connection)->exchange->clientComponent, (level))          \
         ? _korLogger_LogByKey((connection)->logKey, (connection)->exchange->clientComponent, (connection)->name, \
                               NULL, (level), NULL, 0, __VA_ARGS__)                                               \
         : (void)0)

#endif
