/* A server that sends back what it gets, one thread for its listener and its clients, and a client that talks to it. */
#include <korutil/korLib.h>
#include <korutil/korPoller.h>
#include <korutil/korSocket.h>
#include <korutil/korThread.h>

#include <stdio.h>

typedef struct Server {
    korPoller* poller;
    korSocket listener;
    korSocket client;
    korPollerEvent* listening;
    korPollerEvent* talking;
} Server;

/* Its socket goes with an event as its context. */
static korPollerEvent* watch(korEx* ex, uint8_t depth, Server* server, korSocket* socket)
{
    korPollerEvent* event = _korPollerEvent_CreateNetwork(KOR_AT(ex, depth), socket, NULL, KOR_POLL_READ, *socket);
    _korPoller_AddEvent(KOR_AT(ex, depth), server->poller, event);
    return event;
}

/* False when the client has gone. */
static bool serve(korEx* ex, uint8_t depth, Server* server, const korPollerEvent* event)
{
    char buffer[64];
    korSocket* socket = _korPollerEvent_GetContext(KOR_AT(ex, depth), event);
    if (socket == &server->listener) {
        server->client = _korSocket_Accept(KOR_AT(ex, depth), server->listener, NULL, NULL);
        server->talking = watch(KOR_AT(ex, depth), server, &server->client);
        return true;
    }
    int32_t received = _korSocket_Recv(KOR_AT(ex, depth), server->client, buffer, sizeof(buffer), 0);
    if (received > 0) {
        _korSocket_Send(KOR_AT(ex, depth), server->client, buffer, received, 0);
    }
    return received > 0;
}

static void unwatch(korEx* ex, uint8_t depth, Server* server, korPollerEvent* event)
{
    _korPoller_RemoveEvent(KOR_AT_D(depth, ex), server->poller, event);
    _korPoller_ProcessRemoveEvents(KOR_AT(ex, depth), server->poller, 1);
    _korPollerEvent_Release(KOR_AT_D(depth, ex), event);
}

static uint64_t run(void* argument)
{
    Server* server = argument;
    korEx* ex = korEx_Create();
    bool more = true;
    server->listening = watch(KOR_AT(ex, 0), server, &server->listener);
    while (more && korEx_GetErrorCode(ex) == 0) {
        korPollerEvent** ready;
        int32_t count = _korPoller_Wait(KOR_AT(ex, 0), server->poller, &ready, 1, -1);
        for (int32_t i = 0; i < count && more; i++) {
            more = serve(KOR_AT(ex, 0), server, ready[i]);
        }
    }
    unwatch(KOR_AT(ex, 0), server, server->talking);
    unwatch(KOR_AT(ex, 0), server, server->listening);
    _korSocket_Close(KOR_AT_D(0, ex), server->client);
    if (korEx_GetErrorCode(ex) != 0) {
        korEx_Print(ex);
    }
    korEx_Destroy(ex);
    return 0;
}

static void talk(korEx* ex, uint8_t depth, uint16_t port)
{
    char text[64];
    snprintf(text, sizeof(text), "%u", (unsigned)(port >> 8 | (port & 0xff) << 8)); /* out of network order */
    korSocket socket = _korSocket_CreateConnection(KOR_AT(ex, depth), "127.0.0.1", text, 5000);
    _korSocket_Send(KOR_AT(ex, depth), socket, "hello", 5, 0);
    int32_t received = _korSocket_Recv(KOR_AT(ex, depth), socket, text, sizeof(text), 0);
    printf("%.*s comes back\n", received > 0 ? (int)received : 0, text);
    _korSocket_Close(KOR_AT_D(depth, ex), socket);
}

int main(void)
{
    korEx* ex = korEx_Create();
    _korutil_Open(KOR_AT(ex, 0), KORUTIL_LEVEL);
    Server server = {_korPoller_CreateEx(KOR_AT(ex, 0), 1), -1, -1, NULL, NULL};
    server.listener = _korSocket_CreateListener(KOR_AT(ex, 0), "127.0.0.1", "0", 0);
    uint16_t port = _korSocket_GetSockPort(KOR_AT(ex, 0), server.listener);
    korThread* thread = _korThread_Create(KOR_AT(ex, 0), run, &server, 0, "server");
    if (thread != NULL) {
        talk(KOR_AT(ex, 0), port);
        _korThread_Join(KOR_AT(ex, 0), thread);
    }
    _korThread_Destroy(KOR_AT_D(0, ex), thread);
    _korPoller_Destroy(KOR_AT_D(0, ex), server.poller);
    _korSocket_Close(KOR_AT_D(0, ex), server.listener);
    int failed = korEx_GetErrorCode(ex) != 0;
    if (failed) {
        korEx_Print(ex);
    }
    _korutil_Close(KOR_AT_D(0, ex));
    korEx_Destroy(ex);
    return failed;
}
