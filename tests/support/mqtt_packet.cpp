#include "support/mqtt_packet.hpp"

#include <array>
#include <ostream>
#include <stdexcept>

namespace support {

namespace {

/// Takes the fields of a packet's body in order.
class Body {
public:
    explicit Body(std::string bytes) : bytes_(std::move(bytes)) {}

    bool empty() const { return at_ == bytes_.size(); }
    std::uint8_t byte() { return static_cast<std::uint8_t>(take(1)[0]); }
    std::uint16_t number() {
        unsigned const high = byte();
        return static_cast<std::uint16_t>(high << 8U | byte());
    }
    std::string text() {
        std::size_t const length = number();
        return take(length);
    }
    std::string rest() { return take(bytes_.size() - at_); }

private:
    std::string take(std::size_t count) {
        if (count > bytes_.size() - at_) {
            throw std::runtime_error("MQTT packet is too short");
        }
        at_ += count;
        return bytes_.substr(at_ - count, count);
    }

    std::string bytes_;
    std::size_t at_ = 0;
};

void readConnect(MqttPacket& packet, Body& body) {
    constexpr unsigned CLEAN = 0x02, WILL = 0x04, WILL_RETAIN = 0x20;
    body.text(); // "MQTT"
    body.byte(); // protocol level
    unsigned const flags = body.byte();
    packet.cleanSession = (flags & CLEAN) != 0;
    packet.hasWill = (flags & WILL) != 0;
    packet.keepAlive = body.number();
    packet.clientId = body.text();
    if (packet.hasWill) {
        packet.topic = body.text();
        packet.payload = body.text();
        packet.qos = static_cast<int>(flags >> 3U & 3U);
        packet.retain = (flags & WILL_RETAIN) != 0;
    }
}

void readPublish(MqttPacket& packet, Body& body, unsigned flags) {
    packet.dup = (flags & 8U) != 0;
    packet.qos = static_cast<int>(flags >> 1U & 3U);
    packet.retain = (flags & 1U) != 0;
    packet.topic = body.text();
    if (packet.qos > 0) {
        packet.mid = body.number();
    }
    packet.payload = body.rest();
}

void readTopics(MqttPacket& packet, Body& body) {
    packet.mid = body.number();
    while (!body.empty()) {
        packet.topics.push_back(body.text());
        int const qos = packet.type == PacketType::SUBSCRIBE ? body.byte() : 0;
        if (packet.topics.size() == 1) {
            packet.topic = packet.topics.front();
            packet.qos = qos;
        }
    }
}

MqttPacket decode(unsigned head, Body body) {
    MqttPacket packet;
    packet.type = static_cast<PacketType>(head >> 4U);
    switch (packet.type) {
    case PacketType::CONNECT:
        readConnect(packet, body);
        break;
    case PacketType::CONNACK:
        body.byte(); // session present
        packet.code = body.byte();
        break;
    case PacketType::PUBLISH:
        readPublish(packet, body, head & 0xFU);
        break;
    case PacketType::SUBSCRIBE:
    case PacketType::UNSUBSCRIBE:
        readTopics(packet, body);
        break;
    case PacketType::PINGREQ:
    case PacketType::PINGRESP:
    case PacketType::DISCONNECT:
        break;
    default: // the acknowledgements
        packet.mid = body.number();
        break;
    }
    return packet;
}

std::string number(std::uint16_t value) {
    return {static_cast<char>(value >> 8U), static_cast<char>(value & 0xFFU)};
}

std::string packetOf(PacketType type, unsigned flags, std::string const& body) {
    std::string bytes(1, static_cast<char>(static_cast<unsigned>(type) << 4U | flags));
    std::size_t length = body.size();
    do {
        std::size_t const more = length > 127 ? 128 : 0;
        bytes.push_back(static_cast<char>(length % 128 | more));
        length /= 128;
    } while (length > 0);
    return bytes + body;
}

} // namespace

std::optional<MqttPacket> MqttReader::next() {
    std::size_t length = 0;
    std::size_t at = 1;
    for (bool more = true; more; ++at) {
        if (at >= bytes_.size()) {
            return std::nullopt;
        }
        if (at > 4) {
            throw std::runtime_error("MQTT packet without a valid length");
        }
        auto const byte = static_cast<unsigned char>(bytes_[at]);
        length |= static_cast<std::size_t>(byte & 127U) << (7 * (at - 1));
        more = (byte & 128U) != 0;
    }
    if (bytes_.size() < at + length) {
        return std::nullopt;
    }
    auto const head = static_cast<unsigned char>(bytes_[0]);
    Body body(bytes_.substr(at, length));
    bytes_.erase(0, at + length);
    return decode(head, std::move(body));
}

std::string connack(int code, bool sessionPresent) {
    return packetOf(PacketType::CONNACK, 0,
                    {static_cast<char>(sessionPresent), static_cast<char>(code)});
}

std::string publishPacket(std::string const& topic, std::string const& payload, int qos,
                          bool retain, std::uint16_t mid, bool dup) {
    unsigned const flags = (dup ? 8U : 0U) | static_cast<unsigned>(qos) << 1U | (retain ? 1U : 0U);
    std::string const id = qos > 0 ? number(mid) : std::string();
    return packetOf(PacketType::PUBLISH, flags,
                    number(static_cast<std::uint16_t>(topic.size())) + topic + id + payload);
}

std::string acknowledgement(PacketType type, std::uint16_t mid) {
    return packetOf(type, type == PacketType::PUBREL ? 2 : 0, number(mid));
}

std::string suback(std::uint16_t mid, std::vector<std::uint8_t> const& granted) {
    return packetOf(PacketType::SUBACK, 0,
                    number(mid) + std::string(granted.begin(), granted.end()));
}

std::string pingresp() {
    return packetOf(PacketType::PINGRESP, 0, {});
}

std::ostream& operator<<(std::ostream& out, PacketType type) {
    constexpr std::array<char const*, 15> NAMES{"?",         "CONNECT",  "CONNACK",     "PUBLISH",
                                                "PUBACK",    "PUBREC",   "PUBREL",      "PUBCOMP",
                                                "SUBSCRIBE", "SUBACK",   "UNSUBSCRIBE", "UNSUBACK",
                                                "PINGREQ",   "PINGRESP", "DISCONNECT"};
    auto const index = static_cast<std::size_t>(type);
    return out << (index < NAMES.size() ? NAMES[index] : NAMES[0]);
}

} // namespace support
