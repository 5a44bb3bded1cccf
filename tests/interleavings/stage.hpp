#pragma once

#include "interleavings/scenario.hpp"
#include "interleavings/small_broker.hpp"

#include <mqtt/client.hpp>

#include <algorithm>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

// What scenarios have in common. No lock guards what these classes keep: one thread runs at a time,
// and none is stopped in here unless that is said.
namespace interleavings {

inline constexpr zym::common::Uuid ME{1};
inline constexpr zym::common::Uuid OTHER{2};
inline constexpr zym::common::Uuid SERVER{9};

/// More than anything of what the scenarios do takes, in virtual time.
inline constexpr std::chrono::seconds LONG{20};

/// As a callback of a user may do.
inline void throwSometimes() {
    if (Scene::maybe()) {
        throw std::runtime_error("a user's own");
    }
}

/// @return whether there was what it takes
template <class Action>
bool attempt(Action const& action) {
    try {
        action();
        return true;
    } catch (std::bad_alloc const&) {
    } catch (std::system_error const&) {
    }
    return false;
}

/// What a callback goes through: it takes its time, must not come when that is over, and not
/// while it ends.
class Ear {
public:
    explicit Ear(std::function<void()> hook = {}) : hook_(std::move(hook)) {}

    void hear() {
        Scene::expect(!closed_, "a callback comes after the end of its object");
        ++count_;
        ++inside_;
        Scene::stop();
        if (hook_) {
            hook_();
        }
        --inside_;
    }
    /// From now on nothing may be heard.
    void close() {
        Scene::expect(inside_ == 0, "an object ends while it is calling back");
        closed_ = true;
    }
    int count() const { return count_; }

private:
    std::function<void()> hook_;
    bool closed_ = false;
    int count_ = 0;
    int inside_ = 0;
};

/// A client without a connection.
struct IdleClient {
    SmallBroker broker;
    mqtt::MqttClient client{ME, false, "", "host", 1883, false};
};

struct ConnectedClient : IdleClient {
    ConnectedClient() { client.connect("", -1, 5); }

    void expectNothingLeft() const {
        Scene::expect(broker.subscriptions() == 0, "a subscription is left over");
    }
};

/// Answers every request at once, with SUCCESS, its own members, and a time; keeps their names.
class EchoServer {
public:
    explicit EchoServer(SmallBroker& broker) : broker_(broker) {
        broker.watch([this](auto const& message) { answer(message); });
    }

    std::vector<std::string> const& served() const { return served_; }
    void beSilent() { silent_ = true; }
    /// Answers the last request of the silence, too.
    void speak() {
        silent_ = false;
        if (!unanswered_.topic.empty()) {
            broker_.publish(std::exchange(unanswered_.topic, {}), unanswered_.payload);
        }
    }

private:
    void answer(SmallBroker::Message const& message) {
        auto const suffix = message.topic.rfind("?\?/");
        if (suffix == std::string::npos) {
            return;
        }
        auto const name = message.topic.rfind('/', suffix) + 1;
        served_.push_back(message.topic.substr(name, suffix - name));
        auto reply = message;
        reply.topic.replace(suffix, 2, "?=");
        reply.payload.insert(reply.payload.find('}'), ", \"ref\": 500.5, \"$err\": 1");
        if (silent_) {
            unanswered_ = reply;
        } else {
            broker_.publish(reply.topic, reply.payload);
        }
    }

    SmallBroker& broker_;
    SmallBroker::Message unanswered_;
    std::vector<std::string> served_;
    bool silent_ = false;
};

} // namespace interleavings
