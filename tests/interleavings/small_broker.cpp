#include "interleavings/fixtures.hpp"
#include "mqtt/mosquittopp.hpp"

#include <mosquitto.h>

#include <algorithm>

namespace interleavings {

using support::StandIn;
using Operation = StandIn::Operation;

namespace {

bool matches(std::string const& pattern, std::string const& topic) {
    bool result = false;
    mosquitto_topic_matches_sub(pattern.c_str(), topic.c_str(), &result);
    return result;
}

void deliver(StandIn& client, SmallBroker::Message const& message, bool retain) {
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

} // namespace

SmallBroker::SmallBroker() {
    StandIn::onConstruction([this](StandIn& client) { serve(client); });
}

SmallBroker::~SmallBroker() {
    StandIn::onConstruction(nullptr);
}

void SmallBroker::serve(StandIn& client) {
    Scheduler::instance().ignoreObjectsIn(&client, sizeof client);
    auto& session = sessions_[&client];
    auto const on = [&client](Operation operation, auto action) {
        client.setHook(operation, [action](StandIn::Call const& call) -> std::optional<int> {
            action(call);
            return std::nullopt; // the stand-in answers
        });
    };
    auto const isOnline = [&client, &session] {
        return client.connected() && !session.disconnecting;
    };
    auto const startSession = [&session](auto const&) { session = Session(); };
    on(Operation::CONNECT, startSession);
    on(Operation::RECONNECT, startSession);
    on(Operation::DISCONNECT, [&session](auto const&) { session.disconnecting = true; });
    on(Operation::PUBLISH, [this, isOnline](auto const& call) {
        if (isOnline()) {
            publish(call.topic, call.payload, call.retain);
        }
    });
    on(Operation::SUBSCRIBE, [this, isOnline, &session, &client](auto const& call) {
        if (isOnline()) {
            session.subscriptions.insert(call.topic);
            sendRetained(client, call.topic);
        }
    });
    on(Operation::UNSUBSCRIBE,
       [&session](auto const& call) { session.subscriptions.erase(call.topic); });
}

void SmallBroker::sendRetained(StandIn& client, std::string const& pattern) const {
    for (auto const& [topic, payload] : retained_) {
        if (matches(pattern, topic)) {
            deliver(client, {topic, payload}, true);
        }
    }
}

void SmallBroker::publish(std::string const& topic, std::string const& payload, bool retain) {
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

std::ptrdiff_t SmallBroker::count(std::string const& payload) const {
    return std::count_if(messages_.begin(), messages_.end(),
                         [&](auto const& message) { return message.payload == payload; });
}

std::size_t SmallBroker::subscriptions() const {
    std::size_t count = 0;
    for (auto const& [client, session] : sessions_) {
        count += client->connected() ? session.subscriptions.size() : 0;
    }
    return count;
}

} // namespace interleavings
