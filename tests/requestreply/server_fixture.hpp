#pragma once

#include "support/broker.hpp"
#include "support/raw_peer.hpp"
#include "support/recorder.hpp"
#include "support/test_client.hpp"

#include <mqtt/request_reply.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// Keeps the requests that a server hands to it.
class ServerListener : public mqtt::RequestReplyServer::Listener {
public:
    using ErrorCode = mqtt::RequestReply::ErrorCode;
    using Data = std::shared_ptr<mqtt::RequestReplyData>;
    using Answer = std::function<Data(mqtt::RequestReplyData const&, ErrorCode&)>;

    struct Call {
        std::string name;
        zym::common::Uuid clientUuid;
        zym::common::Uuid serverUuid;
        mqtt::RequestReplyData const* data;
        ErrorCode error; ///< before the listener changes it
    };

    /// @param answer makes the reply and the error; without it the error is SUCCESS
    explicit ServerListener(Answer answer = {}) : answer_(std::move(answer)) {}
    virtual ~ServerListener() = default;

    /// For the requests to come.
    void setAnswer(Answer answer) {
        answer_.change([&](auto& current) { current = std::move(answer); });
    }

    std::vector<Call> calls() const { return calls_.copy(); }
    std::size_t count() const { return calls().size(); }

    Data onRequest(std::string const& name, zym::common::Uuid const& clientUuid,
                   zym::common::Uuid const& serverUuid, mqtt::RequestReplyData const& requestData,
                   ErrorCode& error) override {
        calls_.change([&](auto& all) {
            all.push_back({name, clientUuid, serverUuid, &requestData, error});
        });
        // A copy, because the answer may destroy this listener.
        auto const answer = answer_.copy();
        return answer ? answer(requestData, error) : nullptr;
    }

private:
    support::Watched<Answer> answer_;
    support::Watched<std::vector<Call>> calls_;
};

/// Servers on one MQTT client, and a raw peer that sends requests to them.
class ServerOnABroker : public testing::Test {
protected:
    using Error = mqtt::MqttClient::Error;
    using ErrorCode = mqtt::RequestReply::ErrorCode;
    using Server = mqtt::RequestReplyServer;
    using Uuid = zym::common::Uuid;
    using Strings = std::vector<std::string>;

    ServerOnABroker() {
        EXPECT_EQ(client->subscribe("session/down", &marker_, 0), Error::SUCCESS);
        peer.subscribe("#");
    }

    /// Returns when the client has handled everything that was sent to it, and the peer has
    /// everything that the client has sent.
    void settle() {
        auto const mark = std::to_string(++marks_);
        sendToPeer(mark);
        peer.publish("session/down", mark);
        ASSERT_TRUE(marker_.waitForPayload(mark));
        sendToPeer(mark + "!");
    }

    /// A server for the name n on the base x, without identifier.
    std::unique_ptr<Server> serve(ServerListener* listener,
                                  std::shared_ptr<mqtt::RequestReplyData> data = mqtt::NO_DATA) {
        auto server = std::make_unique<Server>(*client, "x", mqtt::Topic(), "n");
        EXPECT_EQ(server->subscribe(listener, Uuid(), std::move(data)), Error::SUCCESS);
        settle();
        return server;
    }

    void request(std::string const& payload) { peer.publish("x/n?\?/" + CLIENT_ID, payload); }

    /// All replies sent so far, to any client.
    std::vector<support::Message> replies() {
        settle();
        std::vector<support::Message> result;
        for (auto const& message : peer.messages()) {
            if (message.topic.find(mqtt::REPLY_SUFFIX) != std::string::npos) {
                result.push_back(message);
            }
        }
        return result;
    }

    Strings replyPayloads() {
        Strings result;
        for (auto const& message : replies()) {
            result.push_back(message.payload);
        }
        return result;
    }

    static std::string reply(int id, int error) {
        return "{\n  \"$reqId\": " + std::to_string(id) + ",\n  \"$err\": " + std::to_string(error)
               + "\n}";
    }

    std::string const CLIENT_ID = Uuid(1).base64URL();

    support::Broker broker;
    support::RawPeer peer{broker};

private:
    void sendToPeer(std::string const& mark) {
        ASSERT_EQ(client->publish("session/up", mark, 2, false), Error::SUCCESS);
        ASSERT_TRUE(peer.waitFor([&](auto const& messages) {
            return std::any_of(messages.begin(), messages.end(), [&](auto const& message) {
                return message.topic == "session/up" && message.payload == mark;
            });
        }));
    }

    int marks_ = 0;
    support::MessageRecorder marker_;

protected:
    std::unique_ptr<mqtt::MqttClient> client = support::testClient(broker);
};
