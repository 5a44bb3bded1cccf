#include "support/class_layout/class_layout.hpp"

#include <gmock/gmock.h>

#include <string>

namespace {

using testing::ElementsAre;

std::string const INCLUDE = "#include <mqtt/request_reply.hpp>\n";

TEST(TheSlotsOfARequestReplyClient, AreTheDestructorAndTheCallOfItsSubscriber) {
    auto const tables = support::virtualTables(INCLUDE, "mqtt::RequestReplyClient");
    ASSERT_EQ(tables.size(), 2U);
    EXPECT_THAT(tables[0], ElementsAre("mqtt::RequestReplyClient::~RequestReplyClient",
                                       "mqtt::RequestReplyClient::~RequestReplyClient",
                                       "mqtt::RequestReplyClient::onMqttData"));
    EXPECT_THAT(tables[1], ElementsAre("mqtt::RequestReplyClient::onMqttData"));
}

TEST(TheSlotsOfAReplyListener, AreTheOneCall) {
    auto const tables =
        support::virtualTables(INCLUDE
                                   + "struct Probe : mqtt::RequestReplyClient::Listener {\n"
                                     "    void onReply(unsigned int, std::string const&,\n"
                                     "                 zym::common::Uuid const&,\n"
                                     "                 zym::common::Uuid const&,\n"
                                     "                 mqtt::RequestReplyData const&,\n"
                                     "                 mqtt::RequestReply::ErrorCode) override;\n"
                                     "};\n",
                               "Probe");
    EXPECT_THAT(tables.front(), ElementsAre("Probe::onReply"));
}

} // namespace
