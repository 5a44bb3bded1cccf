#include "client/scripted_session.hpp"

#include "common/awaited_call.hpp"
#include "support/watched.hpp"

#include <gmock/gmock.h>

#include <atomic>

namespace {

using support::Delivery;
using support::isSet;
using support::MessageRecorder;
using support::Watched;
using testing::ElementsAre;
using testing::IsEmpty;

class ARelease : public ScriptedSession {};

TEST_F(ARelease, DropsAllRegistrationsOfASubscriberUntilItSubscribesAgain) {
    subscribe("a", first);
    subscribe("a", first);
    subscribe("b/#", first);
    subscribe("c", second, 2);
    subscribe("c", first);
    client->release(&first);
    client->release(&third); // unknown
    client->release(nullptr);
    sendAll();
    EXPECT_THAT(topicsIn(Type::UNSUBSCRIBE, 1), ElementsAre("a", "b/#"));
    for (char const* const topic : {"a", "b/x", "c"}) {
        send(topic, topic);
    }
    receiveAll();
    EXPECT_THAT(first.deliveries(), IsEmpty());
    EXPECT_THAT(second.deliveries(), ElementsAre(Delivery{2, "c", "c"}));
    for (char const* const topic : {"a", "b/#", "c"}) {
        EXPECT_EQ(client->unsubscribe(topic, &first), Error::NOT_FOUND) << topic;
    }
    subscribe("a", first);
    send("a", "x");
    receiveAll();
    EXPECT_THAT(first.payloads(), ElementsAre("x"));
}

TEST_F(ARelease, WaitsForTheCallUnderWay) {
    AwaitedCall call;
    MessageRecorder slow([&](auto&&...) { call.run(); });
    subscribe("a", slow);
    send("a", "x");
    call.expectToBeAwaitedBy([&] { client->release(&slow); });
}

TEST_F(ARelease, DoesNotWaitForACallToAnotherSubscriber) {
    Watched<bool> entered;
    Watched<bool> released;
    bool inTime = false;
    MessageRecorder slow([&](auto&&...) {
        support::set(entered);
        inTime = released.waitFor(isSet);
    });
    subscribe("a", slow);
    subscribe("a", second);
    send("a", "x");
    ASSERT_TRUE(entered.waitFor(isSet));
    client->release(&second);
    support::set(released);
    client->release(&slow);
    EXPECT_TRUE(inTime);
    receiveAll();
    EXPECT_THAT(second.deliveries(), IsEmpty()) << "it was released before its call";
}

TEST_F(ARelease, LetsASubscriberDestroyItselfInsideItsOwnCall) {
    std::atomic<int> calls{0};
    std::unique_ptr<MessageRecorder> self;
    self = std::make_unique<MessageRecorder>([&](auto&&...) {
        ++calls;
        client->release(self.get());
        self.reset();
    });
    subscribe("a", *self);
    subscribe("b", *self);
    subscribe("a", *self);
    subscribe("a", first);
    send("a", "1");
    send("b", "x");
    send("a", "2");
    receiveAll();
    EXPECT_EQ(self, nullptr);
    EXPECT_EQ(calls, 1);
    EXPECT_THAT(first.payloads(), ElementsAre("1", "2"));
}

} // namespace
