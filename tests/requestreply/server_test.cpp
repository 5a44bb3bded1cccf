#include "malformed.hpp"
#include "sample_data.hpp"
#include "server_session.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <stdexcept>
#include <thread>

namespace {

using mqtt::RequestReplyClient;
using mqtt::Topic;
using support::Message;
using testing::ElementsAre;
using testing::IsEmpty;
using Data = ServerListener::Data;

class AServer : public ServerSession {
protected:
    /// What the listener is asked when the peer asks well.
    void expectTheNextOneAnswered() {
        ask(R"({"$reqId": 1000})");
        EXPECT_THAT(replyPayloads(), ElementsAre(reply(1000, 1)));
    }

    ServerListener listener;
};

TEST_F(AServer, AnswersOnTheTopicOfTheOneWhoAsks) {
    auto const server = serve(&listener);
    peer.publish("x/n?\?/" + Uuid(1).base64URL(), R"({"$reqId": 1})");
    peer.publish("x/n?\?/" + Uuid(2).base64URL(), R"({"$reqId": 2})");
    EXPECT_THAT(replies(),
                ElementsAre(Message{"x/n?=/" + Uuid(1).base64URL(), reply(1, 1), 2, false},
                            Message{"x/n?=/" + Uuid(2).base64URL(), reply(2, 1), 2, false}));
}

TEST_F(AServer, AnswersUnderItsIdentifierAndSubPath) {
    Server server(*client, "svc", "time/zone", "sync");
    ASSERT_EQ(server.subscribe(&listener, Uuid(7), mqtt::NO_DATA), Error::SUCCESS);
    settle();
    auto const prefix = "svc/" + Uuid(7).base64URL() + "/time/zone/sync";
    peer.publish(prefix + "?\?/" + CALLER, R"({"$reqId": 1})");
    EXPECT_THAT(replies(), ElementsAre(Message{prefix + "?=/" + CALLER, reply(1, 1), 2, false}));
    EXPECT_EQ(server.requestTopic(), prefix + "?\?");
}

TEST_F(AServer, LeavesNoReplyWithTheBroker) {
    auto const server = serve(&listener);
    ask(R"({"$reqId": 1})");
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(1, 1)));
    EXPECT_THAT(support::allRetained(broker, "x/#"), IsEmpty());
}

TEST_F(AServer, HearsNoRequestsToOthers) {
    auto const server = serve(&listener);
    for (auto const& topic : {"x/m?\?/" + CALLER, "x/n?=/" + CALLER, "x/n/" + CALLER,
                              "x/" + Uuid(7).base64URL() + "/n?\?/" + CALLER, "n?\?/" + CALLER,
                              "x/n?\?/" + CALLER + "/y", std::string("x/n?\?")}) {
        peer.publish(topic, R"({"$reqId": 1})");
    }
    settle();
    EXPECT_EQ(listener.count(), 0U);
    ask(R"({"$reqId": 2})");
    settle();
    EXPECT_EQ(listener.count(), 1U);
}

TEST_F(AServer, TellsItsListenerWhoAsksWhom) {
    auto const data = std::make_shared<NumberData>();
    Server server(*client, "svc", "time", "sync");
    ASSERT_EQ(server.subscribe(&listener, Uuid(7), data), Error::SUCCESS);
    settle();
    peer.publish("svc/" + Uuid(7).base64URL() + "/time/sync?\?/" + CALLER,
                 R"({"$reqId": 1, "number": 5})");
    settle();
    ASSERT_EQ(listener.count(), 1U);
    auto const asked = listener.asked().front();
    EXPECT_EQ(asked.name, "sync");
    EXPECT_EQ(asked.clientUuid, Uuid(1));
    EXPECT_EQ(asked.serverUuid, Uuid(7));
    EXPECT_EQ(asked.error, ErrorCode::SUCCESS);
    EXPECT_EQ(asked.data, data.get());
    EXPECT_EQ(data->number, 5U);
}

TEST_F(AServer, ReadsEveryRequestIntoTheSameObject) {
    auto const data = std::make_shared<NumberData>();
    auto const server = serve(&listener, data);
    ask(R"({"$reqId": 1, "number": 5})");
    ask(R"({"$reqId": 2, "number": 6})");
    settle();
    ASSERT_EQ(listener.count(), 2U);
    EXPECT_EQ(listener.asked()[0].data, data.get());
    EXPECT_EQ(listener.asked()[1].data, data.get());
    EXPECT_EQ(data->number, 6U);
}

TEST_F(AServer, WithoutARequestObjectHandsOutTheEmptyPayload) {
    ServerListener::Answer const answer = [](auto const& data, auto&) {
        EXPECT_EQ(typeid(data), typeid(mqtt::RequestReplyNoData));
        return nullptr;
    };
    listener.setAnswer(answer);
    auto const server = serve(&listener, nullptr);
    ask(R"({"$reqId": 1, "number": 5})");
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(1, 1)));
    EXPECT_EQ(listener.count(), 1U);
}

TEST_F(AServer, SendsWhatItsListenerReturns) {
    listener.setAnswer([](auto const& data, auto&) {
        auto const number = dynamic_cast<NumberData const&>(data).number;
        return std::make_shared<NumberData>(number + 1);
    });
    auto const server = serve(&listener, std::make_shared<NumberData>());
    ask(R"({"number": 5, "$reqId": 4294967295})");
    EXPECT_THAT(replyPayloads(),
                ElementsAre("{\n  \"$reqId\": 4294967295,\n  \"$err\": 1,\n  \"number\": 6\n}"));
}

TEST_F(AServer, SendsTheErrorOfItsListener) {
    listener.setAnswer([](auto const&, auto& error) {
        error = static_cast<ErrorCode>(17);
        return nullptr;
    });
    auto const server = serve(&listener);
    ask(R"({"$reqId": 42})");
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(42, 17)));
}

TEST_F(AServer, SendsEveryErrorUnchangedAndForgetsItForTheNextRequest) {
    std::atomic<unsigned char> next{0};
    listener.setAnswer([&](auto const&, auto& error) -> Data {
        EXPECT_EQ(error, ErrorCode::SUCCESS);
        error = static_cast<ErrorCode>(next.load());
        return next == 255 ? std::make_shared<NumberData>(7) : Data(mqtt::NO_DATA);
    });
    auto const server = serve(&listener);
    Strings expected;
    for (int const code : {0, 2, 3, 5, 7, 16, 200}) {
        next = static_cast<unsigned char>(code);
        ask(R"({"$reqId": 1})");
        settle();
        expected.push_back(reply(1, code));
    }
    next = 255;
    ask(R"({"$reqId": 1})");
    expected.emplace_back("{\n  \"$reqId\": 1,\n  \"$err\": 255,\n  \"number\": 7\n}");
    EXPECT_EQ(replyPayloads(), expected);
}

TEST_F(AServer, WithoutAListenerAnswersFour) {
    auto const server = serve(nullptr, std::make_shared<NumberData>());
    ask(R"({"$reqId": 42, "number": 5})");
    EXPECT_THAT(replyPayloads(), ElementsAre("{\n  \"$reqId\": 42,\n  \"$err\": 4\n}"));
}

TEST_F(AServer, IgnoresAnEmptyPayload) {
    auto const server = serve(&listener);
    ask("");
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_EQ(listener.count(), 0U);
    expectTheNextOneAnswered();
}

TEST_F(AServer, WithoutAListenerIgnoresAnEmptyPayloadToo) {
    auto const server = serve(nullptr);
    ask("");
    EXPECT_THAT(replies(), IsEmpty());
}

TEST_F(AServer, IgnoresThatARetainedRequestIsErased) {
    peer.publish("x/n?\?/" + CALLER, R"({"$reqId": 1})", 2, true);
    auto const server = serve(&listener);
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(1, 1))) << "it is a request like any other";
    peer.publish("x/n?\?/" + CALLER, "", 2, true);
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(1, 1)));
    EXPECT_EQ(listener.count(), 1U);
}

TEST_F(AServer, IgnoresAnEmptyArrayAndABareNumber) {
    auto const server = serve(&listener);
    ask("[]");
    ask("42");
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_EQ(listener.count(), 0U);
    expectTheNextOneAnswered();
}

TEST_F(AServer, IgnoresWhatIsNoRequest) {
    auto const data = std::make_shared<NumberData>(9);
    auto const server = serve(&listener, data);
    for (auto const& malformed : malformedMessages()) {
        ask(malformed.payload);
    }
    ask(R"({"$reqId": 1})");
    ask(R"({"$reqId": 1, "number": "5"})");
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_EQ(listener.count(), 0U);
    EXPECT_EQ(data->number, 9U);
    ask(R"({"$reqId": 2, "number": 5})");
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(2, 1)));
    EXPECT_EQ(data->number, 5U);
}

TEST_F(AServer, IgnoresHalfACharacterWhereItReadsAText) {
    auto const data = std::make_shared<TextData>("kept");
    auto const server = serve(&listener, data);
    ask(R"({"$reqId": 1, "text": "\ud800"})");
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_EQ(data->text, "kept");
    ask(R"({"$reqId": 2, "text": "\ud83d\ude00"})");
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(2, 1)));
    EXPECT_EQ(data->text, "\xf0\x9f\x98\x80");
}

TEST_F(AServer, IgnoresAnIdentifierThatIsNone) {
    auto const server = serve(&listener);
    for (char const* const text :
         {"u1", "", "AAAAAAAAAAAAAAAAAAAAAR", "AAAAAAAAAAAAAAAAAAAAAQ==", "not even close", "??"}) {
        peer.publish(std::string("x/n?\?/") + text, R"({"$reqId": 1})");
    }
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_EQ(listener.count(), 0U);
    expectTheNextOneAnswered();
}

TEST_F(AServer, AnswersAnIdentifierInLongFormOnTheTopicOfItsShortForm) {
    auto const server = serve(&listener);
    peer.publish("x/n?\?/" + Uuid(1).to_string(), R"({"$reqId": 1})");
    EXPECT_THAT(replies(), ElementsAre(Message{"x/n?=/" + CALLER, reply(1, 1), 2, false}));
}

TEST_F(AServer, SendsNoReplyWhenItsListenerThrows) {
    auto const server = serve(&listener);
    listener.setAnswer([](auto const&, auto&) -> Data { throw std::runtime_error("no"); });
    ask(R"({"$reqId": 1})");
    settle();
    listener.setAnswer([](auto const&, auto&) -> Data { throw 7; });
    ask(R"({"$reqId": 2})");
    settle();
    EXPECT_EQ(listener.count(), 2U);
    EXPECT_THAT(replies(), IsEmpty());
    listener.setAnswer({});
    expectTheNextOneAnswered();
}

TEST_F(AServer, SendsNoReplyWhenThePayloadCannotBeWritten) {
    class Unwritable : public NumberData {
        void serialize(zym::common::lwjson::Serializer&) const override {
            throw std::runtime_error("no");
        }
    };
    auto const server = serve(&listener);
    listener.setAnswer([](auto const&, auto&) { return std::make_shared<Unwritable>(); });
    ask(R"({"$reqId": 1})");
    EXPECT_THAT(replies(), IsEmpty());
    listener.setAnswer({});
    expectTheNextOneAnswered();
}

TEST_F(AServer, KeepsItsEnvelopeWhateverThePayloadWrites) {
    listener.setAnswer([](auto const&, auto& error) {
        error = static_cast<ErrorCode>(17);
        return std::make_shared<MeddlesomeData>();
    });
    auto const server = serve(&listener);
    RequestReplyClient caller(*client, "x", Topic(), "n");
    EXPECT_EQ(caller.requestWait(Uuid(1), Uuid(), mqtt::NO_DATA, mqtt::NO_DATA, 30),
              static_cast<ErrorCode>(17));
}

TEST_F(AServer, AnswersANameWithASlashUnderItsLastLevelOnly) {
    Server server(*client, "x", Topic(), "a/b");
    ASSERT_EQ(server.subscribe(&listener, Uuid(), mqtt::NO_DATA), Error::SUCCESS);
    EXPECT_EQ(server.requestTopic(), "x/a/b?\?");
    settle();
    peer.publish("x/a/b?\?/" + CALLER, R"({"$reqId": 1})");
    EXPECT_THAT(replies(), ElementsAre(Message{"x/b?=/" + CALLER, reply(1, 1), 2, false}));
    ASSERT_EQ(listener.count(), 1U);
    EXPECT_EQ(listener.asked().front().name, "b");
}

TEST_F(AServer, NamesTheBeginningOfItsRequestTopics) {
    Server server(*client, "svc", "a/b", "n");
    ASSERT_EQ(server.subscribe(&listener, Uuid(), mqtt::NO_DATA), Error::SUCCESS);
    EXPECT_EQ(server.requestTopic(), "svc/a/b/n?\?");
    EXPECT_EQ(server.requestTopic().size(), 4U);
    ASSERT_EQ(server.subscribe(&listener, Uuid(7), mqtt::NO_DATA), Error::SUCCESS);
    EXPECT_EQ(server.requestTopic(), "svc/" + Uuid(7).base64URL() + "/a/b/n?\?");
    settle();
    peer.publish("svc/" + Uuid(7).base64URL() + "/a/b/n?\?/" + CALLER, R"({"$reqId": 1})");
    settle();
    EXPECT_EQ(server.requestTopic(), "svc/" + Uuid(7).base64URL() + "/a/b/n?\?");
}

TEST_F(AServer, SubscribedTwiceAnswersTwice) {
    auto const server = serve(&listener);
    ServerListener second;
    ASSERT_EQ(server->subscribe(&second, Uuid(), mqtt::NO_DATA), Error::SUCCESS);
    ask(R"({"$reqId": 1})");
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(1, 1), reply(1, 1)));
    EXPECT_EQ(listener.count(), 0U) << "the second call takes the place of the first";
    EXPECT_EQ(second.count(), 2U);
}

TEST_F(AServer, SubscribedTwiceLeavesNothingBehind) {
    auto server = serve(&listener);
    ASSERT_EQ(server->subscribe(&listener, Uuid(), mqtt::NO_DATA), Error::SUCCESS);
    ASSERT_EQ(server->subscribe(&listener, Uuid(7), mqtt::NO_DATA), Error::SUCCESS);
    settle();
    server.reset();
    ask(R"({"$reqId": 1})");
    peer.publish("x/" + Uuid(7).base64URL() + "/n?\?/" + CALLER, R"({"$reqId": 1})");
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_EQ(listener.count(), 0U);
}

TEST_F(AServer, ThatUnsubscribesHearsNothingAnyMore) {
    auto const server = serve(&listener);
    EXPECT_EQ(server->unsubscribe(), Error::SUCCESS);
    ask(R"({"$reqId": 1})");
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_EQ(listener.count(), 0U);
    EXPECT_EQ(server->unsubscribe(), Error::NOT_FOUND);
}

TEST_F(AServer, ThatUnsubscribesWaitsForTheBrokerWhenToldTo) {
    auto const server = serve(&listener);
    EXPECT_EQ(server->unsubscribeWait(), Error::SUCCESS);
    ask(R"({"$reqId": 1})");
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_EQ(listener.count(), 0U);
    EXPECT_EQ(server->unsubscribeWait(), Error::NOT_FOUND);
}

TEST_F(AServer, ThatUnsubscribesAsksNobodyAboutARequestOnItsWay) {
    using Receiver = mqtt::MqttData<Server::Request>::Subscriber*;
    Server::Request request;
    request.topic = Topic();
    request.name = "n";
    request.clientUuid = Uuid(1);
    for (bool const waits : {false, true}) {
        auto const server = serve(&listener);
        EXPECT_EQ(waits ? server->unsubscribeWait() : server->unsubscribe(), Error::SUCCESS);
        // Read before that, and past all subscriptions. This way of casting alone passes by the
        // privacy of the base.
        request.requestId = waits ? 2 : 1;
        Receiver(server.get())->onMqttData(request, false, 0);
        EXPECT_EQ(listener.count(), 0U);
    }
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(1, 4), reply(2, 4)));
}

TEST_F(AServer, SubscribedTwiceAndUnsubscribedOnceHearsNothing) {
    auto const server = serve(&listener);
    ASSERT_EQ(server->subscribe(&listener, Uuid(), mqtt::NO_DATA), Error::SUCCESS);
    EXPECT_EQ(server->unsubscribe(), Error::NOT_FOUND) << "one registration remains";
    ask(R"({"$reqId": 1})");
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_EQ(listener.count(), 0U);
    EXPECT_EQ(server->unsubscribe(), Error::SUCCESS);
}

TEST_F(AServer, SubscribedTwiceAndUnsubscribedOnceWithWaitingHearsNothing) {
    auto const server = serve(&listener);
    ASSERT_EQ(server->subscribe(&listener, Uuid(), mqtt::NO_DATA), Error::SUCCESS);
    EXPECT_EQ(server->unsubscribeWait(), Error::NOT_FOUND) << "one registration remains";
    ask(R"({"$reqId": 1})");
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_EQ(listener.count(), 0U);
    EXPECT_EQ(server->unsubscribeWait(), Error::SUCCESS);
}

TEST_F(AServer, ThatNeverServedHasNothingToUnsubscribe) {
    Server server(*client, "x", Topic(), "n");
    EXPECT_EQ(server.unsubscribe(), Error::NOT_FOUND);
    EXPECT_EQ(server.unsubscribeWait(), Error::NOT_FOUND);
}

TEST_F(AServer, ServesAgainAfterItHasUnsubscribed) {
    auto const server = serve(&listener);
    ASSERT_EQ(server->unsubscribe(), Error::SUCCESS);
    ASSERT_EQ(server->subscribe(&listener, Uuid(), mqtt::NO_DATA), Error::SUCCESS);
    settle();
    expectTheNextOneAnswered();
}

TEST_F(AServer, PassesOnThatItCannotBeSubscribed) {
    Server server(*client, "x/#/y", Topic(), "n");
    EXPECT_EQ(server.subscribe(&listener, Uuid(), mqtt::NO_DATA), Error::INVALID_PARAMETER);
}

TEST_F(AServer, WithABadNameIsNotMade) {
    EXPECT_THROW(Server(*client, "x", Topic(), "/n"), std::invalid_argument);
}

TEST_F(AServer, AnswersAfterTheConnectionWasLost) {
    auto const server = serve(&listener);
    support::StateRecorder states;
    client->registerListener(&states);
    broker.kill();
    broker.start();
    EXPECT_TRUE(states.waitFor(conv::ComState::CONNECTED));
    client->unregisterListener(&states);
    ASSERT_TRUE(peer.waitForConnectionLoss());
    peer.connect();
    peer.subscribe("#");
    settle();
    expectTheNextOneAnswered();
}

TEST_F(AServer, AnswersACallerOnItsOwnClient) {
    listener.setAnswer([](auto const& data, auto&) {
        return std::make_shared<NumberData>(dynamic_cast<NumberData const&>(data).number * 2);
    });
    auto const server = serve(&listener, std::make_shared<NumberData>());
    RequestReplyClient caller(*client, "x", Topic(), "n");
    for (unsigned int i = 0; i < 20; ++i) {
        auto const answer = std::make_shared<NumberData>();
        EXPECT_EQ(caller.requestWait(Uuid(1), Uuid(), std::make_shared<NumberData>(i), answer, 30),
                  ErrorCode::SUCCESS);
        EXPECT_EQ(answer->number, i * 2);
    }
}

TEST_F(AServer, GivesTwoWhoAskAtOnceTheirOwnReplies) {
    listener.setAnswer([](auto const& data, auto&) {
        return std::make_shared<NumberData>(dynamic_cast<NumberData const&>(data).number + 1);
    });
    auto const server = serve(&listener, std::make_shared<NumberData>());
    constexpr unsigned int ROUNDS = 100;
    auto const askAll = [&](unsigned int first, Uuid const& id) {
        auto const own = support::testClient(broker);
        RequestReplyClient caller(*own, "x", Topic(), "n");
        auto const answer = std::make_shared<NumberData>();
        for (auto i = first; i < first + ROUNDS; ++i) {
            EXPECT_EQ(caller.requestWait(id, Uuid(), std::make_shared<NumberData>(i), answer, 30),
                      ErrorCode::SUCCESS);
            EXPECT_EQ(answer->number, i + 1);
        }
    };
    std::thread one(askAll, 0U, Uuid(1));
    std::thread other(askAll, 1000U, Uuid(2));
    one.join();
    other.join();
    EXPECT_EQ(listener.count(), 2 * ROUNDS);
}

} // namespace
