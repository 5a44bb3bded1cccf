#pragma once

#include "requestreply/client_fixture.hpp"

#include <mqtt/request_reply.hpp>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// A request that a server hands to its listener.
struct RequestCall {
    std::string name;
    zym::common::Uuid clientUuid;
    zym::common::Uuid serverUuid;
    mqtt::RequestReplyData const* data;
    Code error; ///< before the listener changes it
};

class ServerListener : public mqtt::RequestReplyServer::Listener,
                       public mqtt::test::CallRecorder<RequestCall> {
public:
    using Data = std::shared_ptr<mqtt::RequestReplyData>;
    using Answer = std::function<Data(mqtt::RequestReplyData const&, Code&)>;

    /// @param answer makes the reply and the error; without it the error is SUCCESS
    explicit ServerListener(Answer answer = {}) : answer_(std::move(answer)) {}

    /// For the requests to come.
    void setAnswer(Answer answer) {
        answer_.change([&](auto& current) { current = std::move(answer); });
    }

    Data onRequest(std::string const& name, zym::common::Uuid const& clientUuid,
                   zym::common::Uuid const& serverUuid, mqtt::RequestReplyData const& requestData,
                   Code& error) override {
        record({name, clientUuid, serverUuid, &requestData, error});
        // A copy, because the answer may destroy this listener.
        auto const answer = answer_.copy();
        return answer ? answer(requestData, error) : nullptr;
    }

private:
    mqtt::test::Watched<Answer> answer_;
};

/// Servers on one MQTT client, and a raw peer that sends requests to them.
class ServerOnABroker : public SessionOnABroker {
protected:
    using Error = mqtt::MqttClient::Error;
    using Server = mqtt::RequestReplyServer;
    using Strings = std::vector<std::string>;

    /// All messages so far, when the client has handled everything that was sent to it, and the
    /// peer has everything that the client has sent.
    Messages awaitAllMessages() {
        receiveAll();
        return seen();
    }

    /// A server for the name n on the base svc, without identifier.
    std::unique_ptr<Server> serve(ServerListener* listener,
                                  std::shared_ptr<mqtt::RequestReplyData> data = mqtt::NO_DATA) {
        auto server = std::make_unique<Server>(*mqtt, "svc", mqtt::Topic(), "n");
        EXPECT_EQ(server->subscribe(listener, Uuid(), std::move(data)), Error::SUCCESS);
        awaitAllMessages();
        return server;
    }

    void request(std::string const& payload) { peer.publish("svc/n?\?/" + CLIENT_ID, payload); }
    void request(int requestId) { request("{\"$reqId\": " + std::to_string(requestId) + "}"); }

    /// All replies sent so far, to any client.
    Messages replies() { return messagesWith(awaitAllMessages(), mqtt::REPLY_SUFFIX); }

    Strings replyPayloads() {
        Strings result;
        for (auto const& message : replies()) {
            result.push_back(message.payload);
        }
        return result;
    }

    static std::string reply(int requestId, int error) {
        return "{\n  \"$reqId\": " + std::to_string(requestId)
               + ",\n  \"$err\": " + std::to_string(error) + "\n}";
    }

    std::string const CLIENT_ID = Uuid(1).base64URL();
};
