#include "support/mqtt_packet.hpp"

#include <stdexcept>

namespace support {

namespace {

/// Takes the fields of a packet's body in order.
class Body {
public:
    explicit Body(std::string bytes) : bytes_(std::move(bytes)) {}

    bool empty() const { return bytes_.empty(); }
    unsigned byte() { return static_cast<unsigned char>(take(1)[0]); }
    std::uint16_t number() {
        unsigned const high = byte();
        return static_cast<std::uint16_t>(high << 8U | byte());
    }
    std::string text() { return take(number()); }
    std::string rest() { return take(bytes_.size()); }

private:
    std::string take(std::size_t count) {
        if (count > bytes_.size()) {
            throw std::runtime_error("MQTT packet is too short");
        }
        std::string taken = bytes_.substr(0, count);
        bytes_.erase(0, count);
        return taken;
    }

    std::string bytes_;
};

void readConnect(MqttPacket& packet, Body& body) {
    body.text(); // "MQTT"
    body.byte(); // protocol level
    unsigned const flags = body.byte();
    packet.cleanSession = (flags & 0x02U) != 0;
    packet.hasWill = (flags & 0x04U) != 0;
    packet.keepAlive = body.number();
    packet.clientId = body.text();
}

void readPublish(MqttPacket& packet, Body& body, unsigned flags) {
    packet.qos = static_cast<int>(flags >> 1U & 3U);
    packet.retain = (flags & 1U) != 0;
    packet.topic = body.text();
    packet.mid = packet.qos > 0 ? body.number() : std::uint16_t{0};
    packet.payload = body.rest();
}

MqttPacket decode(unsigned head, Body body) {
    MqttPacket packet;
    packet.type = static_cast<PacketType>(head >> 4U);
    if (packet.type == PacketType::CONNECT) {
        readConnect(packet, body);
    } else if (packet.type == PacketType::PUBLISH) {
        readPublish(packet, body, head & 0xFU);
    } else if (!body.empty()) { // PINGREQ and DISCONNECT have no body
        packet.mid = body.number();
        packet.topic = body.empty() ? "" : body.text(); // acknowledgements have none
        packet.qos = body.empty() ? 0 : static_cast<int>(body.byte());
    }
    return packet;
}

std::string number(std::size_t value) {
    return {static_cast<char>(value >> 8U), static_cast<char>(value & 0xFFU)};
}

std::string encode(PacketType type, unsigned flags, std::string const& body) {
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

std::optional<MqttPacket> takePacket(std::string& bytes) {
    std::size_t length = 0;
    std::size_t at = 1;
    for (unsigned byte = 128; byte >= 128; ++at) {
        if (at >= bytes.size()) {
            return std::nullopt;
        }
        byte = static_cast<unsigned char>(bytes[at]);
        length |= static_cast<std::size_t>(byte & 127U) << (7 * (at - 1));
    }
    if (bytes.size() < at + length) {
        return std::nullopt;
    }
    auto const head = static_cast<unsigned char>(bytes[0]);
    Body body(bytes.substr(at, length));
    bytes.erase(0, at + length);
    return decode(head, std::move(body));
}

std::string connack(int code) {
    return encode(PacketType::CONNACK, 0, {'\0', static_cast<char>(code)});
}

std::string publishPacket(MqttPacket const& packet) {
    unsigned const flags = static_cast<unsigned>(packet.qos) << 1U | (packet.retain ? 1U : 0U);
    std::string const mid = packet.qos > 0 ? number(packet.mid) : "";
    return encode(PacketType::PUBLISH, flags,
                  number(packet.topic.size()) + packet.topic + mid + packet.payload);
}

std::string answerTo(MqttPacket const& packet) {
    bool const once = packet.qos == 1;
    std::string const mid = number(packet.mid);
    switch (packet.type) {
    case PacketType::CONNECT:
        return connack(0);
    case PacketType::PUBLISH:
        return packet.qos == 0 ? ""
                               : encode(once ? PacketType::PUBACK : PacketType::PUBREC, 0, mid);
    case PacketType::PUBREC:
        return encode(PacketType::PUBREL, 2, mid);
    case PacketType::PUBREL:
        return encode(PacketType::PUBCOMP, 0, mid);
    case PacketType::SUBSCRIBE:
        return encode(PacketType::SUBACK, 0, mid + '\0');
    case PacketType::UNSUBSCRIBE:
        return encode(PacketType::UNSUBACK, 0, mid);
    case PacketType::PINGREQ:
        return encode(PacketType::PINGRESP, 0, "");
    default:
        return "";
    }
}

} // namespace support
