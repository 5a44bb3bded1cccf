#include "mqtt/test/broker.hpp"
#include "mqtt/test/raw_peer.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"
#include "secure/certificates.hpp"

#include <mqtt/connection_options.hpp>
#include <mqtt/log.hpp>
#include <mqtt/test_checks.hpp>
#include <mqtt/topic_cleaner.hpp>

#include <gmock/gmock.h>

#include <atomic>
#include <memory>

namespace {

using conv::ComState;
using mqtt::Credentials;
using mqtt::MqttClient;
using Error = MqttClient::Error;
using Reason = mqtt::Failure::Reason;

constexpr unsigned WAIT_SECONDS = 30;

/// A client, not yet connected, of a broker that wants a password.
class APassword : public testing::Test {
protected:
    static mqtt::ConnectionOptions with(std::string const& password) {
        mqtt::ConnectionOptions options;
        options.credentials = {Certificates::USER, password};
        return options;
    }

    std::unique_ptr<MqttClient> client(mqtt::ConnectionOptions const& options = {}) const {
        return std::make_unique<MqttClient>(mqtt::test::uniqueId(), false, "", broker_.host(),
                                            broker_.port(), false, options);
    }

    Certificates const files_;
    mqtt::test::Broker broker_{[this] {
        mqtt::test::BrokerOptions options;
        options.extraLines = {"allow_anonymous false", "password_file " + files_.passwords()};
        return options;
    }()};
    mqtt::test::StateRecorder states_;
};

TEST_F(APassword, LetsTheClientsOfATestIn) {
    mqtt::test::Address address = broker_;
    EXPECT_THROW(mqtt::test::RawPeer{address}, std::runtime_error);
    address.credentials = with(Certificates::PASSWORD).credentials;
    EXPECT_NO_THROW(mqtt::test::testClient(address));
    EXPECT_NO_THROW(mqtt::test::RawPeer{address});
}

TEST_F(APassword, FromAFunctionIsAskedForWithEachAttempt) {
    mqtt::ConnectionOptions options;
    std::atomic<int> calls{0};
    options.credentialsFunction = [&] {
        return Credentials{Certificates::USER, ++calls == 1 ? "old" : Certificates::PASSWORD};
    };
    auto const changing = client(options);
    changing->registerListener(&states_);
    EXPECT_EQ(changing->connect("", -1, WAIT_SECONDS), Error::SUCCESS);
    EXPECT_THAT(
        states_.history(),
        testing::ElementsAre(ComState::CONNECTING, ComState::CONNECTION_LOST, ComState::CONNECTED));
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(changing->lastFailure().reason, Reason::REFUSED_NOT_AUTHORISED);
    changing->unregisterListener(&states_);
}

TEST_F(APassword, IsForgottenWithTheOptions) {
    auto const forgetful = client(with(Certificates::PASSWORD));
    ASSERT_EQ(forgetful->connect("", -1, WAIT_SECONDS), Error::SUCCESS);
    ASSERT_EQ(forgetful->disconnect(WAIT_SECONDS), Error::SUCCESS);
    ASSERT_EQ(forgetful->setOptions({}), Error::SUCCESS);
    forgetful->connect("", -1, 0);
    EXPECT_TRUE(mqtt::test::eventually(
        [&] { return forgetful->lastFailure().reason == Reason::REFUSED_NOT_AUTHORISED; }));
}

TEST_F(APassword, IsUsedByTheClassesThatMakeAClient) {
    auto const options = with(Certificates::PASSWORD);
    auto const publisher = client(options);
    ASSERT_EQ(publisher->connect("", -1, WAIT_SECONDS), Error::SUCCESS);
    ASSERT_EQ(publisher->publishWait("retained", "x", 2, true, WAIT_SECONDS), Error::SUCCESS);
    mqtt::TestCounter counter;
    EXPECT_THROW(mqtt::testTopicClean("retained", counter, broker_.host(), broker_.port(), options),
                 mqtt::test_error);
    mqtt::TopicCleaner cleaner(nullptr, mqtt::test::uniqueId(), broker_.host(), broker_.port(),
                               options);
    cleaner.clean("retained", std::chrono::milliseconds(0));
    EXPECT_TRUE(cleaner.waitAllTasks(mqtt::test::DEADLINE));
    ASSERT_EQ(publisher->publishWait("links", R"({"members@count": 1, "members": [{"@id": "a"}]})",
                                     2, true, WAIT_SECONDS),
              Error::SUCCESS);
    EXPECT_NO_THROW(mqtt::testLinkInCollection("a", "links", "a link", counter, broker_.host(),
                                               broker_.port(), options));
    EXPECT_EQ(counter.failed, 1);
    EXPECT_EQ(counter.passed, 1);
}

} // namespace
