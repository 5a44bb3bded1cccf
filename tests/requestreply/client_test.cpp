#include "requestreply/client_frame.hpp"

#include "requestreply/malformed.hpp"
#include "support/watched.hpp"
#include "support/scripted_server.hpp"

#include <chrono>
#include <stdexcept>

namespace {

using mqtt::NO_DATA;
using support::isSet;
using support::Message;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

/// Answers with a number.
class Listener : public mqtt::RequestReplyServer::Listener {
public:
    virtual ~Listener() = default;

    std::shared_ptr<mqtt::RequestReplyData> onRequest(std::string const&, zym::common::Uuid const&,
                                                      zym::common::Uuid const&,
                                                      mqtt::RequestReplyData const& requestData,
                                                      Code& error) override {
        error = code;
        return std::make_shared<NumberData>(dynamic_cast<NumberData const&>(requestData).number
                                            + 1);
    }

    Code code = Code::SUCCESS;
};

class ARequestReplyClient : public ClientOnABroker {
protected:
    void expectStillPending() { EXPECT_EQ(request(), Code::BUSY); }
};

/// The same with a server on another MQTT client.
class AServedClient : public ARequestReplyClient {
protected:
    AServedClient() {
        EXPECT_EQ(server.subscribe(&listener, Uuid::NIL, std::make_shared<NumberData>()),
                  mqtt::MqttClient::Error::SUCCESS);
        settle(*serversMqtt);
    }

    Listener listener;
    std::unique_ptr<mqtt::MqttClient> serversMqtt = support::testClient(broker);
    mqtt::RequestReplyServer server{*serversMqtt, "svc", "time", "sync"};
};

TEST_F(ARequestReplyClient, SendsARequestWithIdentifierAndPayload) {
    ASSERT_EQ(request(), Code::PENDING);
    auto const payload = "{\n  \"$reqId\": " + std::to_string(requestId) + ",\n  \"number\": 7\n}";
    EXPECT_THAT(seen(), ElementsAre(Message{requestTopic(), payload, 2, false}));
}

TEST_F(ARequestReplyClient, TakesTheIdentifierFromTheSteadyClock) {
    auto const now = [] {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
    };
    auto const before = now();
    ASSERT_EQ(request(), Code::PENDING);
    auto const after = now();
    EXPECT_LE(requestId - static_cast<unsigned int>(before),
              static_cast<unsigned int>(after - before));
}

TEST_F(ARequestReplyClient, NeverTakesAnIdentifierTwice) {
    unsigned int last = 0;
    // Many more than there are milliseconds.
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(request(), Code::PENDING);
        EXPECT_GT(requestId, last);
        last = requestId;
        client->cancel();
        // The next one of the same name gets the replies to the last one too.
        client = makeClient();
    }
}

TEST_F(ARequestReplyClient, PutsTheServersIdentifierIntoBothTopics) {
    auto const serverId = support::uniqueId();
    ASSERT_EQ(client->request(&recorder, id, serverId, nullptr, nullptr, &requestId, AN_HOUR),
              Code::PENDING);
    auto const base = "svc/" + serverId.base64URL() + "/time/sync";
    auto const messages = seen();
    ASSERT_THAT(messages, SizeIs(1));
    EXPECT_EQ(messages[0].topic, base + "?\?/" + id.base64URL());
    peer.publish(base + "?=/" + id.base64URL(), replyText(requestId, 1));
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_EQ(recorder.calls()[0].serverUuid, serverId);
}

TEST_F(ARequestReplyClient, TellsItsListenerWhatTheReplySays) {
    ASSERT_EQ(request(), Code::PENDING);
    reply(replyText(requestId, 17, "\"number\": 8"));
    ASSERT_TRUE(recorder.waitForCount(1));
    auto const call = recorder.calls()[0];
    EXPECT_EQ(call.requestId, requestId);
    EXPECT_EQ(call.name, "sync");
    EXPECT_EQ(call.clientUuid, id);
    EXPECT_EQ(call.serverUuid, Uuid::NIL);
    EXPECT_EQ(call.error, FAILURE_OF_THE_SERVICE);
    EXPECT_EQ(call.data, replyData.get());
    EXPECT_EQ(replyData->number, 8U);
    EXPECT_EQ(client->waitEndOfRequest(AN_HOUR), FAILURE_OF_THE_SERVICE);
}

TEST_F(ARequestReplyClient, RefusesASecondRequestAndSendsNothing) {
    ASSERT_EQ(request(), Code::PENDING);
    unsigned int untouched = 5;
    ReplyRecorder nobody;
    EXPECT_EQ(client->request(&nobody, id, Uuid::NIL, nullptr, nullptr, &untouched, 0), Code::BUSY);
    EXPECT_EQ(requestWait(0), Code::BUSY);
    EXPECT_EQ(untouched, 5U);
    EXPECT_THAT(seen(), SizeIs(1));
    reply(replyText(requestId, 1));
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_THAT(nobody.calls(), IsEmpty());
}

TEST_F(ARequestReplyClient, IgnoresAReplyWithAnotherIdentifier) {
    ASSERT_EQ(request(), Code::PENDING);
    reply(replyText(requestId + 1, 1, "\"number\": 8"));
    reply(replyText(requestId - 1, 3));
    receiveAll();
    expectStillPending();
    reply(replyText(requestId, 17));
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_THAT(recorder.errors(), ElementsAre(FAILURE_OF_THE_SERVICE));
    EXPECT_EQ(replyData->number, 0U) << "the payload of another reply";
}

TEST_F(ARequestReplyClient, ReadsNothingMoreWhenItsRequestHasEnded) {
    // Stands before the client among those who receive the reply, and delays it.
    support::Watched<bool> entered;
    support::Watched<bool> left;
    struct Delay : mqtt::MqttClient::Subscriber {
        explicit Delay(std::function<void()> hook) : hook_(std::move(hook)) {}
        void onMqttMessage(int, mqtt::Topic const&, std::string const&) override { hook_(); }
        std::function<void()> hook_;
    } delay([&] {
        set(entered);
        left.waitFor(isSet);
    });
    ASSERT_EQ(mqtt->subscribe(replyTopic(), &delay, 0), mqtt::MqttClient::Error::SUCCESS);
    ASSERT_EQ(request(), Code::PENDING);
    reply(replyText(requestId, 1, "\"number\": 8"));
    ASSERT_TRUE(entered.waitFor(isSet));
    client->cancel();
    set(left);
    receiveAll();
    EXPECT_EQ(replyData->number, 0U);
    EXPECT_THAT(recorder.errors(), ElementsAre(Code::CANCELLED));
    mqtt->release(&delay);
}

TEST_F(ARequestReplyClient, IgnoresAnEmptyPayloadOnTheReplyTopic) {
    ASSERT_EQ(request(), Code::PENDING);
    reply("");
    receiveAll();
    expectStillPending();
    EXPECT_THAT(recorder.calls(), IsEmpty());
    reply(replyText(requestId, 1));
    EXPECT_TRUE(recorder.waitForCount(1));
}

TEST_F(ARequestReplyClient, IgnoresASecondReply) {
    ASSERT_EQ(request(), Code::PENDING);
    reply(replyText(requestId, 1));
    reply(replyText(requestId, 17));
    receiveAll();
    EXPECT_THAT(recorder.errors(), ElementsAre(Code::SUCCESS));
    EXPECT_EQ(client->waitEndOfRequest(AN_HOUR), Code::SUCCESS);
}

TEST_F(ARequestReplyClient, DropsMalformedRepliesAndTakesTheGoodOne) {
    ASSERT_EQ(request(), Code::PENDING);
    awaitRequest();
    auto const start = "{\"$reqId\": " + std::to_string(requestId);
    for (auto const& malformed : malformedMessages()) {
        peer.post(replyTopic(), malformed.payload);
    }
    for (char const* const error :
         {"", ", \"$err\": 256", ", \"$err\": -1", ", \"$err\": 1.0", ", \"$err\": 1e0",
          ", \"$err\": \"1\"", ", \"$err\": true", ", \"$err\": null", ", \"$err\": {}",
          ", \"$err\": []", ", \"err\": 1", ", \"a\": {\"$err\": 1}",
          ", \"$err\": 1, \"\xed\": ", ", \"$err\": 18446744073709551617", ", \"$err\": 1,"}) {
        peer.post(replyTopic(), start + error + "}");
    }
    peer.post(replyTopic(), start + ", \"$err\": 1");
    peer.post(replyTopic(), "[" + start + ", \"$err\": 1}]");
    peer.waitForAcknowledgements();
    receiveAll();
    expectStillPending();
    EXPECT_THAT(recorder.calls(), IsEmpty());
    reply(replyText(requestId, 17, "\"number\": 9"));
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_THAT(recorder.errors(), ElementsAre(FAILURE_OF_THE_SERVICE));
    EXPECT_EQ(replyData->number, 9U);
}

TEST_F(ARequestReplyClient, DeliversAReplyWhosePayloadCannotBeRead) {
    replyData->number = 5;
    ASSERT_EQ(request(), Code::PENDING);
    reply(replyText(requestId, 200, "\"number\": \"\\ud800\""));
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_THAT(recorder.errors(), ElementsAre(Code{200}));
    EXPECT_EQ(replyData->number, 5U);
}

TEST_F(ARequestReplyClient, TellsNobodyWhereThereIsNoListener) {
    ASSERT_EQ(client->request(nullptr, id, Uuid::NIL, nullptr, nullptr, nullptr, AN_HOUR),
              Code::PENDING);
    ASSERT_TRUE(peer.waitForMessages(1));
    requestId = idIn(peer.payloads()[0]);
    reply(replyText(requestId, 17));
    EXPECT_EQ(client->waitEndOfRequest(AN_HOUR), FAILURE_OF_THE_SERVICE);
}

TEST_F(ARequestReplyClient, HandsOutAnEmptyPayloadWhereNoneWasGiven) {
    ASSERT_EQ(client->request(&recorder, id, Uuid::NIL, nullptr, nullptr, &requestId, AN_HOUR),
              Code::PENDING);
    reply(replyText(requestId, 1));
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_NE(dynamic_cast<mqtt::RequestReplyNoData const*>(recorder.calls()[0].data), nullptr);
}

TEST_F(ARequestReplyClient, IsFreeAgainWhenAPayloadCannotBeWritten) {
    struct Unwritable : NumberData {
        void serialize(zym::common::lwjson::Serializer&) const override {
            throw std::runtime_error("No");
        }
    };
    EXPECT_THROW(client->request(&recorder, id, Uuid::NIL, std::make_shared<Unwritable>(),
                                 replyData, &requestId, 0),
                 std::runtime_error);
    EXPECT_EQ(request(), Code::PENDING);
    reply(replyText(requestId, 1));
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_THAT(recorder.errors(), ElementsAre(Code::SUCCESS));
}

TEST_F(ARequestReplyClient, WithNothingPendingHasNothingToCancel) {
    EXPECT_EQ(client->cancel(), Code::SUCCESS);
    EXPECT_EQ(client->waitEndOfRequest(AN_HOUR), Code::NONE);
    ASSERT_EQ(request(), Code::PENDING);
    reply(replyText(requestId, 1));
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_EQ(client->cancel(), Code::SUCCESS);
    EXPECT_THAT(recorder.errors(), ElementsAre(Code::SUCCESS));
}

TEST_F(ARequestReplyClient, TellsItsListenerOfACancellationOnTheSpot) {
    ASSERT_EQ(request(), Code::PENDING);
    EXPECT_EQ(client->cancel(), Code::SUCCESS);
    auto const calls = recorder.calls();
    ASSERT_THAT(calls, SizeIs(1));
    EXPECT_EQ(calls[0].error, Code::CANCELLED);
    EXPECT_EQ(calls[0].requestId, requestId);
    EXPECT_NE(dynamic_cast<mqtt::RequestReplyNoData const*>(calls[0].data), nullptr);
    EXPECT_EQ(calls[0].thread, std::this_thread::get_id());
    EXPECT_EQ(client->waitEndOfRequest(AN_HOUR), Code::CANCELLED);
    reply(replyText(requestId, 1));
    receiveAll();
    EXPECT_THAT(recorder.calls(), SizeIs(1));
}

/// Every thread that ends a request calls the listener.
TEST_F(ARequestReplyClient, DropsWhatItsListenerThrows) {
    ReplyRecorder throwing([](Call const&) { throw std::runtime_error("of the listener"); });
    std::vector<std::function<void()>> const ends{
        [this] { EXPECT_EQ(client->cancel(), Code::SUCCESS); },
        [this] { EXPECT_EQ(client->waitEndOfRequest(0), Code::TIMEOUT); },
        [this] { reply(replyText(requestId, 1)); },
        [this] { client->terminate(); },
        [this] { client.reset(); },
    };
    for (std::size_t i = 0; i < ends.size(); ++i) {
        ASSERT_EQ(client->request(&throwing, id, Uuid::NIL, nullptr, nullptr, &requestId, AN_HOUR),
                  Code::PENDING)
            << "after end " << i;
        ends[i]();
        ASSERT_TRUE(throwing.waitForCount(i + 1));
        if (client && client->requestWait(id, Uuid::NIL, nullptr, nullptr, 0) == Code::CANCELLED) {
            client = makeClient();
        }
    }
}

TEST_F(ARequestReplyClient, WaitsForOneRequestOnly) {
    ASSERT_EQ(request(), Code::PENDING);
    auto const first = requestId;
    client->cancel();
    EXPECT_EQ(client->waitEndOfRequest(first, 0), Code::CANCELLED);
    ASSERT_EQ(request(), Code::PENDING);
    EXPECT_EQ(client->waitEndOfRequest(first, 0), Code::CANCELLED);
    expectStillPending();
    EXPECT_EQ(client->waitEndOfRequest(requestId, 0), Code::TIMEOUT);
}

/// The reply would have to be read by the thread that waits for it.
TEST_F(ARequestReplyClient, DoesNotWaitOnTheWorker) {
    Code waited = Code::NONE;
    Code requested = Code::NONE;
    ReplyRecorder first([&](Call const&) {
        requested = client->requestWait(id, Uuid::NIL, nullptr, nullptr, AN_HOUR);
        EXPECT_EQ(request(), Code::PENDING);
        waited = client->waitEndOfRequest(conv::SecondsDuration::NO_TIMEOUT);
    });
    ASSERT_EQ(client->request(&first, id, Uuid::NIL, nullptr, nullptr, &requestId, AN_HOUR),
              Code::PENDING);
    reply(replyText(requestId, 1));
    ASSERT_TRUE(recorder.waitForCount(1));
    receiveAll();
    EXPECT_EQ(requested, Code::TIMEOUT);
    EXPECT_EQ(waited, Code::TIMEOUT);
}

TEST_F(ARequestReplyClient, SendsNothingAfterItsTermination) {
    ASSERT_EQ(request(), Code::PENDING);
    client->terminate();
    EXPECT_THAT(recorder.errors(), ElementsAre(Code::CANCELLED));
    client->terminate();
    EXPECT_EQ(request(), Code::CANCELLED);
    EXPECT_EQ(requestWait(), Code::CANCELLED);
    EXPECT_EQ(client->cancel(), Code::SUCCESS);
    EXPECT_EQ(client->waitEndOfRequest(AN_HOUR), Code::CANCELLED);
    EXPECT_THAT(seen(), SizeIs(1));
    EXPECT_THAT(recorder.calls(), SizeIs(1));
}

TEST_F(ARequestReplyClient, IsTerminatedByItsDestruction) {
    ASSERT_EQ(request(), Code::PENDING);
    client.reset();
    EXPECT_THAT(recorder.errors(), ElementsAre(Code::CANCELLED));
}

TEST_F(ARequestReplyClient, MayRequestAgainInsideItsListener) {
    unsigned int second = 0;
    ReplyRecorder first([&](Call const&) {
        EXPECT_EQ(client->request(&recorder, id, Uuid::NIL, nullptr, replyData, &second, AN_HOUR),
                  Code::PENDING);
    });
    ASSERT_EQ(client->request(&first, id, Uuid::NIL, nullptr, replyData, &requestId, AN_HOUR),
              Code::PENDING);
    reply(replyText(requestId, 1));
    ASSERT_TRUE(peer.waitForMessages(3));
    reply(replyText(idIn(peer.payloads()[2]), 17));
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_THAT(first.errors(), ElementsAre(Code::SUCCESS));
    EXPECT_THAT(recorder.errors(), ElementsAre(FAILURE_OF_THE_SERVICE));
    EXPECT_EQ(recorder.calls()[0].requestId, second);
}

TEST_F(ARequestReplyClient, SendsWhatWasRequestedWithoutAConnectionOnTheNextOne) {
    support::ClientOptions options;
    options.connect = false;
    client.reset();
    mqtt = support::testClient(broker, options);
    client = makeClient();
    RawServer const server(broker, [](std::string const& text) {
        return std::vector<std::string>{replyText(idIn(text), 1, "\"number\": 8")};
    });
    ASSERT_EQ(request(), Code::PENDING);
    expectStillPending();
    ASSERT_EQ(mqtt->connect("", -1, 30), mqtt::MqttClient::Error::SUCCESS);
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_THAT(recorder.errors(), ElementsAre(Code::SUCCESS));
    EXPECT_EQ(replyData->number, 8U);
}

TEST_F(ARequestReplyClient, HasANameWithoutOuterSlashes) {
    for (char const* const name : {"/a", "a/", "/"}) {
        try {
            makeClient(name);
            ADD_FAILURE() << name;
        } catch (std::invalid_argument const& error) {
            EXPECT_STREQ(error.what(),
                         "Invalid Request/Reply name; should not contain any of '/'.");
        }
    }
    EXPECT_EQ(makeClient("a/b")->name(), "a/b");
    EXPECT_EQ(makeClient("")->name(), "");
    EXPECT_EQ(client->topic(), mqtt::Topic("time"));
}

TEST_F(AServedClient, ReturnsTheReplyToTheOneWhoWaits) {
    EXPECT_EQ(requestWait(), Code::SUCCESS);
    EXPECT_EQ(replyData->number, 8U);
    EXPECT_EQ(client->waitEndOfRequest(0), Code::SUCCESS);
}

TEST_F(AServedClient, TellsItsListener) {
    ASSERT_EQ(request(), Code::PENDING);
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_THAT(recorder.errors(), ElementsAre(Code::SUCCESS));
    EXPECT_EQ(replyData->number, 8U);
}

TEST_F(AServedClient, PassesOnAnErrorOfTheService) {
    for (int const code : {2, 4, 8, 16, 17, 255}) {
        listener.code = static_cast<Code>(code);
        EXPECT_EQ(requestWait(), listener.code);
    }
}

TEST_F(AServedClient, HearsThatThereIsNoListener) {
    ASSERT_EQ(server.unsubscribeWait(), mqtt::MqttClient::Error::SUCCESS);
    ASSERT_EQ(server.subscribe(nullptr, Uuid::NIL, nullptr), mqtt::MqttClient::Error::SUCCESS);
    settle(*serversMqtt);
    EXPECT_EQ(requestWait(), Code::NO_LISTENER);
}

TEST_F(AServedClient, MayShareItsMqttClientWithAServer) {
    mqtt::RequestReplyServer own(*mqtt, "svc", "time", "own");
    ASSERT_EQ(own.subscribe(&listener, Uuid::NIL, std::make_shared<NumberData>()),
              mqtt::MqttClient::Error::SUCCESS);
    client = makeClient("own");
    EXPECT_EQ(requestWait(), Code::SUCCESS);
    EXPECT_EQ(replyData->number, 8U);
}

TEST_F(AServedClient, GetsItsOwnRepliesBesideAnotherOne) {
    auto const askMany = [&](mqtt::MqttClient& through, unsigned int first) {
        Client caller(through, "svc", "time", "sync");
        auto const callersId = support::uniqueId();
        auto const data = std::make_shared<NumberData>();
        for (unsigned int i = first; i < first + 50; ++i) {
            ASSERT_EQ(caller.requestWait(callersId, Uuid::NIL, std::make_shared<NumberData>(i),
                                         data, AN_HOUR),
                      Code::SUCCESS);
            ASSERT_EQ(data->number, i + 1);
        }
    };
    auto const third = support::testClient(broker);
    std::thread neighbour([&] { askMany(*mqtt, 1000); });
    std::thread stranger([&] { askMany(*third, 2000); });
    askMany(*mqtt, 3000);
    neighbour.join();
    stranger.join();
}

TEST(ARequest, LeavesBehindTheSubscriptionToItsReply) {
    support::ScriptedServer server;
    auto const mqtt = support::testClient(server.host(), server.port());
    mqtt::RequestReplyClient client(*mqtt, "svc", "time", "sync");
    ASSERT_EQ(client.request(nullptr, support::uniqueId(), zym::common::Uuid::NIL, nullptr, nullptr,
                             nullptr, UINT32_MAX),
              Code::PENDING);
    ASSERT_TRUE(server.waitForPackets(support::PacketType::PUBLISH, 1));
    std::vector<support::PacketType> order;
    for (auto const& one : server.received()) {
        order.push_back(one.packet.type);
    }
    order.resize(3); // its handshake may have gone on
    EXPECT_THAT(order, ElementsAre(support::PacketType::CONNECT, support::PacketType::SUBSCRIBE,
                                   support::PacketType::PUBLISH));
}

} // namespace
