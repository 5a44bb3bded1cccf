// A test for every cell of the guide's second table that says that an object may be destroyed
// during its calls, or while others wait in its operations.

#include "stage.hpp"

#include "requestreply/blocking_thread.hpp"
#include "support/watched.hpp"

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

using Binder = zym::common::Binder;
using Code = mqtt::RequestReply::ErrorCode;
using Error = mqtt::MqttClient::Error;
using conv::SecondsDuration;
using std::chrono::milliseconds;

/// Long enough to see that something does not happen; it never makes a right object fail.
constexpr milliseconds A_WHILE{100};

/// Whether the destruction of an object that is in the middle of a call waits for the call's end.
class DestroyedDuringACall : public testing::Test {
protected:
    ~DestroyedDuringACall() override { EXPECT_TRUE(inside_.copy()) << "nothing was called"; }

    /// In every call of the object.
    void insideTheCall() {
        inside_.change([](bool& yes) { yes = true; });
        EXPECT_FALSE(gone_.waitFor([](bool yes) { return yes; }, A_WHILE))
            << "gone in the middle of a call";
    }
    void hook() {
        stage.ear.setHook([this](std::string const& /*event*/) { insideTheCall(); });
    }
    template <class Object>
    void destroy(std::unique_ptr<Object>& object) {
        ASSERT_TRUE(inside_.waitFor([](bool yes) { return yes; }));
        object.reset();
        gone_.change([](bool& yes) { yes = true; });
    }

private:
    support::Watched<bool> inside_{false};
    support::Watched<bool> gone_{false};

protected:
    Stage stage; // the first to go: it calls
};

TEST_F(DestroyedDuringACall, MqttClient) {
    hook();
    EXPECT_EQ(stage.client->subscribe(stage.topic("x"), &stage.ear, 1), Error::SUCCESS);
    EXPECT_EQ(stage.client->publish(stage.topic("x"), "hello", 0, false), Error::SUCCESS);
    destroy(stage.client);
}

TEST_F(DestroyedDuringACall, MqttData) {
    hook();
    EXPECT_EQ(stage.things.makeEndpoint().subscribe(&stage.ear, 1), Error::SUCCESS);
    EXPECT_EQ(stage.client->publish(stage.topic("value"), R"({"@id": "new"})", 0, false),
              Error::SUCCESS);
    destroy(stage.things.endpoint);
}

TEST_F(DestroyedDuringACall, RequestReplyClient) {
    hook();
    stage.things.makeRequester("echo");
    EXPECT_EQ(stage.things.request(), Code::PENDING);
    destroy(stage.things.requester);
}

TEST_F(DestroyedDuringACall, RequestReplyServer) {
    hook();
    EXPECT_EQ(stage.things.serve(), Error::SUCCESS);
    EXPECT_EQ(stage.client->publish(stage.topic("service?\?/" + stage.things.id.base64URL()),
                                    R"({"$reqId": 1, "number": 7})", 0, false),
              Error::SUCCESS);
    destroy(stage.things.server);
}

TEST_F(DestroyedDuringACall, SynchronizedTimeBaseMqttProxy) {
    hook();
    EXPECT_TRUE(stage.things.makeTimeProxy().startSync(world().device));
    destroy(stage.things.timeProxy);
}

TEST_F(DestroyedDuringACall, SynchronizedTimeBaseMqttAdaptor) {
    stage.things.makeTimeBase().whenAsked = [this] { insideTheCall(); };
    EXPECT_EQ(stage.client->publish(stage.topic(stage.things.id.base64URL() + "/timeSync?\?/"
                                                + stage.things.id.base64URL()),
                                    R"({"$reqId": 1, "client": 1.5})", 0, false),
              Error::SUCCESS);
    destroy(stage.things.timeBase);
}

TEST_F(DestroyedDuringACall, BinderMqttProxy) {
    hook();
    EXPECT_EQ(stage.things.makeBinder().bind(world().device, PATIENCE), Binder::Error::SUCCESS);
    destroy(stage.things.binder);
}

TEST_F(DestroyedDuringACall, TopicCleaner) {
    hook();
    stage.peer.publish(stage.topic("dirt"), "old", 2, true);
    stage.things.makeCleaner().clean(stage.topic("dirt"), milliseconds::zero());
    destroy(stage.things.cleaner);
}

TEST_F(DestroyedDuringACall, Timer) {
    hook();
    stage.things.makeTimer();
    stage.things.restartTimer(milliseconds::zero(), true);
    destroy(stage.things.timer);
}

class DestroyedDuringAWait : public testing::Test {
protected:
    /// Destroys the object once all the waits are under way; they then have to end.
    template <class Object>
    static void destroy(std::unique_ptr<Object>& object,
                        std::vector<std::function<void()>> const& waits) {
        std::deque<BlockingThread> sleepers;
        for (auto const& wait : waits) {
            sleepers.emplace_back(wait);
            ASSERT_TRUE(sleepers.back().isBlocked());
        }
        object.reset();
    }

    Stage stage;
};

TEST_F(DestroyedDuringAWait, RequestReplyClient) {
    auto& requester = stage.things.makeRequester("nobody");
    EXPECT_EQ(stage.things.request(), Code::PENDING);
    auto const wait = [&] {
        EXPECT_EQ(requester.waitEndOfRequest(SecondsDuration::NO_TIMEOUT), Code::CANCELLED);
    };
    destroy(stage.things.requester, {wait, wait});
    EXPECT_EQ(stage.ear.count("reply 7"), 1U);
}

TEST_F(DestroyedDuringAWait, SynchronizedTimeBaseMqttProxy) {
    auto& proxy = stage.things.makeTimeProxy();
    destroy(stage.things.timeProxy,
            {[&] { EXPECT_FALSE(proxy.synchronize(stage.things.id, AN_HOUR)); }});
}

TEST_F(DestroyedDuringAWait, BinderMqttProxy) {
    auto& binder = stage.things.makeBinder();
    destroy(stage.things.binder, {[&] {
                EXPECT_EQ(binder.bindSync(stage.things.id, AN_HOUR), Binder::Error::CANCELLED);
            }});
}

TEST_F(DestroyedDuringAWait, ServiceDiscovererMqtt) {
    auto& discoverer = stage.things.makeDiscoverer(stage.topic("links"));
    auto const wait = [&] { EXPECT_FALSE(discoverer.discoverSync(AN_HOUR, true)); };
    destroy(stage.things.discoverer, {wait, wait});
}

TEST_F(DestroyedDuringAWait, TopicCleaner) {
    auto& cleaner = stage.things.makeCleaner();
    cleaner.clean(stage.topic("for ever"), std::chrono::hours(1));
    destroy(stage.things.cleaner,
            {[&] { EXPECT_TRUE(cleaner.waitAllTasks(std::chrono::hours(1))); }});
}

} // namespace
