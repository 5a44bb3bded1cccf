#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace support {

/// The control packets of MQTT 3.1.1 by their codes.
enum class PacketType : std::uint8_t {
    CONNECT = 1,
    CONNACK,
    PUBLISH,
    PUBACK,
    PUBREC,
    PUBREL,
    PUBCOMP,
    SUBSCRIBE,
    SUBACK,
    UNSUBSCRIBE,
    UNSUBACK,
    PINGREQ,
    PINGRESP,
    DISCONNECT
};

/// One control packet from a client, decoded. Fields that its type does not have keep their
/// defaults.
struct MqttPacket {
    PacketType type{};
    std::uint16_t mid = 0; ///< all acknowledgements, SUBSCRIBE, UNSUBSCRIBE, PUBLISH above QoS 0

    std::string topic;   ///< PUBLISH; the first of (UN)SUBSCRIBE
    std::string payload; ///< PUBLISH
    int qos = 0;         ///< PUBLISH; the first asked for in SUBSCRIBE
    bool retain = false; ///< PUBLISH

    std::string clientId;      ///< CONNECT
    bool cleanSession = false; ///< CONNECT
    bool hasWill = false;      ///< CONNECT
    int keepAlive = 0;         ///< CONNECT, seconds
};

/// Takes the first packet from a stream of bytes, if it is there as a whole.
/// @throws std::runtime_error when it is too short for its fields
std::optional<MqttPacket> takePacket(std::string& bytes);

// What a server sends.
std::string connack(int code);
std::string publishPacket(MqttPacket const& packet);
/// The answer of a server that accepts everything, with QoS 0 for one topic; "": none.
std::string answerTo(MqttPacket const& packet);

} // namespace support
