#pragma once

#include "interleavings/scenario.hpp"
#include "interleavings/small_broker.hpp"

#include <mqtt/client.hpp>

#include <algorithm>
#include <string>
#include <vector>

// What scenarios have in common. No lock guards what these classes keep: one thread runs at a time,
// and none is stopped in here.
namespace interleavings {

inline constexpr zym::common::Uuid ME{1};
inline constexpr zym::common::Uuid OTHER{2};
inline constexpr zym::common::Uuid SERVER{9};

/// A client without a connection.
struct IdleClient {
    SmallBroker broker;
    mqtt::MqttClient client{ME, false, "", "host", 1883, false};
};

struct ConnectedClient : IdleClient {
    ConnectedClient() { client.connect("", -1, 5); }
};

/// Answers every request at once, with SUCCESS, its own members, and a time; keeps their names.
class EchoServer {
public:
    explicit EchoServer(SmallBroker& broker) {
        broker.watch([&broker, this](auto const& message) { answer(broker, message); });
    }

    std::vector<std::string> const& served() const { return served_; }
    std::ptrdiff_t count(std::string const& name) const {
        return std::count(served_.begin(), served_.end(), name);
    }
    void setCode(int code) { code_ = code; }
    void setSilent(bool silent) { silent_ = silent; }

private:
    void answer(SmallBroker& broker, SmallBroker::Message const& message) {
        auto const suffix = message.topic.rfind("?\?/");
        if (suffix == std::string::npos)
            return;
        auto const name = message.topic.rfind('/', suffix) + 1;
        served_.push_back(message.topic.substr(name, suffix - name));
        if (silent_)
            return;
        auto topic = message.topic;
        topic.replace(suffix, 2, "?=");
        auto payload = message.payload;
        payload.insert(payload.find('}'), ", \"ref\": 500.5, \"$err\": " + std::to_string(code_));
        broker.publish(topic, payload);
    }

    std::vector<std::string> served_;
    int code_ = 1;
    bool silent_ = false;
};

} // namespace interleavings
