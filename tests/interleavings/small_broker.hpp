#pragma once

#include "support/stand_in/stand_in.hpp"

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace interleavings {

/// A broker for the stand-ins of this process: routes publications to who has subscribed, keeps
/// retained ones, and loses what comes behind a DISCONNECT, as a real one does. Make it before the
/// clients. Needs no lock: no thread is stopped in here.
class SmallBroker {
public:
    struct Message {
        std::string topic;
        std::string payload;
    };
    /// Called with each message that has reached the broker, before it is passed on.
    using Watcher = std::function<void(Message const&)>;

    SmallBroker();
    ~SmallBroker();
    SmallBroker(SmallBroker const&) = delete;
    SmallBroker& operator=(SmallBroker const&) = delete;

    void watch(Watcher watcher) { watcher_ = std::move(watcher); }
    /// As from a client that is not there.
    void publish(std::string const& topic, std::string const& payload, bool retain = false);

    std::vector<Message> const& messages() const { return messages_; }
    /// How many messages with this payload have reached the broker.
    std::ptrdiff_t count(std::string const& payload) const;
    /// All subscriptions of all clients.
    std::size_t subscriptions() const;
    std::size_t retained() const { return retained_.size(); }

private:
    struct Session {
        std::set<std::string> subscriptions;
        bool leaving = false; ///< between DISCONNECT and the next connection
    };
    using Answer = std::optional<int>;

    void attend(support::StandIn& client);
    static void deliver(support::StandIn& client, Message const& message, bool retain);
    Answer publishFrom(Session& session, support::StandIn& client,
                       support::StandIn::Call const& call);
    Answer subscribe(Session& session, support::StandIn& client,
                     support::StandIn::Call const& call);

    std::map<support::StandIn*, Session> sessions_;
    std::map<std::string, std::string> retained_;
    std::vector<Message> messages_;
    Watcher watcher_;
};

} // namespace interleavings
