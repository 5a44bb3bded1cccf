#include "support/mqtt_packet.hpp"

#include <gmock/gmock.h>

#include <stdexcept>

namespace {

using support::MqttPacket;
using support::MqttReader;
using support::PacketType;

/// All of a literal, zero bytes too.
template <std::size_t SIZE>
std::string bytes(char const (&literal)[SIZE]) {
    return {literal, SIZE - 1};
}

MqttPacket decoded(std::string const& bytes) {
    MqttReader reader;
    reader.append(bytes.data(), bytes.size());
    auto const packet = reader.next();
    EXPECT_TRUE(packet);
    EXPECT_FALSE(reader.next());
    return packet.value_or(MqttPacket());
}

TEST(APacket, ComesBackAsItWasWritten) {
    MqttPacket const packet =
        decoded(support::publishPacket("a/b", std::string("x\0y", 3), 2, true, 0x1234, true));
    EXPECT_EQ(packet.type, PacketType::PUBLISH);
    EXPECT_EQ(packet.topic, "a/b");
    EXPECT_EQ(packet.payload, std::string("x\0y", 3));
    EXPECT_EQ(packet.qos, 2);
    EXPECT_TRUE(packet.retain);
    EXPECT_TRUE(packet.dup);
    EXPECT_EQ(packet.mid, 0x1234);
}

TEST(APacket, HasNoNumberAtQos0) {
    MqttPacket const packet = decoded(support::publishPacket("a", "payload", 0, false, 7));
    EXPECT_EQ(packet.payload, "payload");
    EXPECT_EQ(packet.mid, 0);
}

TEST(APacket, MayBeLong) {
    for (std::size_t const size : {127U, 128U, 16384U, 300000U}) {
        std::string const payload(size, 'x');
        EXPECT_EQ(decoded(support::publishPacket("a", payload, 1, false, 1)).payload, payload);
    }
}

TEST(APacket, ConnectsWithAWill) {
    MqttPacket const packet = decoded(bytes("\x10\x1a\0\4MQTT\4\x36\0\x1e\0\2id\0\4will\0\4last"));
    EXPECT_EQ(packet.type, PacketType::CONNECT);
    EXPECT_EQ(packet.clientId, "id");
    EXPECT_TRUE(packet.cleanSession);
    EXPECT_EQ(packet.keepAlive, 30);
    EXPECT_TRUE(packet.hasWill);
    EXPECT_EQ(packet.topic, "will");
    EXPECT_EQ(packet.payload, "last");
    EXPECT_EQ(packet.qos, 2);
    EXPECT_TRUE(packet.retain);
}

TEST(APacket, SubscribesToSeveralTopics) {
    MqttPacket const packet = decoded(bytes("\x82\x0c\0\5\0\1a\1\0\3b/#\2"));
    EXPECT_EQ(packet.type, PacketType::SUBSCRIBE);
    EXPECT_EQ(packet.mid, 5);
    EXPECT_EQ(packet.topic, "a");
    EXPECT_EQ(packet.qos, 1);
    EXPECT_THAT(packet.topics, testing::ElementsAre("a", "b/#"));
}

TEST(APacket, AcknowledgesANumber) {
    MqttPacket const packet = decoded(support::acknowledgement(PacketType::PUBREL, 0xFFFE));
    EXPECT_EQ(packet.type, PacketType::PUBREL);
    EXPECT_EQ(packet.mid, 0xFFFE);
}

TEST(APacket, IsReadFromAnyPiecesOfTheStream) {
    std::string const stream = support::publishPacket("a", std::string(200, 'x'), 1, false, 1)
                               + support::pingresp() + support::connack(5);
    MqttReader reader;
    std::vector<PacketType> types;
    for (char const byte : stream) {
        reader.append(&byte, 1);
        while (auto const packet = reader.next()) {
            types.push_back(packet->type);
        }
    }
    EXPECT_THAT(types, testing::ElementsAre(PacketType::PUBLISH, PacketType::PINGRESP,
                                            PacketType::CONNACK));
}

TEST(APacket, IsRefusedWhenItIsTooShortForItsFields) {
    MqttReader reader;
    reader.append("\x30\x03\0\5a", 5);
    EXPECT_THROW(reader.next(), std::runtime_error);
}

TEST(APacket, IsRefusedWithALengthThatNeverEnds) {
    MqttReader reader;
    reader.append("\x30\xff\xff\xff\xff\xff", 6);
    EXPECT_THROW(reader.next(), std::runtime_error);
}

} // namespace
