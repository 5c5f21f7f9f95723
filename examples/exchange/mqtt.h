// mqtt.h - the packets of MQTT 3.1.1, the OASIS standard: read with all its rules tested, and written.
//
// A reader gets one whole packet and gives views into it; nothing is copied. What breaks a rule raises code 16 (Invalid
// value) with a text that names the rule, what ends too early code 12 (End of buffer). A writer appends one packet to a
// buffer, at `position`, and makes room as it needs it: code 2.

#ifndef EXCHANGE_MQTT_H
#define EXCHANGE_MQTT_H

#include <korutil/korBuffer.h>

#include <cstddef>
#include <cstdint>

namespace mqtt {

enum class Type : uint8_t {
    connect = 1,
    connack,
    publish,
    puback,
    pubrec,
    pubrel,
    pubcomp,
    subscribe,
    suback,
    unsubscribe,
    unsuback,
    pingreq,
    pingresp,
    disconnect
};

/// The word of a type in the standard, "reserved" for 0 and 15.
const char* nameOf(Type type);

// Bits of the first byte of a PUBLISH.
constexpr uint8_t duplicateBit = 0x08;
constexpr uint8_t qosBits = 0x06;
constexpr uint8_t retainBit = 0x01;

// Answers to a CONNECT.
constexpr uint8_t accepted = 0;
constexpr uint8_t unacceptableProtocol = 1;
constexpr uint8_t identifierRejected = 2;

/// What a SUBACK says of a filter that is not taken.
constexpr uint8_t subscriptionFailed = 0x80;

/// A run of bytes of a packet, not terminated.
struct Bytes {
    uint8_t* data;
    uint32_t length;
};

/// The bytes of a terminated text, as a view: whoever gets it only reads.
Bytes bytesOf(const char* text);

/// The first two to five bytes of a packet.
struct Header {
    Type type;
    uint8_t flags;       ///< the lower half of the first byte
    uint32_t headerSize; ///< bytes of the header itself
    uint32_t packetSize; ///< bytes of the whole packet
};

struct Publish {
    Bytes topic;
    Bytes payload;
    uint16_t packetId; ///< 0 with QoS 0
    uint8_t qos;
    bool duplicate;
    bool retain;
};

struct Connect {
    uint8_t refusal; ///< what the CONNACK must say; with anything but `accepted` the fields behind the level are empty
    bool cleanSession;
    bool hasWill;
    uint16_t keepAlive; ///< seconds, 0 for none
    Bytes clientId;
    Publish will;
};

// ---- Reading --------------------------------------------------------------------------------------------------------

/// Reads a header from the first `available` bytes of a stream. False if they do not hold all of it yet, or on an
/// error: an unknown type, flags that the type must not have, a length of more than four bytes, or a packet above
/// `limit`.
bool readHeader(korEx* ex, uint8_t depth, const uint8_t* bytes, size_t available, uint32_t limit, Header* header);

// Each reads the whole packet at `packet`, whose header has been read.

void readConnect(korEx* ex, uint8_t depth, uint8_t* packet, const Header& header, Connect* connect);
void readPublish(korEx* ex, uint8_t depth, uint8_t* packet, const Header& header, Publish* publish);
/// Reads the packet id of a PUBACK or an UNSUBACK.
uint16_t readAcknowledgement(korEx* ex, uint8_t depth, uint8_t* packet, const Header& header);
/// Tests a packet that has no body: PINGREQ, PINGRESP, DISCONNECT.
void readEmpty(korEx* ex, uint8_t depth, const Header& header);
/// Reads a CONNACK and gives its code.
uint8_t readConnack(korEx* ex, uint8_t depth, uint8_t* packet, const Header& header);
/// Reads a SUBACK of one filter and gives the QoS that was granted, or `subscriptionFailed`.
uint8_t readSuback(korEx* ex, uint8_t depth, uint8_t* packet, const Header& header, uint16_t* packetId);

/// Walks over the filters of a SUBSCRIBE or an UNSUBSCRIBE:
///
///     FilterList list = openFilters(KOR_AT(ex, depth), packet, header);
///     while (nextFilter(KOR_AT(ex, depth), &list, &filter, &qos))
struct FilterList {
    uint16_t packetId;
    bool withQos;
    uint8_t* cursor;
    uint8_t* end;
};
FilterList openFilters(korEx* ex, uint8_t depth, uint8_t* packet, const Header& header);
/// False at the end and on an error. `qos` is untouched for an UNSUBSCRIBE.
bool nextFilter(korEx* ex, uint8_t depth, FilterList* list, Bytes* filter, uint8_t* qos);

/// Tests a whole packet of any type that a client may send; what the fuzzer calls.
void checkPacket(korEx* ex, uint8_t depth, uint8_t* packet, const Header& header);

/// True for well-formed UTF-8 without U+0000.
bool isText(Bytes bytes);
/// True for a topic that can be published: not empty, no wildcard.
bool isTopic(Bytes bytes);
/// True for a filter: not empty, '+' and '#' only as whole levels, '#' only as the last one.
bool isFilter(Bytes bytes);

// ---- Writing --------------------------------------------------------------------------------------------------------

/// Makes room for `size` bytes behind `position`; false on an error.
bool reserve(korEx* ex, uint8_t depth, korBuffer* to, uint32_t size);

/// The bytes of a PUBLISH with such a topic and payload.
uint32_t publishSize(uint32_t topicLength, uint32_t payloadLength, uint8_t qos);
/// Where in such a PUBLISH the packet id stands, if it has one.
uint32_t packetIdOffset(uint32_t topicLength, uint32_t payloadLength, uint8_t qos);

void writePublish(korEx* ex, uint8_t depth, korBuffer* to, const Publish& publish);
void writeConnect(korEx* ex, uint8_t depth, korBuffer* to, const Connect& connect);
void writeConnack(korEx* ex, uint8_t depth, korBuffer* to, uint8_t code);
/// Writes a packet whose body is a packet id: PUBACK, UNSUBACK.
void writeAcknowledgement(korEx* ex, uint8_t depth, korBuffer* to, Type type, uint16_t packetId);
/// Writes a packet without a body: PINGREQ, PINGRESP, DISCONNECT.
void writeEmpty(korEx* ex, uint8_t depth, korBuffer* to, Type type);
/// Writes a SUBSCRIBE of one filter.
void writeSubscribe(korEx* ex, uint8_t depth, korBuffer* to, uint16_t packetId, Bytes filter, uint8_t qos);
/// Writes an UNSUBSCRIBE of one filter.
void writeUnsubscribe(korEx* ex, uint8_t depth, korBuffer* to, uint16_t packetId, Bytes filter);
/// Writes a SUBACK with one answer for each filter.
void writeSuback(korEx* ex, uint8_t depth, korBuffer* to, uint16_t packetId, Bytes answers);

} // namespace mqtt

#endif
