// What a proxy and its server say to each other, in words of a stranger, and what comes of
// messages that are none.

#include "services/binder_frame.hpp"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Error = BinderError;

/// The other side is the stranger.
class AMessageOfAProxy : public WithAProxy {
protected:
    std::string topic(std::string const& path) const {
        return "plant/pump/" + server.base64URL() + "/" + path + id.base64URL();
    }

    static std::string number(unsigned int value) { return std::to_string(value); }

    void reply(support::Message const& request, int code, std::string const& members = "") {
        peer.publish(replyTopicFor(request.topic), replyText(idIn(request.payload), code, members));
    }

    /// Answers as a server does whose clock is some seconds ahead.
    void tellTime(support::Message const& request) {
        std::string const key = "\"client\": ";
        auto const client =
            std::stod(request.payload.substr(request.payload.find(key) + key.size()));
        reply(request, 1,
              key + std::to_string(client) + ", \"ref\": " + std::to_string(client + 100));
    }

    Uuid const server = support::uniqueId();
};

TEST_F(AMessageOfAProxy, AsksForABinding) {
    ASSERT_EQ(proxy->bind(server, AN_HOUR), Error::SUCCESS);
    auto const request = awaitRequest("bind");
    EXPECT_EQ(request.topic, topic("desk/bind?\?/"));
    EXPECT_EQ(request.payload, "{\n  \"$reqId\": " + number(idIn(request.payload))
                                   + ",\n  \"topic\": \"plant/panel\"\n}");
    EXPECT_EQ(request.qos, 2);
    EXPECT_FALSE(request.retain);
}

TEST_F(AMessageOfAProxy, AsksForTheEndOfABinding) {
    ASSERT_EQ(proxy->bind(server, AN_HOUR), Error::SUCCESS);
    ASSERT_EQ(proxy->unbind(AN_HOUR), Error::SUCCESS);
    auto const request = awaitRequest("unbind");
    EXPECT_EQ(request.topic, topic("desk/unbind?\?/"));
    EXPECT_EQ(request.payload, "{\n  \"$reqId\": " + number(idIn(request.payload)) + "\n}");
    EXPECT_EQ(request.qos, 2);
    EXPECT_FALSE(request.retain);
}

TEST_F(AMessageOfAProxy, AsksWithoutASubPathOrAServerWhereThereIsNone) {
    Proxy plain(*mqtt, PLANT, mqtt::Topic(), id, PANEL, &recorder);
    ASSERT_EQ(plain.bind(Uuid::NIL, AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(awaitRequest("bind").topic, "plant/pump/bind?\?/" + id.base64URL());
    ASSERT_EQ(plain.unbind(AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(awaitRequest("unbind").topic, "plant/pump/unbind?\?/" + id.base64URL());
}

TEST_F(AMessageOfAProxy, AsksForTheTimeWhenTheBindingIsGranted) {
    ASSERT_EQ(proxy->bind(server, AN_HOUR), Error::SUCCESS);
    reply(awaitRequest("bind"), 1);
    EXPECT_EQ(awaitRequest("timeSync").topic, topic("timeSync?\?/"));
}

TEST_F(AMessageOfAProxy, AsksForTheTimeTenTimesThenIsBound) {
    ASSERT_EQ(proxy->bind(server, AN_HOUR), Error::SUCCESS);
    reply(awaitRequest("bind"), 21, "\"topic\": 7, \"more\": []");
    for (std::size_t count = 1; count <= 10; ++count) {
        EXPECT_THAT(recorder.events(), IsEmpty());
        tellTime(awaitRequest("timeSync", count));
    }
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::SUCCESS)));
    settle();
    EXPECT_EQ(requests("timeSync"), 10U);
    ASSERT_EQ(proxy->unbind(AN_HOUR), Error::SUCCESS);
    reply(awaitRequest("unbind"), 1, "\"more\": []");
    ASSERT_TRUE(recorder.waitForCount(2));
    EXPECT_EQ(recorder.events().back(), unbound(Error::SUCCESS));
}

TEST_F(AMessageOfAProxy, HasNothingToDoWithWhatElseTheReplySays) {
    ASSERT_EQ(proxy->bind(server, AN_HOUR), Error::SUCCESS);
    auto const request = awaitRequest("bind");
    auto const replyTopic = replyTopicFor(request.topic);
    for (std::string const nonsense : {"", "[]", "7", "{}", "{\"$err\": 1}", "{\"$reqId\": 1"}) {
        peer.publish(replyTopic, nonsense);
    }
    peer.publish(replyTopic, replyText(idIn(request.payload) + 1, 17));
    reply(request, 23, "\"topic\": 7, \"more\": []");
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::REFUSED)));
}

TEST_F(AMessageOfAProxy, IsAnsweredOnce) {
    ASSERT_EQ(proxy->bind(server, AN_HOUR), Error::SUCCESS);
    auto const request = awaitRequest("bind");
    reply(request, 23);
    reply(request, 1);
    reply(request, 17);
    ASSERT_TRUE(recorder.waitForCount(1));
    settle();
    EXPECT_EQ(requests("timeSync"), 0U);
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::REFUSED)));
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"

/// Nothing on the wire brings that about: the name in a reply is that of its request.
TEST_F(AMessageOfAProxy, IsNotWhatAReplyToAnotherNameEnds) {
    ASSERT_EQ(proxy->bind(server, AN_HOUR), Error::SUCCESS);
    awaitRequest("bind");
    // No other cast leads to a private base.
    auto& listener = (mqtt::RequestReplyClient::Listener&)*proxy;
    auto const replyToOthers = [&] {
        for (std::string const name : {"", "Bind", "bind?\?", "unbinding", "timeSync"}) {
            for (Code const code :
                 {Code::SUCCESS, Code::CANCELLED, Code::BUSY, Code{21}, Code{23}}) {
                listener.onReply(1, name, id, server, *mqtt::NO_DATA, code);
            }
        }
        settle();
    };
    replyToOthers();
    EXPECT_THAT(recorder.events(), IsEmpty());
    EXPECT_EQ(requests("timeSync"), 0U);
    ASSERT_EQ(proxy->unbind(AN_HOUR), Error::SUCCESS);
    replyToOthers();
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::CANCELLED)));
    EXPECT_EQ(proxy->unbind(AN_HOUR), Error::BUSY);
    listener.onReply(1, "unbind", id, server, *mqtt::NO_DATA, Code{23});
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::CANCELLED), unbound(Error::SUCCESS)));
}

#pragma GCC diagnostic pop

/// Asks a server of ours for bindings; the stranger is the client.
class AServerOfBindings : public ServerSession {
protected:
    AServerOfBindings() { server = serve(&listener, std::make_shared<mqtt::BindRequestData>()); }

    std::string lastTopic() const { return topics.copy().back(); }

    support::Watched<Strings> topics;
    ServerListener listener{[this](auto const& data, auto&) {
        topics.change([&](auto& all) {
            all.push_back(dynamic_cast<mqtt::BindRequestData const&>(data).topic.text());
        });
        return nullptr;
    }};
    std::unique_ptr<Server> server;
};

TEST_F(AServerOfBindings, ReadsWhichTopicIsAskedFor) {
    ask(R"({"$reqId": 1, "topic": "plant/panel"})");
    ask(R"({"topic": "/a/b/", "$reqId": 2})");
    ask(R"({"$reqId": 3, "topic": ""})");
    EXPECT_THAT(replyPayloads(), ElementsAre(reply(1, 1), reply(2, 1), reply(3, 1)));
    EXPECT_THAT(topics.copy(), ElementsAre("plant/panel", "a/b", ""));
}

TEST_F(AServerOfBindings, DropsWhatAsksForNone) {
    std::vector<std::string> const malformed = {R"({"$reqId": 1})",
                                                R"({"$reqId": 1, "topic": 7})",
                                                R"({"$reqId": 1, "topic": 7.5})",
                                                R"({"$reqId": 1, "topic": null})",
                                                R"({"$reqId": 1, "topic": true})",
                                                R"({"$reqId": 1, "topic": ["a"]})",
                                                R"({"$reqId": 1, "topic": {"topic": "a"}})",
                                                R"({"$reqId": 1, "topic": "\ud800"})",
                                                R"({"$reqId": 1, "Topic": "a"})",
                                                R"({"$reqId": 1, "topic": "a")",
                                                R"({"topic": "a"})",
                                                R"(["$reqId", 1, "topic", "a"])",
                                                R"("topic")",
                                                "1",
                                                ""};
    int next = 1;
    for (auto const& payload : malformed) {
        SCOPED_TRACE(payload);
        ask(payload);
        auto const good = "after/" + std::to_string(++next);
        ask(R"({"$reqId": )" + std::to_string(next) + R"(, "topic": ")" + good + "\"}");
        auto const all = replyPayloads();
        ASSERT_EQ(all.size(), static_cast<std::size_t>(next - 1));
        EXPECT_EQ(all.back(), reply(next, 1));
        EXPECT_EQ(lastTopic(), good);
    }
    EXPECT_EQ(listener.count(), malformed.size());
}

} // namespace
