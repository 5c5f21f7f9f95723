// client.h - a client of an MQTT 3.1.1 server: many connections on one thread, all served by the turns of one loop.
//
// A loop owns the poller and one big area that every connection receives into. Opening, subscribing and unsubscribing
// wait for the server's answer by taking turns of the loop, so messages for any client may be handed over meanwhile;
// all else never waits. What a client sends is queued, and goes out with a flush or as the socket takes it.
//
//     mqtt::Loop loop = {};
//     mqtt::openLoop(KOR_AT(ex, depth), &loop);
//     mqtt::Client client = {};
//     client.onMessage = printIt;                       // and what else of the first fields is wanted
//     mqtt::openClient(KOR_AT(ex, depth), &client, &loop, "127.0.0.1", "1883", "a name");
//     mqtt::subscribe(KOR_AT(ex, depth), &client, "host/#", 1);
//     while (...)
//         mqtt::turn(KOR_AT(ex, depth), &loop, 100);    // printIt for each message
//     mqtt::closeClient(KOR_AT_D(depth, ex), &client);
//     mqtt::closeLoop(KOR_AT_D(depth, ex), &loop);
//
// A client stays where it is from its opening to its closing. What a turn calls may publish, but takes no turn itself,
// since the area is in use, and closes no client, since events of that turn may still name it. A connection that
// breaks, or whose server breaks a rule of the standard, ends the turn with an exception: code 7 "server has closed the
// connection", 6 of the socket, 12 and 16 of the packet; `failed` of the loop is its client.

#ifndef EXCHANGE_CLIENT_H
#define EXCHANGE_CLIENT_H

#include "mqtt.h"

#include <korutil/korPoller.h>
#include <korutil/korSocket.h>

namespace mqtt {

/// How long opening and subscribing wait for the server, in milliseconds.
constexpr int32_t answerTimeout = 10000;

struct Client;

struct Loop {
    korPoller* poller;
    uint8_t* area;  ///< where everything is received
    Client* failed; ///< whose connection ended the last turn
};

struct Client {
    // Set by the owner before the opening; each may be left zero.

    void* owner;
    /// A message has come. Its bytes hold until the return. One with QoS 1 is acknowledged by the client afterwards.
    void (*onMessage)(korEx* ex, uint8_t depth, Client* client, const Publish& message);
    /// A message that was published with QoS 1 has been acknowledged.
    void (*onAcknowledged)(korEx* ex, uint8_t depth, Client* client, uint16_t packetId);
    bool hasWill;
    Publish will;
    uint16_t keepAlive; ///< seconds, 0 for none; the owner sees to it that something is sent in time: see ping

    // The client's own.

    Loop* loop;
    korSocket socket;
    korPollerEvent event; ///< something to receive and, while `isWriteWaiting`, room to send
    bool isWriteWaiting;
    korBuffer* output; ///< queued up to `position`, sent up to `sent`
    uint32_t sent;
    korBuffer* rest;       ///< the bytes of a packet that has not come in whole, up to `position`
    uint16_t lastPacketId; ///< the last one that was given out
    Type answer;           ///< type of the last answer to CONNECT, SUBSCRIBE or UNSUBSCRIBE
    uint8_t answerCode;    ///< what a CONNACK or a SUBACK said
};

// ---- The loop -------------------------------------------------------------------------------------------------------

/// Errors: code 2, and those of a poller's making.
void openLoop(korEx* ex, uint8_t depth, Loop* loop);
/// Its clients have been closed. Works with an error pending, and on a loop that is all zero.
void closeLoop(uint8_t depth, korEx* ex, Loop* loop);

/// Waits at most `timeout` milliseconds, -1 for ever, until a connection has something to do, and serves all that have:
/// receives once from each, calls the handlers, acknowledges, sends what is queued. Gives how many events it served.
int32_t turn(korEx* ex, uint8_t depth, Loop* loop, int32_t timeout);

// ---- A client -------------------------------------------------------------------------------------------------------

/// Connects, with a clean session, and waits for the server's word. `clientId` may be empty. After an error the client
/// is to be closed all the same. Errors besides those of a turn: those of a connecting socket; 4 "server does not
/// answer"; 8 "server refuses the connection: code ...".
void openClient(korEx* ex, uint8_t depth, Client* client, Loop* loop, const char* host, const char* service,
                const char* clientId);

/// Subscribes to one filter and waits for the answer. Gives the QoS that was granted. Errors besides those of a turn:
/// 4 "server does not answer"; 8 "server refuses the subscription to ...".
uint8_t subscribe(korEx* ex, uint8_t depth, Client* client, const char* filter, uint8_t qos);

/// Takes a subscription back and waits for the answer. Errors as above.
void unsubscribe(korEx* ex, uint8_t depth, Client* client, const char* filter);

/// Queues a message and gives its packet id, 0 with QoS 0. The caller's `packetId` and `duplicate` are not looked at.
/// Ids go round from 1 to 65535: the caller has fewer than that on their way. Code 2.
uint16_t publish(korEx* ex, uint8_t depth, Client* client, const Publish& message);

/// Queues a PINGREQ. Code 2.
void ping(korEx* ex, uint8_t depth, Client* client);

/// Sends what is queued as far as the socket takes it at once; the rest goes out in later turns. Error: 6 "send".
void flush(korEx* ex, uint8_t depth, Client* client);

/// The bytes that wait to be sent.
uint32_t queuedBytes(const Client* client);

/// Takes leave with a DISCONNECT if the socket takes it at once, closes and zeroes what is the client's own. Accepts a
/// client that is all zero, or has been closed. Works with an error pending.
void closeClient(uint8_t depth, korEx* ex, Client* client);
/// Closes without a word: the server then publishes the will.
void dropClient(uint8_t depth, korEx* ex, Client* client);

} // namespace mqtt

#endif
