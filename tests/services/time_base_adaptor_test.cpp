// The server's side: what it answers, and its clock.

#include "requestreply/blocking_thread.hpp"
#include "services/time_base_frame.hpp"
#include "support/recorder.hpp"
#include "support/scripted_server.hpp"

#include <cmath>
#include <cstdint>
#include <limits>

namespace {

using support::PacketType;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

/// An adaptor that offers the test's clock.
class ClockedAdaptor : public mqtt::SynchronizedTimeBaseMqttAdaptor {
public:
    ClockedAdaptor(mqtt::MqttClient& client, zym::common::Uuid const& id, DerivedClock::Read clock)
        : mqtt::SynchronizedTimeBaseMqttAdaptor(client, "svc", id), clock_(std::move(clock)) {}
    ~ClockedAdaptor() override {
        release();
        clock_.expectNoReader();
    }

    double localTimeBase() const override { return clock_.seconds(); }

private:
    DerivedClock clock_;
};

class ATimeBaseAdaptor : public SessionOnABroker {
protected:
    ATimeBaseAdaptor() {
        adaptor = makeAdaptor();
        settle(*mqtt);
    }

    std::unique_ptr<ClockedAdaptor> makeAdaptor() {
        return std::make_unique<ClockedAdaptor>(*mqtt, server, [this] {
            gate.pass();
            return now.load();
        });
    }

    std::string topicTo(Uuid const& whom) const {
        return "svc/" + whom.base64URL() + "/timeSync?\?/" + caller.base64URL();
    }
    void ask(std::string const& payload) { peer.publish(topicTo(server), payload); }

    std::vector<std::string> replies() {
        receiveAll();
        std::vector<std::string> payloads;
        for (auto const& message : seen()) {
            if (message.topic == replyTopicFor(topicTo(server))) {
                payloads.push_back(message.payload);
            }
        }
        return payloads;
    }

    Uuid const caller = support::uniqueId();
    Uuid const server = support::uniqueId();
    Gate gate; ///< in the adaptor's clock
    std::atomic<double> now{1700.25};
    std::unique_ptr<ClockedAdaptor> adaptor;
};

TEST_F(ATimeBaseAdaptor, AnswersWithTheEchoAndItsOwnTime) {
    ask(R"({"$reqId": 7, "client": 12.5})");
    EXPECT_THAT(
        replies(),
        ElementsAre(
            "{\n  \"$reqId\": 7,\n  \"$err\": 1,\n  \"client\": 12.5,\n  \"ref\": 1700.25\n}"));
    for (auto const& message : peer.messages()) {
        EXPECT_EQ(message.qos, 2);
        EXPECT_FALSE(message.retain);
    }
}

TEST_F(ATimeBaseAdaptor, AnswersWhoCallsItDirectlyToo) {
    for (auto const before : {Code::NONE, Code::NO_LISTENER, FAILURE_OF_THE_SERVICE}) {
        Code error = before;
        auto const data = adaptor->onRequest("whatever", Uuid::NIL, Uuid::UNKNOWN,
                                             mqtt::TimeSyncRequestData(12.5), error);
        auto const* const reply = dynamic_cast<mqtt::TimeSyncReplyData const*>(data.get());
        ASSERT_NE(reply, nullptr);
        EXPECT_EQ(reply->client, 12.5);
        EXPECT_EQ(reply->ref, 1700.25);
        EXPECT_EQ(error, Code::SUCCESS);
    }
}

TEST_F(ATimeBaseAdaptor, DropsWhatItCannotReadAndAnswersTheNext) {
    for (std::string const payload :
         {"", "null", "[]", "12.5", R"({"client": 12.5})", R"({"$reqId": 1})",
          R"({"$reqId": 1, "client": "12.5"})", R"({"$reqId": 1, "client": null})",
          R"({"$reqId": 1, "client": [12.5]})", R"({"$reqId": 1, "client": {}})",
          R"({"$reqId": 1, "client": 12.5)", R"([{"$reqId": 1, "client": 12.5}])"}) {
        ask(payload);
    }
    EXPECT_THAT(replies(), IsEmpty());
    ask(R"({"$reqId": 2, "client": 3})");
    EXPECT_THAT(
        replies(),
        ElementsAre(
            "{\n  \"$reqId\": 2,\n  \"$err\": 1,\n  \"client\": 3,\n  \"ref\": 1700.25\n}"));
}

TEST_F(ATimeBaseAdaptor, LeavesTheRequestsToOthersAlone) {
    auto const stranger = support::uniqueId();
    peer.publish(topicTo(stranger), R"({"$reqId": 7, "client": 12.5})");
    peer.publish("svc/timeSync?\?/" + caller.base64URL(), R"({"$reqId": 7, "client": 12.5})");
    receiveAll();
    for (auto const& message : seen()) {
        EXPECT_EQ(message.topic.find("?="), std::string::npos) << message.topic;
    }
}

TEST_F(ATimeBaseAdaptor, AnswersNothingAfterTermination) {
    adaptor->terminate();
    ask(R"({"$reqId": 7, "client": 12.5})");
    EXPECT_THAT(replies(), IsEmpty());
    adaptor->terminate();
    EXPECT_EQ(adaptor->timeBase(), 1700U) << "its clock goes on";
}

TEST_F(ATimeBaseAdaptor, AnswersNothingAfterItsEnd) {
    adaptor.reset();
    ask(R"({"$reqId": 7, "client": 12.5})");
    EXPECT_THAT(replies(), IsEmpty());
}

TEST_F(ATimeBaseAdaptor, EndsAfterTheRequestThatItAnswers) {
    gate.close();
    ask(R"({"$reqId": 7, "client": 12.5})");
    ASSERT_TRUE(gate.stopsSomebody());
    std::atomic<bool> opened{false};
    BlockingThread destruction([&] {
        adaptor.reset();
        EXPECT_TRUE(opened);
    });
    ASSERT_TRUE(destruction.isBlocked());
    opened = true;
    gate.open();
    destruction.join();
}

TEST_F(ATimeBaseAdaptor, EndsAfterThatAlsoWhenItIsTerminatedAlready) {
    gate.close();
    ask(R"({"$reqId": 7, "client": 12.5})");
    ASSERT_TRUE(gate.stopsSomebody());
    // In vain for the broker's acknowledgement: nobody is there to read it.
    adaptor->terminate();
    BlockingThread destruction([&] { adaptor.reset(); });
    EXPECT_TRUE(destruction.isBlocked());
    gate.open();
    destruction.join();
}

TEST_F(ATimeBaseAdaptor, MayEndOnTheWorker) {
    support::Watched<bool> ended;
    support::MessageRecorder ending([&](auto&&...) {
        adaptor.reset();
        ended.change([](bool& value) { value = true; });
    });
    ASSERT_EQ(mqtt->subscribe("ending", &ending, 0), mqtt::MqttClient::Error::SUCCESS);
    settle(*mqtt);
    peer.publish("ending", "now");
    ASSERT_TRUE(ended.waitFor([](bool value) { return value; }));
    ask(R"({"$reqId": 7, "client": 12.5})");
    EXPECT_THAT(replies(), IsEmpty());
    mqtt->release(&ending);
}

TEST_F(ATimeBaseAdaptor, MayEndWithoutABroker) {
    broker.kill();
    ASSERT_TRUE(support::eventually(
        [&] { return mqtt->communicationState() != conv::ComState::CONNECTED; }));
    adaptor.reset();
}

TEST_F(ATimeBaseAdaptor, OffersWholeSecondsOfItsClock) {
    for (auto const& [time, seconds] :
         {std::pair(1700.999, 1700U), std::pair(0.999, 0U), std::pair(4294967294.9, 4294967294U)}) {
        now = time;
        EXPECT_EQ(adaptor->timeBase(), seconds) << time;
    }
}

TEST_F(ATimeBaseAdaptor, OffersNothingBeyondItsBits) {
    for (double const time : {-0.5, -1.0, -1e300, std::nan("")}) {
        now = time;
        EXPECT_EQ(adaptor->timeBase(), 0U) << time;
    }
    for (double const time :
         {4294967295.0, 4294967296.0, 1e300, std::numeric_limits<double>::infinity()}) {
        now = time;
        EXPECT_EQ(adaptor->timeBase(), UINT32_MAX) << time;
    }
}

TEST_F(ATimeBaseAdaptor, GivesItsTimeToAProxy) {
    ClockedProxy proxy(*mqtt, "svc", caller, nullptr, [] { return 100.0; });
    ASSERT_TRUE(proxy.synchronize(server, AN_HOUR));
    EXPECT_NEAR(proxy.offset(), -1600.25, 1e-9);
    EXPECT_EQ(proxy.timeBase(), 1700U);
    EXPECT_EQ(proxy.timeBase(), adaptor->timeBase());
}

class TheTerminationOfATimeBaseAdaptor : public testing::Test {
protected:
    support::ScriptedServer server;
    std::unique_ptr<mqtt::MqttClient> mqtt = support::testClient(server.host(), server.port());
};

TEST_F(TheTerminationOfATimeBaseAdaptor, UnsubscribesOnce) {
    {
        mqtt::SynchronizedTimeBaseMqttAdaptor adaptor(*mqtt, "svc", support::uniqueId());
        adaptor.terminate();
        EXPECT_EQ(server.count(PacketType::UNSUBSCRIBE), 1U);
        adaptor.terminate();
    }
    ASSERT_EQ(mqtt->publishWait("sent", "", 1, false, 30), mqtt::MqttClient::Error::SUCCESS);
    EXPECT_EQ(server.count(PacketType::SUBSCRIBE), 1U);
    EXPECT_EQ(server.count(PacketType::UNSUBSCRIBE), 1U);
}

TEST_F(TheTerminationOfATimeBaseAdaptor, WaitsForTheBroker) {
    mqtt::SynchronizedTimeBaseMqttAdaptor adaptor(*mqtt, "svc", support::uniqueId());
    server.hold(PacketType::UNSUBSCRIBE);
    BlockingThread termination([&] { adaptor.terminate(); });
    ASSERT_TRUE(server.waitForPackets(PacketType::UNSUBSCRIBE, 1));
    EXPECT_TRUE(termination.isBlocked());
    server.release();
    termination.join();
}

/// As it is without a derived class.
class TheLocalClock : public SessionOnABroker {
protected:
    static double millisecondsNow() {
        using namespace std::chrono;
        auto const now = steady_clock::now().time_since_epoch();
        return static_cast<double>(duration_cast<milliseconds>(now).count());
    }

    template <class TimeBase>
    static void expectMonotonicMilliseconds(TimeBase const& timeBase) {
        for (int i = 0; i < 100; ++i) {
            double const before = millisecondsNow();
            double const time = timeBase.localTimeBase();
            double const after = millisecondsNow();
            EXPECT_EQ(time, std::round(time * 1000.0) / 1000.0) << "no more than milliseconds";
            EXPECT_GE(time, before / 1000.0);
            EXPECT_LE(time, after / 1000.0);
        }
    }
};

TEST_F(TheLocalClock, OfAnAdaptorIsMonotonicInMilliseconds) {
    mqtt::SynchronizedTimeBaseMqttAdaptor const adaptor(*mqtt, "svc", id);
    expectMonotonicMilliseconds(adaptor);
}

TEST_F(TheLocalClock, OfAProxyIsMonotonicInMilliseconds) {
    mqtt::SynchronizedTimeBaseMqttProxy const proxy(*mqtt, "svc", id, nullptr);
    expectMonotonicMilliseconds(proxy);
}

} // namespace
