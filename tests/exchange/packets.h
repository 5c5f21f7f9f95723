// packets.h - packets of MQTT as byte strings, put together from the standard and not with the code that is tested.

#pragma once

#include <cstdint>
#include <string>

namespace kor::test {

inline std::string number(size_t value)
{
    return {static_cast<char>(value >> 8), static_cast<char>(value)};
}

/// A text or a run of bytes with its length in front.
inline std::string field(const std::string& text)
{
    return number(text.size()) + text;
}

inline std::string packet(unsigned first, const std::string& body)
{
    std::string whole(1, static_cast<char>(first));
    size_t length = body.size();
    do {
        whole += static_cast<char>((length & 0x7f) | (length > 0x7f ? 0x80 : 0));
        length >>= 7;
    } while (length > 0);
    return whole + body;
}

struct Will {
    std::string topic;
    std::string payload;
    unsigned qos = 0;
    bool retain = false;
};

inline std::string connectPacket(const std::string& id, unsigned keepAlive = 0, const Will& will = {})
{
    unsigned flags = 2;
    std::string rest;
    if (!will.topic.empty()) {
        flags |= 4u | will.qos << 3 | (will.retain ? 0x20u : 0u);
        rest = field(will.topic) + field(will.payload);
    }
    return packet(0x10, field("MQTT") + '\4' + static_cast<char>(flags) + number(keepAlive) + field(id) + rest);
}

constexpr unsigned retained = 1;
constexpr unsigned duplicate = 8;

/// With a packet id it has QoS 1. `flags` is for `retained` and `duplicate`.
inline std::string publishPacket(const std::string& topic, const std::string& payload, unsigned id = 0,
                                 unsigned flags = 0)
{
    return packet(0x30 | flags | (id > 0 ? 2u : 0u), field(topic) + (id > 0 ? number(id) : "") + payload);
}

inline std::string subscribePacket(const std::string& filter, unsigned qos, unsigned id = 1)
{
    return packet(0x82, number(id) + field(filter) + static_cast<char>(qos));
}

inline std::string unsubscribePacket(const std::string& filter, unsigned id = 1)
{
    return packet(0xa2, number(id) + field(filter));
}

inline std::string connackPacket(unsigned code)
{
    return packet(0x20, number(code));
}

inline std::string pubackPacket(unsigned id)
{
    return packet(0x40, number(id));
}

inline std::string subackPacket(unsigned granted, unsigned id = 1)
{
    return packet(0x90, number(id) + static_cast<char>(granted));
}

inline std::string unsubackPacket(unsigned id = 1)
{
    return packet(0xb0, number(id));
}

inline const std::string pingPacket = packet(0xc0, "");
inline const std::string pongPacket = packet(0xd0, "");
inline const std::string disconnectPacket = packet(0xe0, "");

} // namespace kor::test
