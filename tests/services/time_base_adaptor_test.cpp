// The server's side: its replies, and its clock.

#include "services/time_base_fixture.hpp"

#include <cmath>
#include <cstdint>
#include <limits>

namespace {

using testing::ElementsAre;

using mqtt::test::ClockedAdaptor;

class ATimeBaseAdaptor : public SessionOnABroker {
protected:
    ATimeBaseAdaptor() { receiveAll(); }

    void request(std::string const& payload) { peer.publish(topic, payload); }
    Messages replies() {
        receiveAll();
        return messagesWith(seen(), replyTopicFor(topic));
    }

    Uuid const caller = mqtt::test::uniqueId();
    Uuid const server = mqtt::test::uniqueId();
    std::string const topic = "svc/" + server.base64URL() + "/timeSync?\?/" + caller.base64URL();
    Checkpoint checkpoint; ///< in the adaptor's clock
    std::atomic<double> now{1700.25};
    std::unique_ptr<ClockedAdaptor> adaptor =
        std::make_unique<ClockedAdaptor>(*mqtt, "svc", server, [this] {
            checkpoint.pass();
            return now.load();
        });
};

TEST_F(ATimeBaseAdaptor, RepliesWithTheEchoAndItsOwnTime) {
    for (char const* const unreadable :
         {"", "[]", R"({"client": 12.5})", R"({"$reqId": 1})", R"({"$reqId": 1, "client": "1"})"}) {
        request(unreadable);
    }
    request(R"({"$reqId": 7, "client": 12.5})");
    EXPECT_THAT(
        replies(),
        ElementsAre(mqtt::test::Message{
            replyTopicFor(topic),
            "{\n  \"$reqId\": 7,\n  \"$err\": 1,\n  \"client\": 12.5,\n  \"ref\": 1700.25\n}", 2,
            false}));
}

TEST_F(ATimeBaseAdaptor, SetsTheCodeInADirectCall) {
    Code error = SERVICE_ERROR;
    auto const data =
        adaptor->onRequest("any", Uuid::NIL, Uuid::UNKNOWN, mqtt::TimeSyncRequestData(12.5), error);
    EXPECT_NE(dynamic_cast<mqtt::TimeSyncReplyData const*>(data.get()), nullptr);
    EXPECT_EQ(error, Code::SUCCESS);
}

TEST_F(ATimeBaseAdaptor, EndsAfterTheRequestBeingHandledAlsoWhenItIsTerminated) {
    checkpoint.close();
    request(R"({"$reqId": 7, "client": 12.5})");
    ASSERT_TRUE(checkpoint.hasStoppedAThread());
    // It times out, because no thread can read the acknowledgement.
    adaptor->terminate();
    EXPECT_EQ(adaptor->timeBase(), 1700U) << "its clock goes on";
    std::atomic<bool> opened{false};
    BlockingThread destruction([&] {
        adaptor.reset();
        EXPECT_TRUE(opened);
    });
    ASSERT_TRUE(destruction.isBlocked());
    opened = true;
    checkpoint.open();
}

TEST_F(ATimeBaseAdaptor, OffersWholeSecondsOf32BitsOfItsClock) {
    for (auto const& [time, seconds] : {std::pair(1700.999, 1700U),
                                        {0.999, 0U},
                                        {-0.5, 0U},
                                        {-1e300, 0U},
                                        {std::nan(""), 0U},
                                        {4294967294.9, 4294967294U},
                                        {4294967295.0, UINT32_MAX},
                                        {1e300, UINT32_MAX},
                                        {std::numeric_limits<double>::infinity(), UINT32_MAX}}) {
        now = time;
        EXPECT_EQ(adaptor->timeBase(), seconds) << time;
    }
}

/// Without a derived class.
using TheLocalClock = SessionOnABroker;

TEST_F(TheLocalClock, IsMonotonicInMilliseconds) {
    auto const secondsNow = [] {
        using namespace std::chrono;
        auto const now = steady_clock::now().time_since_epoch();
        return static_cast<double>(duration_cast<milliseconds>(now).count()) / 1000.0;
    };
    mqtt::SynchronizedTimeBaseMqttAdaptor const adaptor(*mqtt, "svc", id);
    mqtt::SynchronizedTimeBaseMqttProxy const proxy(*mqtt, "svc", id, nullptr);
    for (int i = 0; i < 100; ++i) {
        double const before = secondsNow();
        double const times[] = {adaptor.localTimeBase(), proxy.localTimeBase()};
        double const after = secondsNow();
        for (double const time : times) {
            EXPECT_EQ(time, std::round(time * 1000.0) / 1000.0) << "no more than milliseconds";
            EXPECT_GE(time, before);
            EXPECT_LE(time, after);
        }
    }
}

} // namespace
