#include "client/scripted_session.hpp"

#include "support/watched.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

using support::Delivery;
using support::MessageRecorder;
using support::Watched;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

/// Long enough to see that something waits; it never makes a right client fail.
constexpr std::chrono::milliseconds A_WHILE{300};

bool isSet(bool value) {
    return value;
}

void set(Watched<bool>& flag) {
    flag.change([](bool& value) { value = true; });
}

class ARelease : public ScriptedSession {};

TEST_F(ARelease, DropsAllRegistrationsOfASubscriber) {
    subscribe("a", first);
    subscribe("a", first);
    subscribe("b/#", first);
    subscribe("c", second, 2);
    subscribe("c", first);
    client->release(&first);
    for (char const* const topic : {"a", "b/x", "c"}) {
        send(topic, topic);
    }
    receiveAll();
    EXPECT_THAT(first.deliveries(), IsEmpty());
    EXPECT_THAT(second.deliveries(), ElementsAre(Delivery{2, "c", "c"}));
    for (char const* const topic : {"a", "b/#", "c"}) {
        EXPECT_EQ(client->unsubscribe(topic, &first), Error::NOT_FOUND) << topic;
    }
}

TEST_F(ARelease, UnsubscribesAtTheBrokerWhereNobodyIsLeft) {
    subscribe("b", first);
    subscribe("a", first);
    subscribe("a", first);
    subscribe("c", second);
    subscribe("c", first);
    subscribe("d", second);
    client->release(&first);
    sendAll();
    EXPECT_THAT(topicsIn(Type::UNSUBSCRIBE, 1), ElementsAre("a", "b"));
}

TEST_F(ARelease, OfAnUnknownSubscriberChangesNothing) {
    subscribe("a", first);
    client->release(&second);
    send("a", "x");
    receiveAll();
    EXPECT_THAT(first.payloads(), ElementsAre("x"));
}

TEST_F(ARelease, OfNobodyReturnsAtOnce) {
    client->release(nullptr);
}

TEST_F(ARelease, WithoutAConnectionIsRememberedForTheNextOne) {
    subscribe("a", first);
    subscribe("b", second);
    loseConnection();
    client->release(&first);
    ASSERT_TRUE(support::becomesConnected(*client));
    sendAll();
    EXPECT_THAT(topicsIn(Type::SUBSCRIBE, 2), ElementsAre("b"));
    EXPECT_THAT(server.received(Type::UNSUBSCRIBE), IsEmpty());
}

TEST_F(ARelease, WaitsForTheCallUnderWay) {
    Watched<bool> entered;
    Watched<bool> released;
    bool tooEarly = false;
    std::atomic<bool> left{false};
    MessageRecorder slow([&](auto&&...) {
        set(entered);
        tooEarly = released.waitFor(isSet, A_WHILE);
        left = true;
    });
    subscribe("a", slow);
    send("a", "x");
    ASSERT_TRUE(entered.waitFor(isSet));
    client->release(&slow);
    EXPECT_TRUE(left);
    set(released);
    EXPECT_FALSE(tooEarly);
}

TEST_F(ARelease, DoesNotWaitForACallToSomebodyElse) {
    Watched<bool> entered;
    Watched<bool> released;
    bool inTime = false;
    MessageRecorder slow([&](auto&&...) {
        set(entered);
        inTime = released.waitFor(isSet);
    });
    subscribe("a", slow);
    subscribe("a", second);
    send("a", "x");
    ASSERT_TRUE(entered.waitFor(isSet));
    client->release(&second);
    set(released);
    client->release(&slow);
    EXPECT_TRUE(inTime);
    receiveAll();
    EXPECT_THAT(second.deliveries(), IsEmpty()) << "it was released before its turn came";
}

TEST_F(ARelease, InsideTheSubscribersOwnCallDoesNotWait) {
    MessageRecorder self([&](auto&&...) { client->release(&self); });
    subscribe("a", self);
    subscribe("b", self);
    subscribe("a", self);
    send("a", "x");
    send("b", "x");
    receiveAll();
    EXPECT_THAT(self.deliveries(), SizeIs(1));
}

TEST_F(ARelease, OfALaterSubscriberByAnEarlierOneSparesItThisMessageToo) {
    MessageRecorder remover([&](auto&&...) { client->release(&second); });
    subscribe("a", remover);
    subscribe("a", second);
    subscribe("a", third);
    send("a", "x");
    receiveAll();
    EXPECT_THAT(second.deliveries(), IsEmpty());
    EXPECT_THAT(third.payloads(), ElementsAre("x"));
    client->release(&remover);
}

TEST_F(ARelease, OfAnEarlierSubscriberByALaterOneLeavesTheOthersTheirTurn) {
    MessageRecorder remover([&](auto&&...) { client->release(&first); });
    subscribe("a", first);
    subscribe("a", remover);
    subscribe("a", third);
    send("a", "1");
    send("a", "2");
    receiveAll();
    EXPECT_THAT(first.payloads(), ElementsAre("1"));
    EXPECT_THAT(third.payloads(), ElementsAre("1", "2"));
    client->release(&remover);
}

TEST_F(ARelease, LetsASubscriberDestroyItselfInsideItsOwnCall) {
    std::atomic<int> calls{0};
    std::unique_ptr<MessageRecorder> self;
    self = std::make_unique<MessageRecorder>([&](auto&&...) {
        // The hook dies with its recorder: from here on only what lives outside is touched.
        auto& theClient = *client;
        auto& theSelf = self;
        ++calls;
        theClient.release(theSelf.get());
        theSelf.reset();
    });
    subscribe("a", *self);
    subscribe("a", *self);
    subscribe("a", first);
    send("a", "1");
    send("a", "2");
    receiveAll();
    EXPECT_EQ(self, nullptr);
    EXPECT_EQ(calls, 1);
    EXPECT_THAT(first.payloads(), ElementsAre("1", "2"));
}

TEST_F(ARelease, IsNotForEver) {
    subscribe("a", first);
    client->release(&first);
    subscribe("a", first);
    send("a", "x");
    receiveAll();
    EXPECT_THAT(first.payloads(), ElementsAre("x"));
}

TEST_F(ARelease, AfterACallThatThrewDoesNotWait) {
    MessageRecorder thrower([](auto&&...) { throw 1; });
    subscribe("a", thrower);
    send("a", "x");
    ASSERT_TRUE(thrower.waitForCount(1));
    client->release(&thrower);
    receiveAll();
}

} // namespace
