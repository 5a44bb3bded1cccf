#include "client/packet_header.hpp"

namespace mqtt {

std::optional<PacketHeader> PacketHeader::of(std::string_view bytes) {
    constexpr std::size_t MAX_LENGTH_BYTES = 4;
    std::size_t bodySize = 0;
    for (std::size_t i = 1; i < bytes.size() && i <= MAX_LENGTH_BYTES; ++i) {
        auto const byte = static_cast<unsigned char>(bytes[i]);
        bodySize |= static_cast<std::size_t>(byte & 0x7F) << (7 * (i - 1));
        if (byte < 0x80 || i == MAX_LENGTH_BYTES) {
            auto const first = static_cast<unsigned char>(bytes[0]);
            return PacketHeader{static_cast<PacketType>(first >> 4), (first >> 1) & 3, i + 1,
                                bodySize};
        }
    }
    return std::nullopt;
}

} // namespace mqtt
