#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace support {

/// The control packets of MQTT 3.1.1 by their codes.
enum class PacketType : std::uint8_t {
    CONNECT = 1,
    CONNACK = 2,
    PUBLISH = 3,
    PUBACK = 4,
    PUBREC = 5,
    PUBREL = 6,
    PUBCOMP = 7,
    SUBSCRIBE = 8,
    SUBACK = 9,
    UNSUBSCRIBE = 10,
    UNSUBACK = 11,
    PINGREQ = 12,
    PINGRESP = 13,
    DISCONNECT = 14
};

std::ostream& operator<<(std::ostream& out, PacketType type);

/// One control packet, decoded. Fields that its type does not have keep their defaults.
struct MqttPacket {
    PacketType type{};
    std::uint16_t mid = 0; ///< all acknowledgements, SUBSCRIBE, UNSUBSCRIBE, PUBLISH above QoS 0

    std::string topic;   ///< PUBLISH; the will's of CONNECT; the first of (UN)SUBSCRIBE
    std::string payload; ///< PUBLISH; the will's of CONNECT
    int qos = 0;         ///< PUBLISH; the will's of CONNECT; the first asked for in SUBSCRIBE
    bool retain = false; ///< PUBLISH; the will's of CONNECT
    bool dup = false;    ///< PUBLISH

    std::vector<std::string> topics; ///< SUBSCRIBE, UNSUBSCRIBE

    std::string clientId;      ///< CONNECT
    bool cleanSession = false; ///< CONNECT
    bool hasWill = false;      ///< CONNECT
    int keepAlive = 0;         ///< CONNECT, seconds

    int code = 0; ///< CONNACK
};

/// Splits a stream of bytes into packets.
class MqttReader {
public:
    void append(char const* bytes, std::size_t count) { bytes_.append(bytes, count); }
    /// The next whole packet, if there is one.
    /// @throws std::runtime_error when the bytes are no MQTT
    std::optional<MqttPacket> next();

private:
    std::string bytes_;
};

// What a server sends.
std::string connack(int code, bool sessionPresent = false);
std::string publishPacket(std::string const& topic, std::string const& payload, int qos,
                          bool retain, std::uint16_t mid, bool dup = false);
/// PUBACK, PUBREC, PUBREL, PUBCOMP or UNSUBACK.
std::string acknowledgement(PacketType type, std::uint16_t mid);
std::string suback(std::uint16_t mid, std::vector<std::uint8_t> const& granted);
std::string pingresp();

} // namespace support
