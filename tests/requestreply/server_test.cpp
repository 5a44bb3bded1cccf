#include "requestreply/server_fixture.hpp"

#include <stdexcept>

namespace {

using mqtt::Topic;
using mqtt::test::isSet;
using mqtt::test::Message;
using testing::ElementsAre;
using testing::IsEmpty;
using Data = ServerListener::Data;

class AServer : public ServerOnABroker {
protected:
    void expectTheNextRequestAnswered() {
        request(1000);
        EXPECT_THAT(replyPayloads(), ElementsAre(reply(1000, 1)));
    }

    void subscribeAgain(Server& server, ServerListener& which) {
        ASSERT_EQ(server.subscribe(&which, Uuid(), mqtt::NO_DATA), Error::SUCCESS);
        awaitAllMessages();
    }

    ServerListener listener;
};

TEST_F(AServer, RepliesOnTheTopicOfEachClient) {
    auto const server = serve(&listener);
    auto const second = Uuid(2).base64URL();
    request(1);
    peer.publish("svc/n?\?/" + second, R"({"$reqId": 2})");
    // An identifier in its long form, too.
    peer.publish("svc/n?\?/" + Uuid(2).to_string(), R"({"$reqId": 3})");
    EXPECT_THAT(replies(), ElementsAre(Message{"svc/n?=/" + CLIENT_ID, reply(1, 1), 2, false},
                                       Message{"svc/n?=/" + second, reply(2, 1), 2, false},
                                       Message{"svc/n?=/" + second, reply(3, 1), 2, false}));
    EXPECT_THAT(mqtt::test::allRetained(broker, "svc/#"), IsEmpty());
}

TEST_F(AServer, GivesItsListenerTheRequestOnItsOwnTopic) {
    listener.setAnswer([](auto const&, auto& error) {
        error = SERVICE_ERROR;
        return nullptr;
    });
    auto const data = std::make_shared<NumberData>();
    Server server(*mqtt, "svc", "a/b", "sync");
    ASSERT_EQ(server.subscribe(&listener, Uuid(), data), Error::SUCCESS);
    EXPECT_EQ(server.requestTopic(), "svc/a/b/sync?\?");
    ASSERT_EQ(server.subscribe(&listener, Uuid(7), data), Error::SUCCESS);
    awaitAllMessages();
    auto const prefix = "svc/" + Uuid(7).base64URL() + "/a/b/sync";
    for (std::string const number : {"5", "6"}) {
        peer.publish(prefix + "?\?/" + CLIENT_ID, R"({"$reqId": 1, "number": )" + number + "}");
    }
    auto const expected = Message{prefix + "?=/" + CLIENT_ID, reply(1, 17), 2, false};
    EXPECT_THAT(replies(), ElementsAre(expected, expected));
    EXPECT_EQ(server.requestTopic(), prefix + "?\?");
    ASSERT_EQ(listener.count(), 2U);
    for (auto const& call : listener.calls()) {
        EXPECT_EQ(call.name, "sync");
        EXPECT_EQ(call.clientUuid, Uuid(1));
        EXPECT_EQ(call.serverUuid, Uuid(7));
        EXPECT_EQ(call.error, Code::SUCCESS) << "whatever the error of the last reply was";
        EXPECT_EQ(call.data, data.get()) << "one object for all requests";
    }
    EXPECT_EQ(data->number, 6U);
}

TEST_F(AServer, WithoutARequestObjectHandsOutTheEmptyPayload) {
    listener.setAnswer([](auto const& data, auto&) {
        EXPECT_EQ(typeid(data), typeid(mqtt::RequestReplyNoData));
        return nullptr;
    });
    auto const server = serve(&listener, nullptr);
    request(R"({"$reqId": 1, "number": 5})");
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(1, 1)));
    EXPECT_EQ(listener.count(), 1U);
}

TEST_F(AServer, WithoutAListenerRepliesNoListener) {
    auto const server = serve(nullptr, std::make_shared<NumberData>());
    request("");
    request(R"({"$reqId": 42, "number": 5})");
    EXPECT_THAT(replyPayloads(), ElementsAre("{\n  \"$reqId\": 42,\n  \"$err\": 4\n}"));
}

TEST_F(AServer, IgnoresWhatIsNoRequest) {
    auto const data = std::make_shared<NumberData>(9);
    auto const server = serve(&listener, data);
    for (auto const* const payload : {"[]", R"({"number": 1})", R"({"$reqId": 1})"}) {
        request(payload);
    }
    peer.publish("svc/n?\?/u1", R"({"$reqId": 1, "number": 1})");
    EXPECT_THAT(replies(), IsEmpty());
    EXPECT_EQ(listener.count(), 0U);
    EXPECT_EQ(data->number, 9U);
    request(R"({"$reqId": 2, "number": 8})");
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(2, 1)));
}

TEST_F(AServer, SendsNoReplyWhenItsListenerOrThePayloadThrows) {
    auto const server = serve(&listener);
    std::vector<ServerListener::Answer> const answers{
        [](auto const&, auto&) -> Data { throw std::runtime_error("no"); },
        [](auto const&, auto&) -> Data { throw 7; },
        [](auto const&, auto&) { return std::make_shared<UnwritableData>(); }};
    for (auto const& answer : answers) {
        listener.setAnswer(answer);
        request(1);
        awaitAllMessages();
    }
    EXPECT_EQ(listener.count(), 3U);
    EXPECT_THAT(replies(), IsEmpty());
    listener.setAnswer({});
    expectTheNextRequestAnswered();
}

TEST_F(AServer, RepliesUnderTheLastLevelOfANameWithASlash) {
    Server server(*mqtt, "svc", Topic(), "a/b");
    ASSERT_EQ(server.subscribe(&listener, Uuid(), mqtt::NO_DATA), Error::SUCCESS);
    EXPECT_EQ(server.requestTopic(), "svc/a/b?\?");
    awaitAllMessages();
    peer.publish("svc/a/b?\?/" + CLIENT_ID, R"({"$reqId": 1})");
    EXPECT_THAT(replies(), ElementsAre(Message{"svc/b?=/" + CLIENT_ID, reply(1, 1), 2, false}));
    ASSERT_EQ(listener.count(), 1U);
    EXPECT_EQ(listener.calls().front().name, "b");
}

TEST_F(AServer, SubscribedTwiceRepliesTwice) {
    auto const server = serve(&listener);
    ServerListener second;
    subscribeAgain(*server, second);
    request(1);
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(1, 1), reply(1, 1)));
    EXPECT_EQ(listener.count(), 0U) << "the second call replaces the first";
    EXPECT_EQ(second.count(), 2U);
}

TEST_F(AServer, PassesOnThatItCannotBeSubscribed) {
    Server server(*mqtt, "svc/#/y", Topic(), "n");
    EXPECT_EQ(server.subscribe(&listener, Uuid(), mqtt::NO_DATA), Error::INVALID_PARAMETER);
}

/// By either operation.
class AServerThatUnsubscribes : public AServer, public testing::WithParamInterface<bool> {
protected:
    static Error unsubscribe(Server& server) {
        return GetParam() ? server.unsubscribeWait() : server.unsubscribe();
    }

    void expectNoReply() {
        request(1);
        EXPECT_THAT(replies(), IsEmpty());
        EXPECT_EQ(listener.count(), 0U);
    }
};

TEST_P(AServerThatUnsubscribes, ReceivesNothingUntilItSubscribesAgain) {
    auto const server = serve(&listener);
    subscribeAgain(*server, listener);
    EXPECT_EQ(unsubscribe(*server), Error::NOT_FOUND) << "one registration remains";
    expectNoReply();
    EXPECT_EQ(unsubscribe(*server), Error::SUCCESS);
    EXPECT_EQ(unsubscribe(*server), Error::NOT_FOUND);
    expectNoReply();
    subscribeAgain(*server, listener);
    expectTheNextRequestAnswered();
}

TEST_P(AServerThatUnsubscribes, DoesNotCallItsListenerForARequestBeingDispatched) {
    using Receiver = mqtt::MqttData<Server::Request>::Subscriber*;
    Server::Request dispatched;
    dispatched.name = "n";
    dispatched.clientUuid = Uuid(1);
    dispatched.requestId = 1;
    auto const server = serve(&listener);
    EXPECT_EQ(unsubscribe(*server), Error::SUCCESS);
    // Only this kind of cast converts to a private base class.
    Receiver(server.get())->onMqttData(dispatched, false, 0);
    EXPECT_EQ(listener.count(), 0U);
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(1, 4)));
}

INSTANTIATE_TEST_SUITE_P(Of, AServerThatUnsubscribes, testing::Bool(), [](auto const& instance) {
    return instance.param ? "AndWaits" : "AtOnce";
});

// The end of a server; a sanitizer sees some of the defects

class TheEndOfAServer : public ServerOnABroker {
protected:
    ServerListener listener;
    std::unique_ptr<Server> server = serve(&listener);
};

TEST_F(TheEndOfAServer, WaitsForTheRequestBeingHandledAndItsReply) {
    mqtt::test::Watched<bool> entered;
    mqtt::test::Watched<bool> destroyed;
    listener.setAnswer([&](auto const&, auto&) {
        set(entered);
        EXPECT_FALSE(destroyed.waitFor(isSet, OBSERVATION_TIME));
        return std::make_shared<NumberData>(7);
    });
    request(1);
    ASSERT_TRUE(entered.waitFor(isSet));
    server.reset();
    set(destroyed);
    EXPECT_THAT(replyPayloads(),
                ElementsAre("{\n  \"$reqId\": 1,\n  \"$err\": 1,\n  \"number\": 7\n}"));
}

TEST_F(TheEndOfAServer, ComesInsideItsListenersCallWithoutAReply) {
    int calls = 0;
    for (bool const throws : {false, true}) {
        auto own = std::make_unique<ServerListener>();
        server = serve(own.get());
        // Registered twice: the second call does not come.
        ASSERT_EQ(server->subscribe(own.get(), Uuid(), mqtt::NO_DATA), Error::SUCCESS);
        own->setAnswer([&, throws](auto const&, auto&) -> Data {
            ++calls;
            server.reset();
            own.reset();
            if (throws) {
                throw std::runtime_error("no");
            }
            return nullptr;
        });
        request(1);
        request(2);
        EXPECT_THAT(replies(), IsEmpty());
    }
    EXPECT_EQ(calls, 2);
    server = serve(&listener);
    request(3);
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(3, 1)));
}

TEST_F(TheEndOfAServer, IsNotAnUnsubscriptionInsideItsListenersCall) {
    listener.setAnswer([&](auto const&, auto&) {
        EXPECT_EQ(server->unsubscribe(), Error::SUCCESS);
        return nullptr;
    });
    request(1);
    request(2);
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(1, 1))) << "the request being handled";
    EXPECT_EQ(listener.count(), 1U);
}

} // namespace
