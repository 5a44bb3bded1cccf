#include "interleavings/small_broker.hpp"

#include "interleavings/scenario.hpp"
#include "interleavings/synchronisation.hpp"

#include <mosquitto.h>
#include <mosquittopp.h>

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

} // namespace

SmallBroker::SmallBroker() {
    StandIn::onConstruction([this](StandIn& client) { attend(client); });
}

SmallBroker::~SmallBroker() {
    StandIn::onConstruction(nullptr);
}

void SmallBroker::attend(StandIn& client) {
    leaveAlone(&client, sizeof client);
    auto& session = sessions_[&client];
    auto const forget = [&session](StandIn::Call const&) -> Answer {
        session = Session();
        return std::nullopt;
    };
    client.setHook(Operation::CONNECT, forget);
    client.setHook(Operation::RECONNECT, forget);
    client.setHook(Operation::DISCONNECT, [&session](StandIn::Call const&) -> Answer {
        session.leaving = true;
        return std::nullopt;
    });
    client.setHook(Operation::PUBLISH, [this, &session, &client](StandIn::Call const& call) {
        return publishFrom(session, client, call);
    });
    client.setHook(Operation::SUBSCRIBE, [this, &session, &client](StandIn::Call const& call) {
        return subscribe(session, client, call);
    });
    client.setHook(Operation::UNSUBSCRIBE, [&session](StandIn::Call const& call) -> Answer {
        session.subscriptions.erase(call.topic);
        return std::nullopt;
    });
}

SmallBroker::Answer SmallBroker::publishFrom(Session& session, StandIn& client,
                                             StandIn::Call const& call) {
    if (client.connected() && !session.leaving) {
        publish(call.topic, call.payload, call.retain);
    }
    return std::nullopt;
}

SmallBroker::Answer SmallBroker::subscribe(Session& session, StandIn& client,
                                           StandIn::Call const& call) {
    if (!client.connected() || session.leaving) {
        return std::nullopt;
    }
    session.subscriptions.insert(call.topic);
    for (auto const& [topic, payload] : retained_) {
        if (matches(call.topic, topic)) {
            deliver(client, {topic, payload}, true);
        }
    }
    return std::nullopt;
}

void SmallBroker::publish(std::string const& topic, std::string const& payload, bool retain) {
    messages_.push_back({topic, payload});
    if (retain && payload.empty()) {
        retained_.erase(topic);
    } else if (retain) {
        retained_[topic] = payload;
    }
    if (watcher_) {
        watcher_({topic, payload});
    }
    for (auto const& [client, session] : sessions_) {
        auto const& all = session.subscriptions;
        if (client->connected() && std::any_of(all.begin(), all.end(), [&](auto const& pattern) {
                return matches(pattern, topic);
            })) {
            deliver(*client, {topic, payload}, false);
        }
    }
}

/// Memory may fail to a client that gets a message, in a scenario that explores that.
void SmallBroker::deliver(StandIn& client, Message const& message, bool retain) {
    client.post([message, retain](mosqpp::mosquittopp& object) {
        auto copy = message;
        mosquitto_message raw{};
        raw.topic = copy.topic.data();
        raw.payload = copy.payload.data();
        raw.payloadlen = static_cast<int>(copy.payload.size());
        raw.retain = retain;
        Scene::Shortage const here;
        object.on_message(&raw);
    });
}

std::ptrdiff_t SmallBroker::count(std::string const& payload) const {
    return std::count_if(messages_.begin(), messages_.end(),
                         [&](auto const& message) { return message.payload == payload; });
}

std::size_t SmallBroker::subscriptions() const {
    std::size_t count = 0;
    for (auto const& [client, session] : sessions_) {
        if (client->connected()) {
            count += session.subscriptions.size();
        }
    }
    return count;
}

} // namespace interleavings
