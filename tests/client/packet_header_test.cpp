#include "client/packet_header.hpp"

#include <gtest/gtest.h>

#include <string>

namespace {

using mqtt::PacketHeader;
using mqtt::PacketType;

TEST(APacketHeader, HasALengthOfOneToFourBytes) {
    struct Case {
        std::string bytes;
        std::size_t size;
        std::size_t bodySize;
    };
    for (auto const& [bytes, size, bodySize] :
         {Case{{'\x40', 0}, 2, 0}, Case{"\x40\x7F", 2, 127}, Case{"\x40\x80\x01", 3, 128},
          Case{"\x40\xFF\xFF\x7F", 4, 2'097'151}, Case{"\x40\xFF\xFF\xFF\x7F", 5, 268'435'455},
          Case{"\x40\xFF\xFF\xFF\xFF", 5, 268'435'455}}) {
        SCOPED_TRACE(size);
        auto const header = PacketHeader::of(bytes + "rest");
        ASSERT_TRUE(header);
        EXPECT_EQ(header->size, size);
        EXPECT_EQ(header->bodySize, bodySize);
        EXPECT_EQ(header->packetSize(), size + bodySize);
        EXPECT_FALSE(PacketHeader::of(bytes.substr(0, size - 1))) << "not complete";
    }
}

TEST(APacketHeader, HasATypeAndForAPublicationItsQos) {
    auto const header = PacketHeader::of("\x3D\x05"); // repeated, QoS 2, retained
    ASSERT_TRUE(header);
    EXPECT_EQ(header->type, PacketType::PUBLISH);
    EXPECT_EQ(header->qos, 2);
    EXPECT_EQ(PacketHeader::of("\x50\x02")->type, PacketType::PUBREC);
    EXPECT_EQ(mqtt::numberAt("\x01\xFE\xDC", 1), 0xFEDC);
}

} // namespace
