#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace mqtt {

/// The types of MQTT control packets that are told apart here.
enum class PacketType : std::uint8_t { CONNACK = 2, PUBLISH = 3, PUBACK = 4, PUBREC = 5 };

/// How an MQTT control packet begins: its type, four flags, and the length of what follows.
struct PacketHeader {
    PacketType type; ///< other values are legal
    int qos;         ///< of a PUBLISH
    std::size_t size;
    std::size_t bodySize;

    std::size_t packetSize() const { return size + bodySize; }

    /// @param bytes from the beginning of a packet
    /// @return nothing while there are too few bytes
    static std::optional<PacketHeader> of(std::string_view bytes);
};

/// Reads a number of two bytes.
inline std::uint16_t numberAt(std::string_view bytes, std::size_t position) {
    auto const byte = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
    return static_cast<std::uint16_t>(byte(position) << 8 | byte(position + 1));
}

} // namespace mqtt
