// What the library needs of a broker, or of two that are connected: a device at one of them, a
// panel at the other.
//
// Without these variables of the environment both are at a mosquitto that the test starts:
//   ZYM_TEST_DEVICE, ZYM_TEST_PANEL   host:port, or the path of a unix socket and :0
//   ZYM_TEST_USER                     user name and password, which are the same
//   ZYM_TEST_CA                       the authority's certificate, if the broker uses TLS
// The properties in the report of the test are measurements; scripts/brokers puts them into its
// table.

#include "mqtt/test/broker.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"
#include "requestreply/sample_data.hpp"
#include "support/watchdog.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/connection_options.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/service_discoverer.hpp>
#include <mqtt/time_base.hpp>
#include <mqtt/topic_cleaner.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

using mqtt::MqttClient;
using mqtt::MqttData;
using mqtt::Topic;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using zym::common::Uuid;
using Code = mqtt::RequestReply::ErrorCode;
using Error = MqttClient::Error;

constexpr unsigned WAIT_SECONDS = 10;
constexpr milliseconds WAIT{WAIT_SECONDS * 1000};

std::string variable(char const* name) {
    char const* const value = std::getenv(name);
    return value == nullptr ? "" : value;
}

double millisecondsSince(steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(steady_clock::now() - start).count();
}

struct Address {
    std::string host;
    int port;
};

/// Answers each request with the number in it, if there is one.
class Echo final : public mqtt::RequestReplyServer::Listener {
public:
    std::shared_ptr<mqtt::RequestReplyData>
    onRequest(std::string const& /*name*/, Uuid const& /*client*/, Uuid const& /*server*/,
              mqtt::RequestReplyData const& data, Code& /*error*/) override {
        auto const* const sent = dynamic_cast<NumberData const*>(&data);
        return sent == nullptr ? nullptr : std::make_shared<NumberData>(sent->number);
    }
};

class Conformance : public testing::Test {
protected:
    static constexpr double AHEAD = 10000; ///< seconds that the device's clock is ahead

    Conformance() { support::Watchdog::limit(std::chrono::seconds(120)); }

    class Clock final : public mqtt::SynchronizedTimeBaseMqttAdaptor {
    public:
        using SynchronizedTimeBaseMqttAdaptor::SynchronizedTimeBaseMqttAdaptor;
        ~Clock() override { release(); }
        double localTimeBase() const override {
            return SynchronizedTimeBaseMqttAdaptor::localTimeBase() + AHEAD;
        }
    };

    Address address(char const* name) const {
        auto const text = variable(name);
        if (text.empty()) {
            return {broker_->host(), broker_->port()};
        }
        auto const colon = text.rfind(':');
        return {text.substr(0, colon), std::stoi(text.substr(colon + 1))};
    }

    static mqtt::ConnectionOptions options() {
        mqtt::ConnectionOptions options;
        if (auto const file = variable("ZYM_TEST_CA"); !file.empty()) {
            options.tls.emplace().caFile = file;
        }
        if (auto const user = variable("ZYM_TEST_USER"); !user.empty()) {
            options.credentials = {user, user};
        }
        return options;
    }
    static std::unique_ptr<MqttClient> client(Address const& at, bool connect = true) {
        mqtt::test::ClientOptions const options{false, connect, Uuid::NIL, Conformance::options()};
        return mqtt::test::testClient(at.host, at.port, options);
    }

    /// Subscribes the panel, and waits until what the device publishes there reaches it.
    void subscribePanel(mqtt::test::MessageRecorder& recorder, Topic const& pattern,
                        Topic const& probe) {
        ASSERT_EQ(panel_->subscribe(pattern, &recorder, 0), Error::SUCCESS);
        ASSERT_TRUE(mqtt::test::eventually(
            [&] {
                device_->publishWait(probe, "probe", 1, false, 1);
                return recorder.count() != 0;
            },
            WAIT))
            << "nothing arrives";
        ASSERT_EQ(device_->publishWait(probe, "last probe", 1, false, WAIT_SECONDS),
                  Error::SUCCESS);
        ASSERT_TRUE(recorder.waitForPayload("last probe"));
        recorder.clear();
    }

    /// What a new subscriber of the panel gets: all up to a message that the panel then publishes.
    /// Asks again until the count is this one, as brokers may need time to tell one another.
    std::size_t retained(Topic const& pattern, std::size_t expected) const {
        std::size_t count = 0;
        mqtt::test::eventually(
            [&] {
                mqtt::test::MessageRecorder recorder;
                EXPECT_EQ(panel_->subscribe(pattern, &recorder, 0), Error::SUCCESS);
                panel_->publishWait(base_ + "anything", "", 1, false, WAIT_SECONDS);
                mqtt::test::eventually([&] { return recorder.count() >= std::max(expected, 1UL); },
                                       milliseconds(500));
                count = recorder.count();
                panel_->release(&recorder);
                return count == expected;
            },
            WAIT);
        return count;
    }
    void publishRetained(Topic const& topic) {
        ASSERT_EQ(device_->publishWait(topic, "value", 2, true, WAIT_SECONDS), Error::SUCCESS);
    }

    /// A round trip, or none within two seconds.
    static bool echoes(mqtt::RequestReplyClient& requests, Uuid const& from, unsigned number) {
        auto const reply = std::make_shared<NumberData>();
        return requests.requestWait(from, Uuid::NIL, std::make_shared<NumberData>(number), reply, 2)
                   == Code::SUCCESS
               && reply->number == number;
    }

    static void report(std::string const& name, double value) {
        RecordProperty(name, std::to_string(value));
    }

    std::optional<mqtt::test::Broker> broker_ = [] {
        bool const isOwn = variable("ZYM_TEST_DEVICE").empty();
        return isOwn ? std::make_optional<mqtt::test::Broker>() : std::nullopt;
    }();
    Address const deviceAddress_ = address("ZYM_TEST_DEVICE");
    Address const panelAddress_ = address("ZYM_TEST_PANEL");
    Topic const base_ = Topic("conformance") + mqtt::test::uniqueId();
    std::unique_ptr<MqttClient> device_ = client(deviceAddress_);
    std::unique_ptr<MqttClient> panel_ = client(panelAddress_);
};

// Messages

class ConformanceAtAQos : public Conformance, public testing::WithParamInterface<int> {};

TEST_P(ConformanceAtAQos, MessagesArriveInOrderEachOnce) {
    mqtt::test::MessageRecorder recorder;
    subscribePanel(recorder, base_ + "+/#", base_ + "a/probe");
    constexpr int COUNT = 500;
    std::vector<std::string> sent;
    for (int i = 0; i < COUNT; ++i) {
        sent.push_back(std::to_string(i));
        ASSERT_EQ(device_->publish(base_ + "a/b", sent.back(), GetParam(), false), Error::SUCCESS);
    }
    EXPECT_TRUE(recorder.waitForCount(COUNT));
    EXPECT_EQ(
        device_->publishWait(base_ + "a/c", "end", std::max(1, GetParam()), false, WAIT_SECONDS),
        Error::SUCCESS);
    EXPECT_TRUE(recorder.waitForPayload("end"));
    sent.emplace_back("end");
    EXPECT_EQ(recorder.payloads(), sent);
    panel_->release(&recorder);
}

INSTANTIATE_TEST_SUITE_P(Qos, ConformanceAtAQos, testing::Values(0, 1, 2),
                         testing::PrintToStringParamName());

TEST_F(Conformance, AMessageOf200KilobytesArrives) {
    mqtt::test::MessageRecorder recorder;
    subscribePanel(recorder, base_ + "large", base_ + "large");
    std::string const payload(200000, 'x');
    ASSERT_EQ(device_->publishWait(base_ + "large", payload, 2, false, WAIT_SECONDS),
              Error::SUCCESS);
    EXPECT_TRUE(recorder.waitForPayload(payload));
    panel_->release(&recorder);
}

TEST_F(Conformance, ARetainedValueReachesALaterSubscriberUntilItIsErased) {
    publishRetained(base_ + "value");
    EXPECT_EQ(retained(base_ + "value", 1), 1U);
    ASSERT_EQ(device_->clear(base_ + "value"), Error::SUCCESS);
    EXPECT_EQ(retained(base_ + "value", 0), 0U);
}

TEST_F(Conformance, APatternFindsRetainedValues) {
    for (auto const* name : {"x/a", "x/b", "y/a"}) {
        publishRetained(base_ + name);
    }
    EXPECT_EQ(retained(base_ + "+/a", 2), 2U);
    EXPECT_EQ(retained(base_ + "x/#", 2), 2U);
}

TEST_F(Conformance, TheWillOfALostDeviceArrivesAndIsRetained) {
    mqtt::test::MessageRecorder recorder;
    subscribePanel(recorder, base_ + "will", base_ + "will");
    auto lost = client(deviceAddress_, false);
    ASSERT_EQ(lost->setWill(base_ + "will", "lost", 2, true), Error::SUCCESS);
    ASSERT_EQ(lost->connect("", -1, WAIT_SECONDS), Error::SUCCESS);
    lost.reset(); // ends the connection without a DISCONNECT packet
    EXPECT_TRUE(recorder.waitForPayload("lost"));
    EXPECT_EQ(retained(base_ + "will", 1), 1U);
    panel_->release(&recorder);
}

// Requests

TEST_F(Conformance, RequestsInARowAreAnswered) {
    Echo echo;
    mqtt::RequestReplyServer server(*device_, base_, Topic(), "echo");
    ASSERT_EQ(server.subscribe(&echo, Uuid::NIL, std::make_shared<NumberData>()), Error::SUCCESS);
    mqtt::RequestReplyClient requests(*panel_, base_, Topic(), "echo");
    auto const id = mqtt::test::uniqueId();
    ASSERT_TRUE(mqtt::test::eventually([&] { return echoes(requests, id, 1); }, WAIT))
        << "no reply";
    constexpr unsigned COUNT = 200;
    std::vector<double> times;
    unsigned unanswered = 0;
    for (unsigned i = 0; i < COUNT && unanswered < 10; ++i) {
        auto const start = steady_clock::now();
        unanswered += echoes(requests, id, i) ? 0U : 1U;
        times.push_back(millisecondsSince(start));
    }
    std::sort(times.begin(), times.end());
    report("round_trip_ms", times[times.size() / 2]);
    report("unanswered", unanswered);
    EXPECT_LE(unanswered, 1U) << "one shows that a broker confuses subscriptions";
    requests.release();
    server.release();
}

TEST_F(Conformance, ARequestThatNobodyAnswersEndsByItsOwnReply) {
    mqtt::RequestReplyClient requests(*panel_, base_, Topic(), "nobody");
    auto const start = steady_clock::now();
    ASSERT_EQ(requests.request(nullptr, mqtt::test::uniqueId(), Uuid::NIL,
                               std::make_shared<NumberData>(), std::make_shared<NumberData>(),
                               nullptr, 1),
              Code::PENDING);
    EXPECT_EQ(requests.waitEndOfRequest(WAIT_SECONDS), Code::TIMEOUT);
    // Otherwise the client publishes that reply again a second later, or ends without it.
    report("timeout_ms", millisecondsSince(start));
    requests.release();
}

// Services

TEST_F(Conformance, APanelBindsItselfAndReadsTheTime) {
    Echo echo;
    auto const id = mqtt::test::uniqueId();
    mqtt::RequestReplyServer bind(*device_, base_, Topic(), "bind");
    mqtt::RequestReplyServer unbind(*device_, base_, Topic(), "unbind");
    ASSERT_EQ(bind.subscribe(&echo, id, std::make_shared<mqtt::BindRequestData>()), Error::SUCCESS);
    ASSERT_EQ(unbind.subscribe(&echo, id, mqtt::NO_DATA), Error::SUCCESS);
    Clock clock(*device_, base_, id);
    // The broker has handled the subscriptions; otherwise the first exchange takes five seconds.
    device_->publishWait(base_ + "anything", "", 1, false, WAIT_SECONDS);
    mqtt::SynchronizedTimeBaseMqttProxy time(*panel_, base_, mqtt::test::uniqueId(), nullptr);
    ASSERT_TRUE(time.synchronize(id, WAIT_SECONDS));
    // Both clocks are this machine's, so the offset should be the known one.
    report("time_error_ms", 1000 * std::abs(time.offset() + AHEAD));
    using BinderError = zym::common::Binder::Error;
    mqtt::BinderMqttProxy binder(*panel_, base_, Topic(), mqtt::test::uniqueId(), base_ + "panel",
                                 nullptr);
    EXPECT_EQ(binder.bindSync(id, WAIT_SECONDS), BinderError::SUCCESS);
    EXPECT_EQ(binder.unbindSync(WAIT_SECONDS), BinderError::SUCCESS);
    bind.release();
    unbind.release();
}

TEST_F(Conformance, EntitiesAreDiscovered) {
    constexpr int COUNT = 20;
    mqtt::MqttDataCollection<mqtt::Link> links(*device_, base_ + "entities");
    for (int i = 0; i < COUNT; ++i) {
        Topic const entity = base_ + ("entity" + std::to_string(i));
        links.value.push_back({entity.text()});
        MqttData<conv::Identification> identification(*device_, entity);
        identification.value.name = entity.text();
        identification.publishWait();
    }
    links.publishWait();
    mqtt::ServiceDiscovererMqtt discoverer(*panel_, base_ + "entities");
    EXPECT_TRUE(mqtt::test::eventually([&] { return discoverer.discoverSync(2, true); }, WAIT));
    ASSERT_EQ(discoverer.entities().size(), static_cast<std::size_t>(COUNT));
    EXPECT_EQ(discoverer.entities().back().name, links.value.back().id);
}

TEST_F(Conformance, RetainedValuesBelowAPatternAreErased) {
    for (int i = 0; i < 20; ++i) {
        publishRetained(base_ + ("old/" + std::to_string(i)));
    }
    ASSERT_EQ(retained(base_ + "old/#", 20), 20U);
    mqtt::TopicCleaner cleaner(nullptr, mqtt::test::uniqueId(), panelAddress_.host,
                               panelAddress_.port, options());
    cleaner.clean(base_ + "old/#", milliseconds(3000));
    EXPECT_TRUE(cleaner.waitAllTasks(milliseconds(30000)));
    EXPECT_EQ(retained(base_ + "old/#", 0), 0U);
    cleaner.terminate();
}

} // namespace
