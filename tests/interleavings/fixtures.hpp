#pragma once

#include "interleavings/small_broker.hpp"

#include <mqtt/client.hpp>

#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace interleavings {

inline constexpr zym::common::Uuid CLIENT{1};
inline constexpr zym::common::Uuid OTHER_CLIENT{2};
inline constexpr zym::common::Uuid SERVER{9};

struct IdleClient {
    SmallBroker broker;
    mqtt::MqttClient client{CLIENT, false, "", "host", 1883, false};
};

struct ConnectedClient : IdleClient {
    ConnectedClient() { client.connect("", -1, 5); }

    void expectNoSubscriptions() const {
        expect(broker.subscriptions() == 0, "a subscription is left");
    }
};

struct TwoConnectedClients {
    SmallBroker broker;
    std::unique_ptr<mqtt::MqttClient> client =
        std::make_unique<mqtt::MqttClient>(CLIENT, false, "", "host", 1883, true);
    mqtt::MqttClient otherClient{OTHER_CLIENT, false, "", "host", 1883, true};
};

/// Answers every request at once with SUCCESS, its own members and a time; records their names.
class EchoServer {
public:
    explicit EchoServer(SmallBroker& broker) : broker_(broker) {
        broker.setObserver([this](auto const& message) { answer(message); });
    }

    std::vector<std::string> const& requestNames() const { return requestNames_; }
    void holdReplies() { holds_ = true; }
    /// Sends the last reply held.
    void releaseReplies() {
        holds_ = false;
        if (!heldReply_.topic.empty()) {
            broker_.publish(std::exchange(heldReply_.topic, {}), heldReply_.payload);
        }
    }

private:
    void answer(SmallBroker::Message const& message) {
        auto const suffix = message.topic.rfind("?\?/");
        if (suffix == std::string::npos) {
            return;
        }
        auto const name = message.topic.rfind('/', suffix) + 1;
        requestNames_.push_back(message.topic.substr(name, suffix - name));
        auto reply = message;
        reply.topic.replace(suffix, 2, "?=");
        reply.payload.insert(reply.payload.find('}'), ", \"ref\": 500.5, \"$err\": 1");
        if (holds_) {
            heldReply_ = reply;
        } else {
            broker_.publish(reply.topic, reply.payload);
        }
    }

    SmallBroker& broker_;
    SmallBroker::Message heldReply_;
    std::vector<std::string> requestNames_;
    bool holds_ = false;
};

/// For classes that send requests.
struct ClientOfEchoServer : ConnectedClient {
    /// Ends an object whose requests have no reply yet, while their replies come; or it ends in a
    /// callback of its own.
    /// @param use makes the requests, and may wait
    template <class Object, class Use>
    void endDuringReplies(std::unique_ptr<Object>& object, CallbackCheck& listener,
                          Use const& use) {
        server.holdReplies();
        std::thread user(use);
        pass(std::chrono::milliseconds(1));
        explore([&] {
            bool const endsInCallback = maybe();
            if (endsInCallback) {
                listener.setAction([&] { object.reset(); });
            }
            server.releaseReplies();
            if (endsInCallback) {
                pass(std::chrono::milliseconds(1));
            }
            ifMistaken([&] { listener.close(); });
            Scheduler::instance().maySwitch();
            object.reset();
            listener.close();
        });
        user.join();
        expectNoSubscriptions();
    }

    EchoServer server{broker};
};

} // namespace interleavings
