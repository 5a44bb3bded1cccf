#pragma once

#include "interleavings/scenario.hpp"
#include "mqtt/mosquittopp.hpp"
#include "support/stand_in/stand_in.hpp"

#include <mosquitto.h>

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace interleavings {

/// A broker for the stand-ins of this process: routes publications to subscribers, keeps retained
/// messages, and drops what a client sends after DISCONNECT, as a real broker does. Construct it
/// before the clients. It needs no lock: no thread is stopped in its functions.
class SmallBroker {
public:
    using StandIn = support::StandIn;
    struct Message {
        std::string topic;
        std::string payload;
    };
    /// Called with each message that reaches the broker, before it is routed.
    using Observer = std::function<void(Message const&)>;

    SmallBroker() {
        StandIn::onConstruction([this](StandIn& client) { serve(client); });
    }
    ~SmallBroker() { StandIn::onConstruction(nullptr); }
    SmallBroker(SmallBroker const&) = delete;
    SmallBroker& operator=(SmallBroker const&) = delete;

    void setObserver(Observer observer) { observer_ = std::move(observer); }
    /// Publishes as an absent client.
    void publish(std::string const& topic, std::string const& payload, bool retain = false) {
        messages_.push_back({topic, payload});
        if (retain && payload.empty()) {
            retained_.erase(topic);
        } else if (retain) {
            retained_[topic] = payload;
        }
        if (observer_) {
            observer_({topic, payload});
        }
        for (auto const& [client, session] : sessions_) {
            auto const& patterns = session.subscriptions;
            if (client->connected()
                && std::any_of(patterns.begin(), patterns.end(),
                               [&](auto const& pattern) { return matches(pattern, topic); })) {
                deliver(*client, {topic, payload}, false);
            }
        }
    }

    std::vector<Message> const& messages() const { return messages_; }
    /// How many messages with this payload have reached the broker.
    std::ptrdiff_t count(std::string const& payload) const {
        return std::count_if(messages_.begin(), messages_.end(),
                             [&](auto const& message) { return message.payload == payload; });
    }
    /// The subscriptions of all connected clients.
    std::size_t subscriptions() const {
        std::size_t count = 0;
        for (auto const& [client, session] : sessions_) {
            count += client->connected() ? session.subscriptions.size() : 0;
        }
        return count;
    }
    std::size_t retained() const { return retained_.size(); }

private:
    struct Session {
        std::set<std::string> subscriptions;
        bool disconnecting = false; ///< between DISCONNECT and the next connection
    };

    void serve(StandIn& client) {
        Scheduler::instance().ignoreObjectsIn(&client, sizeof client);
        auto& session = sessions_[&client];
        auto const on = [&client](StandIn::Operation operation, auto action) {
            client.setHook(operation, [action](StandIn::Call const& call) -> std::optional<int> {
                action(call);
                return std::nullopt; // the stand-in answers
            });
        };
        auto const isOnline = [&client, &session] {
            return client.connected() && !session.disconnecting;
        };
        auto const startSession = [&session](auto const&) { session = Session(); };
        on(StandIn::Operation::CONNECT, startSession);
        on(StandIn::Operation::RECONNECT, startSession);
        on(StandIn::Operation::DISCONNECT,
           [&session](auto const&) { session.disconnecting = true; });
        on(StandIn::Operation::PUBLISH, [this, isOnline](auto const& call) {
            if (isOnline()) {
                publish(call.topic, call.payload, call.retain);
            }
        });
        on(StandIn::Operation::SUBSCRIBE, [this, isOnline, &session, &client](auto const& call) {
            if (isOnline()) {
                session.subscriptions.insert(call.topic);
                sendRetained(client, call.topic);
            }
        });
        on(StandIn::Operation::UNSUBSCRIBE,
           [&session](auto const& call) { session.subscriptions.erase(call.topic); });
    }

    void sendRetained(StandIn& client, std::string const& pattern) const {
        for (auto const& [topic, payload] : retained_) {
            if (matches(pattern, topic)) {
                deliver(client, {topic, payload}, true);
            }
        }
    }

    static bool matches(std::string const& pattern, std::string const& topic) {
        bool result = false;
        mosquitto_topic_matches_sub(pattern.c_str(), topic.c_str(), &result);
        return result;
    }

    static void deliver(StandIn& client, Message const& message, bool retain) {
        client.post([message, retain](mosqpp::mosquittopp& object) {
            auto copy = message;
            mosquitto_message raw{};
            raw.topic = copy.topic.data();
            raw.payload = copy.payload.data();
            raw.payloadlen = static_cast<int>(copy.payload.size());
            raw.retain = retain;
            MemoryMayFail const here;
            object.on_message(&raw);
        });
    }

    std::map<StandIn*, Session> sessions_;
    std::map<std::string, std::string> retained_;
    std::vector<Message> messages_;
    Observer observer_;
};

} // namespace interleavings
