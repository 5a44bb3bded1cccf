// What strangers may send: every kind of endpoint is shown every kind of nonsense by the broker,
// and then a good document.

#include "support/broker.hpp"
#include "support/raw_peer.hpp"
#include "support/test_client.hpp"
#include "support/watched.hpp"

#include <mqtt/link.hpp>
#include <mqtt/payloads.hpp>

#include <gmock/gmock.h>

#include <cstddef>
#include <memory>
#include <ostream>
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

/// An endpoint with a value in it, that keeps what its subscriber is told.
template <class T>
class Listening : public MqttData<T>::Subscriber {
public:
    Listening(mqtt::MqttClient& client, T const& before) : endpoint_(client, "a") {
        endpoint_.value = before;
        EXPECT_EQ(endpoint_.subscribe(this, 1), mqtt::MqttClient::Error::SUCCESS);
        // Behind this one on the same connection, so that the broker knows of it by then.
        EXPECT_EQ(client.publishWait("ready", "", 1, false, 30), mqtt::MqttClient::Error::SUCCESS);
    }
    virtual ~Listening() { endpoint_.release(); }
    Listening(Listening const&) = delete;
    Listening& operator=(Listening const&) = delete;

    std::string topic() const { return endpoint_.topicBase().text(); }

    void onMqttData(T const& value, bool empty, int /*id*/) override {
        EXPECT_FALSE(empty);
        told_.change([&](auto& told) { told.push_back(value); });
    }

    /// What it was told, once that is so many values.
    std::vector<T> told(std::size_t count) const {
        EXPECT_TRUE(told_.waitFor([&](auto const& told) { return told.size() >= count; }));
        return told_.copy();
    }

private:
    MqttData<T> endpoint_;
    support::Watched<std::vector<T>> told_;
};

struct Malformed {
    char const* name;
    std::string payload;
};

void PrintTo(Malformed const& malformed, std::ostream* out) {
    *out << malformed.name;
}

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

std::string garbageInside() {
    return R"({"state": 9, "operating": 9, "name": ")" + garbage();
}

Malformed const MALFORMED[] = {
    {"Truncated", R"({"state": 9, "operating": 9, "health": 9, "name": "x", "@id": "x)"},
    {"TruncatedAtOnce", "{"},
    {"OpenAtTheEnd", everyMember("9").substr(0, everyMember("9").size() - 1)},
    {"TrailingBytes", everyMember("9") + "}"},
    {"TwoDocuments", everyMember("9") + everyMember("9")},
    {"Blank", " \n"},
    {"NoJson", "state=9"},
    {"AScalar", "9"},
    {"AText", "\"state\""},
    {"AnArray", "[" + everyMember("9") + "]"},
    {"AnEmptyObject", "{}"},
    {"NestedArrays", nested(100000, "[", "]")},
    {"NestedObjects", nested(100000, "{\"state\":", "}")},
    {"NestedArraysWithoutEnd", std::string(100000, '[')},
    {"NestedInEveryMember", everyMember(nested(100000, "[", "]"))},
    {"ObjectsForValues", everyMember("{}")},
    {"NullForValues", everyMember("{\"a\": null}")},
    {"TrueForValues", everyMember("true")},
    {"FractionsForValues", everyMember("-1.5e400")},
    {"NumbersBelowRange", everyMember("-1")},
    {"NumbersBeyondRange", everyMember("4294967296")},
    {"NumbersFarBeyondRange", everyMember("9" + std::string(1000, '9'))},
    {"LoneHighSurrogates", everyMember(R"("\ud800")")},
    {"LoneLowSurrogates", everyMember(R"("a\udc00b")")},
    {"HalfASurrogatePair", everyMember(R"("\ud800A")")},
    {"UnknownEscapes", everyMember(R"("\x41")")},
    {"ZeroBytes", std::string(5, '\0')},
    {"AZeroByteAtTheEnd", everyMember("9") + std::string(1, '\0')},
    {"AZeroByteInAText", everyMember(std::string("\"a\0b\"", 5))},
    {"AZeroByteForABlank", std::string("{\0\"state\": 9}", 13)},
    {"OneMegabyteOfGarbage", garbage()},
    {"OneMegabyteOfGarbageInside", garbageInside()},
};

class EveryEndpoint : public testing::TestWithParam<Malformed> {
protected:
    /// Sends nonsense and then a good document.
    template <class T>
    void send(Listening<T> const& listening, T const& good) {
        peer_.publish(listening.topic(), GetParam().payload);
        std::string document;
        MqttData<T>::serialize({}, document, good);
        peer_.publish(listening.topic(), document);
    }

    support::Broker broker_{support::BrokerOptions{true, false, false, 0, {}}};
    support::RawPeer peer_{broker_};
    std::unique_ptr<mqtt::MqttClient> client_ = support::testClient(broker_);
};

std::string nameOf(testing::TestParamInfo<Malformed> const& instance) {
    return instance.param.name;
}

INSTANTIATE_TEST_SUITE_P(Shown, EveryEndpoint, testing::ValuesIn(MALFORMED), nameOf);

TEST_P(EveryEndpoint, DoesWhatItsKindDoesAndReadsTheNextDocument) {
    using conv::ComState;
    using conv::UnixTime;
    Listening<CommunicationStatus> communication(*client_, {ComState::CONNECTED, UnixTime(5)});
    Listening<Identification> identification(*client_, {"old", "", "", "", "", "", "", "", "", ""});
    Listening<ServiceStatus> status(*client_, {1, 2});
    send(communication, {ComState::CONNECTING, UnixTime(6)});
    send(identification, {"new", "", "", "", "", "", "", "", "", ""});
    send(status, {3, 4});
    auto const communications = communication.told(2);
    ASSERT_EQ(communications.size(), 2U);
    EXPECT_EQ(communications[0].state, ComState::CONNECTED);
    EXPECT_EQ(communications[0].since.valid, 0);
    EXPECT_EQ(communications[1].state, ComState::CONNECTING);
    EXPECT_EQ(communications[1].since.seconds, 6);
    auto const identifications = identification.told(2);
    ASSERT_EQ(identifications.size(), 2U);
    EXPECT_EQ(identifications[0].uuid, "old");
    EXPECT_EQ(identifications[1].uuid, "new");
    auto const statuses = status.told(1);
    ASSERT_EQ(statuses.size(), 1U);
    EXPECT_EQ(statuses[0].health, 4);
}

TEST_P(EveryEndpoint, OfLinksDropsItAndReadsTheNextDocument) {
    Listening<Link> link(*client_, {"old"});
    send(link, {"new"});
    auto const links = link.told(1);
    ASSERT_EQ(links.size(), 1U);
    EXPECT_EQ(links[0].id, "new");
}

TEST_P(EveryEndpoint, OfCollectionsDropsItAndReadsTheNextDocument) {
    Listening<Links> collection(*client_, {{"old"}});
    send(collection, {{"x"}, {"y"}});
    auto const collections = collection.told(1);
    ASSERT_EQ(collections.size(), 1U);
    ASSERT_EQ(collections[0].size(), 2U);
    EXPECT_EQ(collections[0][1].id, "y");
}

} // namespace
