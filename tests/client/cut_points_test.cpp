// Values published to one topic while the publisher's connection is cut, again and again, at
// random points of the QoS 2 handshake. A raw peer that stays connected to the broker receives
// them.

#include "mqtt/test/broker.hpp"
#include "mqtt/test/cut_proxy.hpp"
#include "mqtt/test/raw_peer.hpp"
#include "mqtt/test/test_client.hpp"
#include "support/watchdog.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

using conv::ComState;
using mqtt::MqttClient;
using mqtt::test::Broker;
using mqtt::test::CutProxy;
using mqtt::test::RawPeer;
using Error = MqttClient::Error;
using Payloads = std::vector<std::string>;

constexpr int CUTS = 10;

/// The n-th value. Each has another length, by which it is found in the broker's log.
std::string value(int n) {
    std::string const number = std::to_string(n);
    return number + std::string(10 + static_cast<std::size_t>(n) - number.size(), '.');
}

int numberOf(std::string const& payload) {
    return std::stoi(payload);
}

/// Where one value's handshake stands, as the broker sees it.
enum class Stage {
    OTHER,
    BEFORE_PUBREL, ///< PUBREC is sent
    CUT,           ///< the connection ended then
    LOST ///< by a PUBREL on a later connection: the broker does not know the value any more
};

/// The stages by value. MQTT itself loses those that are `LOST`.
std::map<int, Stage> stagesIn(std::string const& brokersLog, std::string const& clientId) {
    std::map<int, Stage> stages;
    std::map<int, int> values; // by message identifier
    std::istringstream lines(brokersLog);
    for (std::string line; std::getline(lines, line);) {
        auto const has = [&](auto const& text) { return line.find(text) != std::string::npos; };
        auto const numberAfter = [&](std::string const& text) {
            return std::stoi(line.substr(line.find(text) + text.size()));
        };
        if (!has(clientId)) {
            continue;
        }
        if (has("New client connected")) {
            for (auto& [value, stage] : stages) {
                stage = stage == Stage::BEFORE_PUBREL ? Stage::CUT : stage;
            }
        } else if (has("Received PUBLISH")) {
            auto& value = values[numberAfter(", m")];
            value = numberAfter("... (") - 10;
            stages[value] = Stage::OTHER;
        } else if (has("Sending PUBREC")) {
            stages[values[numberAfter("(m")]] = Stage::BEFORE_PUBREL;
        } else if (has("Received PUBREL")) {
            auto& stage = stages[values[numberAfter("Mid: ")]];
            stage = stage == Stage::CUT || stage == Stage::LOST ? Stage::LOST : Stage::OTHER;
        }
    }
    return stages;
}

class ACutConnection : public testing::TestWithParam<unsigned> {
protected:
    ACutConnection() {
        support::Watchdog::limit(std::chrono::seconds(180));
        peer_.subscribe("a", 2);
    }

    static mqtt::test::BrokerOptions withNodelay() {
        mqtt::test::BrokerOptions options;
        options.nodelay = true;
        return options;
    }

    void start(bool persistent) {
        mqtt::test::ClientOptions options;
        options.id = id_;
        options.persistent = persistent;
        options.connection = broker_.connectionOptions();
        client_ = mqtt::test::testClient(proxy_.host(), proxy_.port(), options);
    }

    int random(int low, int high) { return std::uniform_int_distribution<>(low, high)(random_); }

    void publishOne() {
        EXPECT_EQ(client_->publish("a", value(count_), 2, true), Error::SUCCESS);
        ++count_;
    }

    std::size_t bytes(int low, int high) { return static_cast<std::size_t>(random(low, high)); }

    void orderACut(bool onTheNextConnectionToo) {
        // A handshake has more than 20 bytes for the server, and 8 for the client.
        if (random(0, 1) == 0) {
            proxy_.cutCurrentAfter(CutProxy::Direction::TO_SERVER, bytes(1, 200));
        } else {
            proxy_.cutCurrentAfter(CutProxy::Direction::TO_CLIENT, bytes(1, 40));
        }
        if (onTheNextConnectionToo) {
            proxy_.cutNextAfter(CutProxy::Direction::TO_SERVER, bytes(1, 300));
        }
    }

    /// Publishes until the connection is cut within the handshakes of some values, and then some
    /// more values, most of them without a connection. Sometimes the next connection is cut too.
    void publishThroughACut() {
        bool const twice = random(0, 3) == 0;
        int const cuts = proxy_.cuts() + (twice ? 2 : 1);
        orderACut(twice);
        for (int i = 0; i < 6; ++i) {
            publishOne();
        }
        ASSERT_TRUE(mqtt::test::eventually([&] {
            if (proxy_.cuts() >= cuts) {
                return true;
            }
            if (client_->communicationState() == ComState::CONNECTED) {
                publishOne();
            }
            return false;
        }));
        for (int i = random(0, 4); i > 0; --i) {
            publishOne();
        }
    }

    /// Waits for the connection after the last cut: before, the client may not know of the cut.
    bool isConnectedAgain() {
        return proxy_.waitForConnections(proxy_.cuts() + 1)
               && mqtt::test::becomesConnected(*client_);
    }

    void publishThroughAllCuts() {
        for (int i = 0; i < CUTS; ++i) {
            ASSERT_TRUE(isConnectedAgain());
            ASSERT_NO_FATAL_FAILURE(publishThroughACut());
        }
        ASSERT_TRUE(isConnectedAgain());
        // No cut is ordered, so this one cannot be lost.
        EXPECT_EQ(client_->publishWait("a", value(count_), 2, true, 30), Error::SUCCESS);
        ++count_;
        RecordProperty("cuts", proxy_.cuts());
        EXPECT_GE(proxy_.cuts(), CUTS);
        ASSERT_TRUE(peer_.waitFor([&](auto const& all) {
            return !all.empty() && all.back().payload == value(count_ - 1);
        }));
    }

    std::mt19937 random_{GetParam()};
    zym::common::Uuid id_ = mqtt::test::uniqueId();
    Broker broker_{withNodelay()};
    CutProxy proxy_{broker_.port()};
    RawPeer peer_{broker_};
    std::unique_ptr<MqttClient> client_;
    int count_ = 0;
};

INSTANTIATE_TEST_SUITE_P(Seed, ACutConnection, testing::Range(1U, 4U));
INSTANTIATE_TEST_SUITE_P(Long, ACutConnection, testing::Range(4U, 11U));

TEST_P(ACutConnection, NeitherLosesNorRepeatsNorReordersValuesOfAPersistentClient) {
    start(true);
    ASSERT_NO_FATAL_FAILURE(publishThroughAllCuts());
    Payloads all;
    for (int n = 0; n < count_; ++n) {
        all.push_back(value(n));
    }
    EXPECT_EQ(peer_.payloads(), all);
    EXPECT_EQ(mqtt::test::retained(broker_, "a")->payload, value(count_ - 1));
}

TEST_P(ACutConnection, NeitherRepeatsNorReordersValuesOfACleanClientAndLosesThosePastPubrecOnly) {
    start(false);
    ASSERT_NO_FATAL_FAILURE(publishThroughAllCuts());
    auto const payloads = peer_.payloads();
    for (std::size_t i = 1; i < payloads.size(); ++i) {
        EXPECT_LT(numberOf(payloads[i - 1]), numberOf(payloads[i]));
    }
    EXPECT_EQ(mqtt::test::retained(broker_, "a")->payload, value(count_ - 1));
    auto stages = stagesIn(broker_.log(), MqttClient::clientId(id_));
    for (int n = 0; n < count_; ++n) {
        EXPECT_TRUE(stages[n] == Stage::LOST
                    || std::count(payloads.begin(), payloads.end(), value(n)) == 1)
            << "value " << n;
    }
}

} // namespace
