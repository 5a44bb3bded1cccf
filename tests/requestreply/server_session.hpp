#pragma once

#include "support/broker.hpp"
#include "support/raw_peer.hpp"
#include "support/recorder.hpp"
#include "support/test_client.hpp"

#include <mqtt/request_reply.hpp>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// Asked by a server; keeps what it was asked.
class ServerListener : public mqtt::RequestReplyServer::Listener {
public:
    using ErrorCode = mqtt::RequestReply::ErrorCode;
    using Data = std::shared_ptr<mqtt::RequestReplyData>;
    using Answer = std::function<Data(mqtt::RequestReplyData const&, ErrorCode&)>;

    struct Asked {
        std::string name;
        zym::common::Uuid clientUuid;
        zym::common::Uuid serverUuid;
        mqtt::RequestReplyData const* data;
        ErrorCode error;
    };

    /// @param answer what comes of a request; nothing but success without one
    explicit ServerListener(Answer answer = {}) : answer_(std::move(answer)) {}
    virtual ~ServerListener() = default;

    /// For the requests to come. What the caller wrote before is seen by the answer.
    void setAnswer(Answer answer) {
        answer_.change([&](auto& current) { current = std::move(answer); });
    }

    std::vector<Asked> asked() const { return asked_.copy(); }
    std::size_t count() const { return asked().size(); }

    Data onRequest(std::string const& name, zym::common::Uuid const& clientUuid,
                   zym::common::Uuid const& serverUuid, mqtt::RequestReplyData const& requestData,
                   ErrorCode& error) override {
        asked_.change([&](auto& all) {
            all.push_back({name, clientUuid, serverUuid, &requestData, error});
        });
        // A copy: the listener may be gone when it returns.
        auto const answer = answer_.copy();
        return answer ? answer(requestData, error) : nullptr;
    }

private:
    support::Watched<Answer> answer_;
    support::Watched<std::vector<Asked>> asked_;
};

/// Servers on one client, and a stranger who asks them.
class ServerSession : public testing::Test {
protected:
    using Client = mqtt::MqttClient;
    using Error = mqtt::MqttClient::Error;
    using ErrorCode = mqtt::RequestReply::ErrorCode;
    using Server = mqtt::RequestReplyServer;
    using Uuid = zym::common::Uuid;
    using Strings = std::vector<std::string>;

    ServerSession() {
        EXPECT_EQ(client->subscribe("session/down", &marker_, 0), Error::SUCCESS);
        peer.subscribe("#");
    }

    /// Returns when everything sent before has arrived, on the way there and on the way back, and
    /// what came to the client has been handled.
    void settle() {
        auto const mark = std::to_string(++marks_);
        sendUp(mark);
        peer.publish("session/down", mark);
        ASSERT_TRUE(marker_.waitForPayload(mark));
        sendUp(mark + "!");
    }

    /// A server for the name n on the base x, without identifier.
    std::unique_ptr<Server> serve(ServerListener* listener,
                                  std::shared_ptr<mqtt::RequestReplyData> data = mqtt::NO_DATA) {
        auto server = std::make_unique<Server>(*client, "x", mqtt::Topic(), "n");
        EXPECT_EQ(server->subscribe(listener, Uuid(), std::move(data)), Error::SUCCESS);
        settle();
        return server;
    }

    void ask(std::string const& payload) { peer.publish("x/n?\?/" + CALLER, payload); }

    /// All replies sent so far, whoever they are for.
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

    std::string const CALLER = Uuid(1).base64URL();

    support::Broker broker;
    support::RawPeer peer{broker};

private:
    void sendUp(std::string const& mark) {
        ASSERT_EQ(client->publish("session/up", mark, 2, false), Error::SUCCESS);
        ASSERT_TRUE(peer.waitFor([&](auto const& messages) {
            for (auto const& message : messages) {
                if (message.topic == "session/up" && message.payload == mark) {
                    return true;
                }
            }
            return false;
        }));
    }

    int marks_ = 0;
    support::MessageRecorder marker_;

protected:
    std::unique_ptr<Client> client = support::testClient(broker);
};
