#include "server_session.hpp"

#include "support/scripted_server.hpp"

#include <gmock/gmock.h>

namespace {

using mqtt::Topic;
using testing::ElementsAre;
using testing::IsEmpty;

/// A server whose subscriptions the test can see.
class TheSubscriptionOfAServer : public testing::Test {
protected:
    using Error = mqtt::MqttClient::Error;
    using Type = support::PacketType;
    using Strings = std::vector<std::string>;

    Strings topicsIn(Type type) {
        EXPECT_EQ(client->publishWait("sent", "", 1, false, 30), Error::SUCCESS);
        Strings result;
        for (auto const& packet : server.received(type)) {
            result.push_back(packet.topic);
        }
        return result;
    }

    support::ScriptedServer server;
    ServerListener listener;
    std::unique_ptr<mqtt::MqttClient> client = support::testClient(server.host(), server.port());
    std::unique_ptr<mqtt::RequestReplyServer> served =
        std::make_unique<mqtt::RequestReplyServer>(*client, "x", Topic(), "n");
};

TEST_F(TheSubscriptionOfAServer, HasAWildcardInTheClientsPlace) {
    EXPECT_THAT(topicsIn(Type::SUBSCRIBE), IsEmpty()) << "not before it is told to serve";
    ASSERT_EQ(served->subscribe(&listener, zym::common::Uuid(), nullptr), Error::SUCCESS);
    EXPECT_THAT(topicsIn(Type::SUBSCRIBE), ElementsAre("x/n?\?/+"));
}

TEST_F(TheSubscriptionOfAServer, EndsWithTheServer) {
    ASSERT_EQ(served->subscribe(&listener, zym::common::Uuid(), nullptr), Error::SUCCESS);
    served.reset();
    EXPECT_THAT(topicsIn(Type::UNSUBSCRIBE), ElementsAre("x/n?\?/+"));
}

TEST_F(TheSubscriptionOfAServer, EndsWithTheServerAlsoWhenThereAreMany) {
    for (auto const& id : {zym::common::Uuid(), zym::common::Uuid(), zym::common::Uuid(7)}) {
        ASSERT_EQ(served->subscribe(&listener, id, nullptr), Error::SUCCESS);
    }
    served.reset();
    EXPECT_THAT(topicsIn(Type::UNSUBSCRIBE),
                testing::UnorderedElementsAre("x/n?\?/+",
                                              "x/" + zym::common::Uuid(7).base64URL() + "/n?\?/+"));
}

} // namespace
