#include "client/scripted_session.hpp"

#include "support/watched.hpp"

#include <gmock/gmock.h>

#include <stdexcept>
#include <thread>

namespace {

using mqtt::Topic;
using support::Delivery;
using support::MessageRecorder;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class ADispatch : public ScriptedSession {};

TEST_F(ADispatch, CallsTheSubscribersInTheOrderOfSubscriptionWithTheirTags) {
    support::Watched<std::vector<int>> tags;
    auto const keep = [&](int tag, auto&&...) {
        tags.change([&](auto& all) { all.push_back(tag); });
    };
    MessageRecorder one(keep);
    MessageRecorder two(keep);
    subscribe("a", two, 7);
    subscribe("a", one, -2147483647 - 1);
    subscribe("a", two, 0);
    subscribe("a", one, 2147483647);
    send("a", "x");
    receiveAll();
    EXPECT_THAT(tags.copy(), ElementsAre(7, -2147483647 - 1, 0, 2147483647));
    client->release(&one);
    client->release(&two);
}

TEST_F(ADispatch, HandsTheMessagesOverInTheOrderOfArrival) {
    subscribe("a/#", first);
    std::vector<std::string> sent;
    for (int i = 0; i < 200; ++i) {
        sent.push_back(std::to_string(i));
        send("a/" + std::to_string(i % 3), sent.back());
    }
    receiveAll();
    EXPECT_EQ(first.payloads(), sent);
}

TEST_F(ADispatch, GivesTheMessagesTopicAndNotThePattern) {
    subscribe("a/#", first, 1);
    send("a/b/c", "x");
    receiveAll();
    EXPECT_THAT(first.deliveries(), ElementsAre(Delivery{1, "a/b/c", "x"}));
}

TEST_F(ADispatch, GivesTheTopicParsed) {
    Strings segments;
    MessageRecorder recorder([&](int, Topic const& topic, auto&&) {
        for (unsigned i = 0; i < topic.size(); ++i) {
            segments.push_back(topic[i]);
        }
    });
    subscribe("#", recorder);
    send("/a//b/", "x");
    receiveAll();
    client->release(&recorder);
    EXPECT_THAT(segments, ElementsAre("a", "", "b"));
}

TEST_F(ADispatch, HandsOverAllBytesOfAPayload) {
    std::string bytes;
    for (int i = 0; i < 512; ++i) {
        bytes.push_back(static_cast<char>(i));
    }
    subscribe("a", first);
    send("a", bytes);
    send("a", std::string(3, '\0'));
    receiveAll();
    EXPECT_THAT(first.payloads(), ElementsAre(bytes, std::string(3, '\0')));
}

TEST_F(ADispatch, HandsOverAnEmptyPayload) {
    subscribe("a", first, 9);
    send("a", "");
    receiveAll();
    EXPECT_THAT(first.deliveries(), ElementsAre(Delivery{9, "a", ""}));
}

TEST_F(ADispatch, HandsOverALargePayload) {
    std::string const large(3'000'000, 'x');
    subscribe("a", first);
    send("a", large);
    receiveAll();
    EXPECT_TRUE(first.payloads() == Strings{large});
}

TEST_F(ADispatch, HidesQualityOfServiceAndRetainFlag) {
    subscribe("a", first, 6);
    ASSERT_TRUE(server.publish("a", "x", 0, true));
    ASSERT_TRUE(server.publish("a", "x", 1, false));
    ASSERT_TRUE(first.waitForCount(2));
    EXPECT_THAT(first.deliveries(), Each(Delivery{6, "a", "x"}));
}

TEST_F(ADispatch, DropsAMessageThatNobodyWants) {
    subscribe("a", first);
    send("b", "x");
    send("a/b", "x");
    receiveAll();
    EXPECT_THAT(first.deliveries(), IsEmpty());
    EXPECT_EQ(client->communicationState(), conv::ComState::CONNECTED);
}

TEST_F(ADispatch, PrefersTheExactEntryToEarlierPatterns) {
    subscribe("#", first);
    subscribe("+/b", second);
    subscribe("a/b", third);
    send("a/b", "exact");
    send("c/b", "pattern");
    receiveAll();
    EXPECT_THAT(third.payloads(), ElementsAre("exact"));
    EXPECT_THAT(first.payloads(), ElementsAre("pattern"));
    EXPECT_THAT(second.payloads(), IsEmpty());
}

TEST_F(ADispatch, ChoosesTheFirstMatchingPatternInByteOrder) {
    // "#" < "+" < "a": registered the other way round.
    subscribe("a/+/c", third);
    subscribe("+/b/c", second);
    subscribe("#", first);
    send("a/b/c", "1");
    receiveAll();
    client->unsubscribe("#", &first);
    send("a/b/c", "2");
    receiveAll();
    client->unsubscribe("+/b/c", &second);
    send("a/b/c", "3");
    receiveAll();
    EXPECT_THAT(first.payloads(), ElementsAre("1"));
    EXPECT_THAT(second.payloads(), ElementsAre("2"));
    EXPECT_THAT(third.payloads(), ElementsAre("3"));
}

TEST_F(ADispatch, PassesOverPatternsThatDoNotMatch) {
    subscribe("+", first);
    subscribe("a/+/d", second);
    subscribe("b/#", third);
    send("b/x/y", "all levels");
    send("b", "the level above");
    send("a/b/c", "nobody's");
    receiveAll();
    EXPECT_THAT(third.payloads(), ElementsAre("all levels"));
    EXPECT_THAT(first.payloads(), ElementsAre("the level above"));
    EXPECT_THAT(second.payloads(), IsEmpty());
}

TEST_F(ADispatch, LooksForTheTopicWithoutOneSeparatorAtEitherEnd) {
    subscribe("a/b", first);
    subscribe("/c", second); // registered as "c"
    for (char const* const topic : {"/a/b", "a/b/", "/a/b/"}) {
        send(topic, topic);
    }
    send("//a/b", "two leading ones");
    send("c/", "c");
    receiveAll();
    EXPECT_THAT(first.deliveries(),
                ElementsAre(Delivery{0, "a/b", "/a/b"}, Delivery{0, "a/b", "a/b/"},
                            Delivery{0, "a/b", "/a/b/"}));
    EXPECT_THAT(second.deliveries(), ElementsAre(Delivery{0, "c", "c"}));
}

TEST_F(ADispatch, GoesOnAfterASubscriberThrows) {
    MessageRecorder standard([](auto&&...) { throw std::runtime_error("on purpose"); });
    MessageRecorder foreign([](auto&&...) { throw 42; });
    subscribe("a", standard);
    subscribe("a", foreign);
    subscribe("a", first);
    send("a", "1");
    send("a", "2");
    receiveAll();
    EXPECT_THAT(first.payloads(), ElementsAre("1", "2"));
    EXPECT_THAT(standard.payloads(), ElementsAre("1", "2"));
    EXPECT_THAT(foreign.payloads(), ElementsAre("1", "2"));
    sendAll();
    client->release(&standard);
    client->release(&foreign);
}

TEST_F(ADispatch, CallsASubscriberThatWasUnsubscribedByAnEarlierOneForThisMessageStill) {
    MessageRecorder remover([&](auto&&...) { client->unsubscribe("a", &second); });
    subscribe("a", remover);
    subscribe("a", second);
    send("a", "1");
    send("a", "2");
    receiveAll();
    EXPECT_THAT(second.payloads(), ElementsAre("1"));
    client->release(&remover);
}

TEST_F(ADispatch, CallsASubscriberThatWasAddedByAnEarlierOneFromTheNextMessageOn) {
    MessageRecorder adder([&](int, auto&&, std::string const& payload) {
        if (payload == "1") {
            subscribe("a", second);
        }
    });
    subscribe("a", adder);
    send("a", "1");
    send("a", "2");
    receiveAll();
    EXPECT_THAT(second.payloads(), ElementsAre("2"));
    client->release(&adder);
}

TEST_F(ADispatch, LetsASubscriberUnsubscribeItself) {
    MessageRecorder once([&](auto&&...) { client->unsubscribe("a", &once); });
    subscribe("a", once);
    send("a", "1");
    send("a", "2");
    receiveAll();
    EXPECT_THAT(once.payloads(), ElementsAre("1"));
    EXPECT_TRUE(server.waitForPackets(Type::UNSUBSCRIBE, 1));
    EXPECT_THAT(topicsIn(Type::UNSUBSCRIBE, 1), testing::Contains("a"));
}

TEST_F(ADispatch, LetsASubscriberSubscribeAndPublish) {
    MessageRecorder busy([&](auto&&...) {
        subscribe("b", second, 2);
        EXPECT_EQ(client->publish("answer/0", "x", 0, false), Error::SUCCESS);
        EXPECT_EQ(client->publish("answer/2", "x", 2, false), Error::SUCCESS);
        EXPECT_EQ(client->clear("kept"), Error::SUCCESS);
    });
    subscribe("a", busy);
    send("a", "x");
    ASSERT_TRUE(server.waitForPackets(Type::PUBLISH, 3));
    EXPECT_THAT(topicsIn(Type::PUBLISH, 1), ElementsAre("answer/0", "answer/2", "kept"));
    EXPECT_THAT(topicsIn(Type::SUBSCRIBE, 1), ElementsAre("a", "b"));
    send("b", "y");
    receiveAll();
    EXPECT_THAT(second.deliveries(), ElementsAre(Delivery{2, "b", "y"}));
    client->release(&busy);
}

TEST_F(ADispatch, LeavesTheClientFreeForOtherThreadsDuringACall) {
    bool reached = false;
    MessageRecorder slow([&](auto&&...) {
        std::thread other([&] {
            subscribe("b", second);
            client->unsubscribe("b", &second);
            client->publish("c", "x", 1, false);
            reached = true;
        });
        other.join(); // for ever, if a lock were held here
    });
    subscribe("a", slow);
    send("a", "x");
    receiveAll();
    client->release(&slow);
    EXPECT_TRUE(reached);
}

TEST_F(ADispatch, HappensOneMessageAtATimeAndOnOneThread) {
    std::vector<std::thread::id> threads;
    MessageRecorder recorder([&](auto&&...) { threads.push_back(std::this_thread::get_id()); });
    subscribe("a", recorder);
    for (int i = 0; i < 20; ++i) {
        send("a", "x");
    }
    receiveAll();
    client->release(&recorder);
    ASSERT_THAT(threads, SizeIs(20));
    EXPECT_THAT(threads, Each(threads.front()));
    EXPECT_NE(threads.front(), std::this_thread::get_id());
}

} // namespace
