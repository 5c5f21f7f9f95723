/* Senders of messages, known by a number or by a UUID: a record each in an array, found through tables by identifier
   and by port. */
#include <korutil/korBuf.h>
#include <korutil/korDra.h>
#include <korutil/korHIDHash.h>
#include <korutil/korI32Hash.h>

#include <inttypes.h>
#include <stdio.h>

typedef struct Sender {
    korHeaderID id;
    uint32_t port;
    int32_t messages;
} Sender;

typedef struct Senders {
    korDra* records;    /* of Sender; the tables keep an index, since records move when the array grows */
    korHIDHash* byId;   /* identifier to index + 1: a table gives 0 for what it does not have */
    korI32Hash* byPort; /* port to index + 1 */
} Senders;

static Sender* senderAt(const Senders* senders, uint64_t place)
{
    return place == 0 ? NULL : (Sender*)senders->records->bytes + (place - 1);
}

static Sender* addSender(korEx* ex, uint8_t depth, Senders* senders, const korHeaderID* id, uint32_t port)
{
    Sender* sender = (Sender*)_korDra_New(KOR_AT_D(depth, ex), senders->records);
    if (sender == NULL) {
        return NULL;
    }
    sender->id = *id;
    sender->port = port;
    uint64_t place = (uint64_t)senders->records->used / sizeof(Sender);
    _korHIDHash_Set(KOR_AT(ex, depth), senders->byId, id, 1, place);
    _korI32Hash_Set(KOR_AT(ex, depth), senders->byPort, port, place);
    return korEx_GetErrorCode(ex) == 0 ? sender : NULL;
}

/* Reads the identifier at the head of a message and counts the message for its sender. */
static void receive(korEx* ex, uint8_t depth, Senders* senders, uint8_t* message, const uint8_t* end, uint32_t port)
{
    korHeaderID id = {0};
    _korBuf_ReadHeaderID(KOR_AT(ex, depth), &message, end, &id);
    if (korEx_GetErrorCode(ex) != 0) {
        return;
    }
    Sender* sender = senderAt(senders, _korHIDHash_Get(KOR_AT(ex, depth), senders->byId, &id));
    if (sender == NULL) {
        sender = addSender(KOR_AT(ex, depth), senders, &id, port);
    }
    if (sender != NULL) {
        sender->messages++;
    }
}

static void receiveAll(korEx* ex, uint8_t depth, Senders* senders)
{
    static const korHeaderID ids[] = {{7, {0}}, {0, {0x0123456789abcdef, 0xfedcba9876543210}}, {1000000, {0}}};
    static const int order[] = {0, 1, 0, 2, 0, 1};
    for (size_t i = 0; i < sizeof(order) / sizeof(order[0]) && korEx_GetErrorCode(ex) == 0; i++) {
        uint8_t message[32];
        uint8_t* cursor = message;
        _korBuf_WriteHeaderID(KOR_AT(ex, depth), &cursor, message + sizeof(message), &ids[order[i]]);
        receive(KOR_AT(ex, depth), senders, message, cursor, 5000 + (uint32_t)order[i]);
    }
}

static void print(korEx* ex, uint8_t depth, const Senders* senders)
{
    for (uint64_t place = 1; place <= (uint64_t)senders->records->used / sizeof(Sender); place++) {
        const Sender* sender = senderAt(senders, place);
        char id[KOR_HEADERID_TEXT_SIZE];
        _korHeaderID_ToString(KOR_AT(ex, depth), &sender->id, id, sizeof(id));
        printf("%s: %" PRId32 " from port %" PRIu32 "\n", id, sender->messages, sender->port);
    }
    const Sender* found = senderAt(senders, _korI32Hash_Get(KOR_AT(ex, depth), senders->byPort, 5002));
    if (found != NULL) {
        printf("port 5002 is sender %" PRIu64 "\n", found->id.id);
    }
}

int main(void)
{
    korEx* ex = korEx_Create();
    Senders senders = {_korDra_Create(KOR_AT(ex, 0), 8, sizeof(Sender)), _korHIDHash_Create(KOR_AT(ex, 0), 8),
                       _korI32Hash_Create(KOR_AT(ex, 0), 8)};
    if (korEx_GetErrorCode(ex) == 0) {
        receiveAll(KOR_AT(ex, 0), &senders);
        print(KOR_AT(ex, 0), &senders);
    }
    _korI32Hash_Destroy(KOR_AT_D(0, ex), senders.byPort);
    _korHIDHash_Destroy(KOR_AT_D(0, ex), senders.byId);
    _korDra_Destroy(KOR_AT_D(0, ex), senders.records);
    int failed = korEx_GetErrorCode(ex) != 0;
    if (failed) {
        korEx_Print(ex);
    }
    korEx_Destroy(ex);
    return failed;
}
