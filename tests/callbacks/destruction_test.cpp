// The destruction of objects during their calls, and while threads wait in their operations, as the
// guide's second table has it.

#include "callback_test.hpp"

#include "requestreply/sleeper.hpp"

#include <deque>
#include <functional>

namespace {

using Binder = zym::common::Binder;
using Code = mqtt::RequestReply::ErrorCode;
using Error = mqtt::MqttClient::Error;
using conv::SecondsDuration;
using std::chrono::milliseconds;

/// Long enough to see that something does not happen; a correct object never fails for it.
constexpr milliseconds OBSERVATION_TIME{100};

/// The destruction of an object waits for the end of a call that it makes.
class DestroyedDuringACall : public testing::Test {
protected:
    ~DestroyedDuringACall() override { EXPECT_TRUE(inside_.copy()) << "nothing was called"; }

    /// To be called in every call of the object.
    void insideTheCall() {
        set(inside_);
        EXPECT_FALSE(destroyed_.waitFor(support::isSet, OBSERVATION_TIME))
            << "destroyed in the middle of a call";
    }
    void hook() {
        t.events.setHook([this](std::string const& /*event*/) { insideTheCall(); });
    }
    void publish(std::string const& below, std::string const& payload) {
        EXPECT_EQ(t.client->publish(t.topic(below), payload, 0, false), Error::SUCCESS);
    }
    template <class Object>
    void destroy(std::unique_ptr<Object>& object) {
        ASSERT_TRUE(inside_.waitFor(support::isSet));
        object.reset();
        set(destroyed_);
    }

private:
    support::Watched<bool> inside_{false};
    support::Watched<bool> destroyed_{false};

protected:
    CallbackTest t; // destroyed first: it calls
};

TEST_F(DestroyedDuringACall, MqttClient) {
    hook();
    EXPECT_EQ(t.client->subscribe(t.topic("x"), &t.events, 1), Error::SUCCESS);
    publish("x", "hello");
    destroy(t.client);
}

TEST_F(DestroyedDuringACall, MqttData) {
    hook();
    EXPECT_EQ(t.objects.makeEndpoint().subscribe(&t.events, 1), Error::SUCCESS);
    publish("value", R"({"@id": "new"})");
    destroy(t.objects.endpoint);
}

TEST_F(DestroyedDuringACall, RequestReplyClient) {
    hook();
    t.objects.makeRequester("echo");
    EXPECT_EQ(t.objects.request(), Code::PENDING);
    destroy(t.objects.requester);
}

TEST_F(DestroyedDuringACall, RequestReplyServer) {
    hook();
    EXPECT_EQ(t.objects.serve(), Error::SUCCESS);
    publish("service?\?/" + t.objects.id.base64URL(), R"({"$reqId": 1, "number": 7})");
    destroy(t.objects.server);
}

TEST_F(DestroyedDuringACall, SynchronizedTimeBaseMqttProxy) {
    hook();
    EXPECT_TRUE(t.objects.makeTimeProxy().startSync(device().id));
    destroy(t.objects.timeProxy);
}

TEST_F(DestroyedDuringACall, SynchronizedTimeBaseMqttAdaptor) {
    t.objects.makeTimeBase().hook = [this] { insideTheCall(); };
    auto const id = t.objects.id.base64URL();
    publish(id + "/timeSync?\?/" + id, R"({"$reqId": 1, "client": 1.5})");
    destroy(t.objects.timeBase);
}

TEST_F(DestroyedDuringACall, BinderMqttProxy) {
    hook();
    EXPECT_EQ(t.objects.makeBinder().bind(device().id, TIMEOUT_S), Binder::Error::SUCCESS);
    destroy(t.objects.binder);
}

TEST_F(DestroyedDuringACall, TopicCleaner) {
    hook();
    t.peer.publish(t.topic("old"), "old", 2, true);
    t.objects.makeCleaner().clean(t.topic("old"), milliseconds::zero());
    destroy(t.objects.cleaner);
}

TEST_F(DestroyedDuringACall, Timer) {
    hook();
    t.objects.makeTimer();
    t.objects.restartTimer(milliseconds::zero(), true);
    destroy(t.objects.timer);
}

class DestroyedDuringAWait : public testing::Test {
protected:
    /// Destroys the object once all waits have begun; this has to end them.
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

    CallbackTest t;
};

TEST_F(DestroyedDuringAWait, RequestReplyClient) {
    auto& requester = t.objects.makeRequester("nobody");
    EXPECT_EQ(t.objects.request(), Code::PENDING);
    auto const wait = [&] {
        EXPECT_EQ(requester.waitEndOfRequest(SecondsDuration::NO_TIMEOUT), Code::CANCELLED);
    };
    destroy(t.objects.requester, {wait, wait});
    EXPECT_EQ(t.events.count("reply 7"), 1U);
}

TEST_F(DestroyedDuringAWait, SynchronizedTimeBaseMqttProxy) {
    auto& proxy = t.objects.makeTimeProxy();
    destroy(t.objects.timeProxy, {[&] { EXPECT_FALSE(proxy.synchronize(t.objects.id, HOUR_S)); }});
}

TEST_F(DestroyedDuringAWait, BinderMqttProxy) {
    auto& binder = t.objects.makeBinder();
    destroy(t.objects.binder,
            {[&] { EXPECT_EQ(binder.bindSync(t.objects.id, HOUR_S), Binder::Error::CANCELLED); }});
}

TEST_F(DestroyedDuringAWait, ServiceDiscovererMqtt) {
    auto& discoverer = t.objects.makeDiscoverer(t.topic("links"));
    auto const wait = [&] { EXPECT_FALSE(discoverer.discoverSync(HOUR_S, true)); };
    destroy(t.objects.discoverer, {wait, wait});
}

TEST_F(DestroyedDuringAWait, TopicCleaner) {
    auto& cleaner = t.objects.makeCleaner();
    cleaner.clean(t.topic("for ever"), std::chrono::hours(1));
    destroy(t.objects.cleaner, {[&] { EXPECT_TRUE(cleaner.waitAllTasks(std::chrono::hours(1))); }});
}

} // namespace
