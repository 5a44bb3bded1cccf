// What the library needs of a broker, or of two that are connected: a device at one of them, a
// panel at the other.
//
// Without these variables of the environment both are at a mosquitto that the test starts:
//   ZYM_TEST_DEVICE, ZYM_TEST_PANEL   host:port, or the path of a unix socket and :0
//   ZYM_TEST_USER                     user name and password, which are the same
//   ZYM_TEST_CA                       the authority's certificate, if the broker uses TLS
// scripts/brokers puts the properties in the report of the test, which are measurements, into a
// table, and the last line of a failure, which says what a user sees, into another one.

#include "mqtt/test/broker.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"
#include "mqtt/test/time_base.hpp"
#include "support/watchdog.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/connection_options.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/service.hpp>
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

struct Number {
    unsigned number = 0;
};
ZYM_MQTT_FIELDS(Number, number)

class Conformance : public testing::Test {
protected:
    Conformance() { support::Watchdog::limit(std::chrono::seconds(120)); }

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
        ASSERT_NO_FATAL_FAILURE(publish(probe, "last probe", 1, false));
        ASSERT_TRUE(recorder.waitForPayload("last probe")) << "a message does not arrive";
        recorder.clear();
    }

    /// What a new subscriber of the panel gets: all up to a message that the panel then publishes.
    /// Asks again until the count is this one, as brokers may need time to tell one another.
    void expectRetained(Topic const& pattern, std::size_t expected) const {
        std::size_t count = 0;
        bool const isExpected = mqtt::test::eventually(
            [&] {
                mqtt::test::MessageRecorder recorder;
                EXPECT_EQ(panel_->subscribe(pattern, &recorder, 0), Error::SUCCESS);
                panel_->publishWait(base_ + "anything", "", 1, false, WAIT_SECONDS);
                mqtt::test::eventually(
                    [&] { return recorder.count() >= std::max<std::size_t>(expected, 1); },
                    milliseconds(500));
                count = recorder.count();
                panel_->release(&recorder);
                return count == expected;
            },
            WAIT);
        EXPECT_TRUE(isExpected) << "a new subscriber gets " << count
                                << " retained values in place of " << expected;
    }
    void publish(Topic const& topic, std::string const& payload, int qos, bool retain) const {
        ASSERT_EQ(device_->publishWait(topic, payload, qos, retain, WAIT_SECONDS), Error::SUCCESS)
            << "a publication at QoS " << qos << " is not acknowledged";
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
    EXPECT_TRUE(recorder.waitForCount(COUNT))
        << recorder.count() << " of " << COUNT << " messages arrive";
    publish(base_ + "a/c", "end", std::max(1, GetParam()), false);
    EXPECT_TRUE(recorder.waitForPayload("end")) << "a message does not arrive";
    sent.emplace_back("end");
    EXPECT_EQ(recorder.payloads(), sent) << "messages are doubled or not in order";
    panel_->release(&recorder);
}

INSTANTIATE_TEST_SUITE_P(Qos, ConformanceAtAQos, testing::Values(0, 1, 2),
                         testing::PrintToStringParamName());

TEST_F(Conformance, AMessageOf200KilobytesArrives) {
    mqtt::test::MessageRecorder recorder;
    subscribePanel(recorder, base_ + "large", base_ + "large");
    std::string const payload(200000, 'x');
    ASSERT_NO_FATAL_FAILURE(publish(base_ + "large", payload, 2, false));
    EXPECT_TRUE(recorder.waitForPayload(payload)) << "it does not arrive";
    panel_->release(&recorder);
}

TEST_F(Conformance, ARetainedValueReachesALaterSubscriberUntilItIsErased) {
    ASSERT_NO_FATAL_FAILURE(publish(base_ + "value", "value", 2, true));
    expectRetained(base_ + "value", 1);
    ASSERT_EQ(device_->clear(base_ + "value"), Error::SUCCESS);
    expectRetained(base_ + "value", 0);
}

TEST_F(Conformance, APatternFindsRetainedValues) {
    for (auto const* name : {"x/a", "x/b", "y/a"}) {
        ASSERT_NO_FATAL_FAILURE(publish(base_ + name, "value", 2, true));
    }
    expectRetained(base_ + "+/a", 2);
    expectRetained(base_ + "x/#", 2);
}

TEST_F(Conformance, TheWillOfALostDeviceArrivesAndIsRetained) {
    mqtt::test::MessageRecorder recorder;
    subscribePanel(recorder, base_ + "will", base_ + "will");
    auto lost = client(deviceAddress_, false);
    ASSERT_EQ(lost->setWill(base_ + "will", "lost", 2, true), Error::SUCCESS);
    ASSERT_EQ(lost->connect("", -1, WAIT_SECONDS), Error::SUCCESS);
    lost.reset(); // ends the connection without a DISCONNECT packet
    EXPECT_TRUE(recorder.waitForPayload("lost")) << "the will does not arrive";
    expectRetained(base_ + "will", 1);
    panel_->release(&recorder);
}

// Requests

TEST_F(Conformance, RequestsInARowAreAnswered) {
    mqtt::Service<Number, Number> const echo{base_, "echo"};
    mqtt::Server const server(*device_, echo, mqtt::ServerId(),
                              [](Number const& request) { return request; });
    ASSERT_EQ(server.result(), Error::SUCCESS);
    mqtt::Caller caller(*panel_, echo, mqtt::ClientId(mqtt::test::uniqueId()), mqtt::ServerId());
    auto const answers = [&](unsigned number) {
        auto const reply = caller.callWait({number}, std::chrono::seconds(2));
        return reply && reply->number == number;
    };
    ASSERT_TRUE(mqtt::test::eventually([&] { return answers(1); }, WAIT))
        << "a request gets no reply";
    constexpr unsigned COUNT = 200;
    std::vector<double> times;
    unsigned unanswered = 0;
    for (unsigned i = 0; i < COUNT && unanswered < 10; ++i) {
        auto const start = steady_clock::now();
        unanswered += answers(i) ? 0U : 1U;
        times.push_back(millisecondsSince(start));
    }
    std::sort(times.begin(), times.end());
    report("round_trip_ms", times[times.size() / 2]);
    // One loss tells the client that the broker acknowledges subscriptions out of order.
    EXPECT_LE(unanswered, 1U) << unanswered << " of " << times.size() << " requests get no reply";
}

TEST_F(Conformance, ARequestThatNobodyAnswersEndsByItsOwnReply) {
    mqtt::RequestReplyClient requests(*panel_, base_, Topic(), "nobody");
    ASSERT_EQ(requests.request(nullptr, mqtt::test::uniqueId(), Uuid::NIL, mqtt::NO_DATA,
                               mqtt::NO_DATA, nullptr, 1),
              Code::PENDING);
    // Without that reply the client publishes it again a second later, or ends without it.
    EXPECT_EQ(requests.waitEndOfRequest(WAIT_SECONDS), Code::TIMEOUT) << "the request does not end";
}

// Services

TEST_F(Conformance, APanelBindsItselfAndReadsTheTime) {
    using BinderError = zym::common::Binder::Error;
    using Service = mqtt::Service<mqtt::Nothing, mqtt::Nothing>;
    constexpr double AHEAD = 10000; // seconds that the device's clock is ahead
    auto const id = mqtt::test::uniqueId();
    auto const agree = [](mqtt::Nothing const& request) { return request; };
    mqtt::Server const bind(*device_, Service{base_, "bind"}, mqtt::ServerId(id), agree);
    mqtt::Server const unbind(*device_, Service{base_, "unbind"}, mqtt::ServerId(id), agree);
    mqtt::SynchronizedTimeBaseMqttProxy time(*panel_, base_, mqtt::test::uniqueId(), nullptr);
    // Both clocks are this machine's, so the panel's estimate should be the known offset.
    mqtt::test::ClockedAdaptor const clock(*device_, base_, id,
                                           [&] { return time.localTimeBase() + AHEAD; });
    // The broker has handled the subscriptions; otherwise the first exchange takes five seconds.
    device_->publishWait(base_ + "anything", "", 1, false, WAIT_SECONDS);
    ASSERT_TRUE(time.synchronize(id, WAIT_SECONDS)) << "the panel does not get the time";
    report("time_error_ms", 1000 * std::abs(time.offset() + AHEAD));
    mqtt::BinderMqttProxy binder(*panel_, base_, Topic(), mqtt::test::uniqueId(), base_ + "panel",
                                 nullptr);
    EXPECT_EQ(binder.bindSync(id, WAIT_SECONDS), BinderError::SUCCESS) << "the panel is not bound";
    EXPECT_EQ(binder.unbindSync(WAIT_SECONDS), BinderError::SUCCESS) << "the panel stays bound";
}

TEST_F(Conformance, EntitiesAreDiscovered) {
    constexpr int COUNT = 20;
    mqtt::MqttDataCollection<mqtt::Link> links(*device_, base_ + "entities");
    for (int i = 0; i < COUNT; ++i) {
        Topic const entity = base_ + ("entity" + std::to_string(i));
        links.value.push_back({entity.text()});
        conv::Identification identification;
        identification.name = entity.text();
        mqtt::MqttData<conv::Identification> endpoint(*device_, entity);
        ASSERT_EQ(endpoint.publishWait(identification), Error::SUCCESS)
            << "a publication at QoS 2 is not acknowledged";
    }
    links.publishWait();
    mqtt::ServiceDiscovererMqtt discoverer(*panel_, base_ + "entities");
    ASSERT_TRUE(mqtt::test::eventually([&] { return discoverer.discoverSync(2, true); }, WAIT))
        << "the entities are not found";
    ASSERT_EQ(discoverer.entities().size(), static_cast<std::size_t>(COUNT));
    EXPECT_EQ(discoverer.entities().back().name, links.value.back().id);
}

TEST_F(Conformance, RetainedValuesBelowAPatternAreErased) {
    for (int i = 0; i < 20; ++i) {
        ASSERT_NO_FATAL_FAILURE(publish(base_ + ("old/" + std::to_string(i)), "value", 2, true));
    }
    expectRetained(base_ + "old/#", 20);
    mqtt::TopicCleaner cleaner(nullptr, mqtt::test::uniqueId(), panelAddress_.host,
                               panelAddress_.port, options());
    cleaner.clean(base_ + "old/#", milliseconds(3000));
    EXPECT_TRUE(cleaner.waitAllTasks(milliseconds(30000))) << "the cleaning does not end";
    expectRetained(base_ + "old/#", 0);
    cleaner.terminate();
}

} // namespace
