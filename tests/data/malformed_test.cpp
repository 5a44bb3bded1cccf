// What other programs may send: every kind of endpoint receives every kind of malformed payload,
// and then a good document.

#include "support/broker.hpp"
#include "support/raw_peer.hpp"
#include "support/test_client.hpp"
#include "support/watchdog.hpp"
#include "support/watched.hpp"

#include <mqtt/link.hpp>
#include <mqtt/payloads.hpp>

#include <gmock/gmock.h>

#include <cstddef>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using conv::CommunicationStatus;
using conv::Identification;
using conv::ServiceStatus;
using mqtt::Link;
using mqtt::MqttData;
using Links = std::vector<Link>;

/// A subscribed endpoint with a value, whose subscriber records its values.
template <class T>
class Recorder : public MqttData<T>::Subscriber {
public:
    Recorder(mqtt::MqttClient& client, T const& before) : endpoint_(client, "a") {
        endpoint_.value = before;
        EXPECT_EQ(endpoint_.subscribe(this, 1), mqtt::MqttClient::Error::SUCCESS);
        // Sent behind the subscription: when it has arrived, the subscription stands.
        EXPECT_EQ(client.publishWait("ready", "", 1, false, 30), mqtt::MqttClient::Error::SUCCESS);
    }
    virtual ~Recorder() { endpoint_.release(); }
    Recorder(Recorder const&) = delete;
    Recorder& operator=(Recorder const&) = delete;

    void onMqttData(T const& value, bool empty, int /*id*/) override {
        EXPECT_FALSE(empty);
        values_.change([&](auto& values) { values.push_back(value); });
    }

    /// The values of its subscriber when this payload and then a good document are published.
    std::vector<T> valuesAfter(support::RawPeer& peer, std::string const& payload, T const& good,
                               std::size_t count) {
        auto const topic = endpoint_.topicBase().text();
        std::string document;
        MqttData<T>::serialize({}, document, good);
        peer.publish(topic, payload);
        peer.publish(topic, document);
        EXPECT_TRUE(values_.waitFor([&](auto const& values) { return values.size() >= count; }));
        return values_.copy();
    }

private:
    MqttData<T> endpoint_;
    support::Watched<std::vector<T>> values_;
};

struct Malformed {
    char const* name;
    std::string payload;
};

std::string nested(std::size_t depth, std::string const& open, std::string const& close) {
    std::string text;
    for (std::size_t i = 0; i < depth; ++i) {
        text += open;
    }
    text += "1";
    for (std::size_t i = 0; i < depth; ++i) {
        text += close;
    }
    return text;
}

/// A document with the members of all kinds of endpoints, all with this value.
std::string everyMember(std::string const& value) {
    std::string text = "{";
    for (char const* const key :
         {"state", "since", "uuid", "manufacturer", "model", "serial", "physicalName", "name",
          "interface", "version", "location", "contact", "operating", "health", "@id",
          "members@count", "members"}) {
        text += std::string("\"") + key + "\": " + value + ", ";
    }
    return text + "\"end\": 0}";
}

std::string garbage() {
    std::string bytes(1024 * 1024, '\0');
    std::minstd_rand random(1);
    for (auto& byte : bytes) {
        byte = static_cast<char>(random() % 256);
    }
    return bytes;
}

Malformed const MALFORMED[] = {
    {"Truncated", R"({"state": 9, "operating": 9, "health": 9, "name": "x", "@id": "x)"},
    {"OpenAtTheEnd", everyMember("9").substr(0, everyMember("9").size() - 1)},
    {"TrailingBytes", everyMember("9") + "}"},
    {"TwoDocuments", everyMember("9") + everyMember("9")},
    {"Blank", " \n"},
    {"NoJson", "state=9"},
    {"AScalar", "9"},
    {"AnArray", "[" + everyMember("9") + "]"},
    {"AnEmptyObject", "{}"},
    {"NestedArrays", nested(100000, "[", "]")},
    {"NestedObjects", nested(100000, "{\"state\":", "}")},
    {"NestedInEveryMember", everyMember(nested(100000, "[", "]"))},
    {"ObjectsForValues", everyMember("{\"a\": null}")},
    {"TrueForValues", everyMember("true")},
    {"FractionsForValues", everyMember("-1.5e400")},
    {"NumbersBelowRange", everyMember("-1")},
    {"NumbersFarBeyondRange", everyMember("9" + std::string(1000, '9'))},
    {"HalfASurrogatePair", everyMember(R"("\ud800A")")},
    {"UnknownEscapes", everyMember(R"("\x41")")},
    {"ZeroBytes", std::string(5, '\0')},
    {"AZeroByteInAText", everyMember(std::string("\"a\0b\"", 5))},
    {"OneMegabyteOfGarbage", garbage()},
    {"OneMegabyteOfGarbageInside", R"({"state": 9, "operating": 9, "name": ")" + garbage()},
};

class EveryEndpoint : public testing::Test {
protected:
    EveryEndpoint() { support::Watchdog::limit(std::chrono::minutes(3)); }

    // As shipped, version 2.1 of the broker takes 2,000,000 bytes; the largest payload has more.
    support::Broker broker_{
        support::BrokerOptions{true, false, false, 0, {"max_packet_size 10000000"}}};
    support::RawPeer peer_{broker_};
    std::unique_ptr<mqtt::MqttClient> client_ = support::testClient(broker_);
};

TEST_F(EveryEndpoint, OfAStatusOrIdentificationTakesOverWhatItsKindDoesAndReadsTheNextDocument) {
    using conv::ComState;
    using conv::UnixTime;
    for (auto const& [name, payload] : MALFORMED) {
        SCOPED_TRACE(name);
        Recorder<CommunicationStatus> communication(*client_, {ComState::CONNECTED, UnixTime(5)});
        auto const states =
            communication.valuesAfter(peer_, payload, {ComState::CONNECTING, UnixTime(6)}, 2);
        ASSERT_EQ(states.size(), 2U);
        EXPECT_EQ(states[0].state, ComState::CONNECTED);
        EXPECT_EQ(states[0].since.valid, 0);
        EXPECT_EQ(states[1].state, ComState::CONNECTING);
        EXPECT_EQ(states[1].since.seconds, 6);

        Recorder<Identification> identification(*client_,
                                                {"old", "", "", "", "", "", "", "", "", ""});
        auto const identifications = identification.valuesAfter(
            peer_, payload, {"new", "", "", "", "", "", "", "", "", ""}, 2);
        ASSERT_EQ(identifications.size(), 2U);
        EXPECT_EQ(identifications[0].uuid, "old");
        EXPECT_EQ(identifications[1].uuid, "new");

        Recorder<ServiceStatus> service(*client_, {1, 2});
        auto const statuses = service.valuesAfter(peer_, payload, {3, 4}, 1);
        ASSERT_EQ(statuses.size(), 1U);
        EXPECT_EQ(statuses[0].health, 4);
    }
}

TEST_F(EveryEndpoint, OfLinksDropsThePayloadAndReadsTheNextDocument) {
    for (auto const& [name, payload] : MALFORMED) {
        SCOPED_TRACE(name);
        {
            Recorder<Link> link(*client_, {"old"});
            auto const links = link.valuesAfter(peer_, payload, {"new"}, 1);
            ASSERT_EQ(links.size(), 1U);
            EXPECT_EQ(links[0].id, "new");
        }
        Recorder<Links> collection(*client_, {{"old"}});
        auto const collections = collection.valuesAfter(peer_, payload, {{"x"}, {"y"}}, 1);
        ASSERT_EQ(collections.size(), 1U);
        ASSERT_EQ(collections[0].size(), 2U);
        EXPECT_EQ(collections[0][1].id, "y");
    }
}

} // namespace
