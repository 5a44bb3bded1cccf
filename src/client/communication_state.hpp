#pragma once

#include "client/broker_gate.hpp"
#include "mqtt/client.hpp"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace mqtt {

/// The communication state with its listeners, and whether a connection is wanted.
class CommunicationState {
public:
    using Listener = MqttClient::Listener;

    /// The client's members that this class works on.
    struct Members {
        std::recursive_mutex& mainMutex;
        std::recursive_mutex& stateMutex;
        std::condition_variable_any& changed;
        std::atomic<conv::ComState>& state;
        std::vector<Listener*>& listeners;
        std::string const& clientId;
    };

    CommunicationState(Members members, BrokerGate& gate) : members_(members), gate_(gate) {}

    /// Changes the state, calls the listeners and wakes those who wait for a state.
    void set(conv::ComState state);
    /// Leaves "disconnected" for "connecting"; from here on a connection is wanted.
    /// @return false in any other state; nothing has changed then
    bool startConnecting();
    bool waitFor(conv::ComState state, conv::SecondsDuration timeout);
    bool isDisconnected() const { return members_.state == conv::ComState::DISCONNECTED; }

    /// From here on no connection is wanted, until `startConnecting`.
    void giveUp() { givenUp_ = true; }
    bool isGivenUp() const { return givenUp_; }
    /// Whether there is a connection, or the search for one, that is not wanted.
    bool hasUnwantedConnection() const { return givenUp_ && !isDisconnected(); }

    void add(Listener* listener);
    void remove(Listener* listener);
    void removeAllListeners();
    /// Whether the calling thread is inside a call to a listener.
    bool isCallingListeners() const { return notifier_ == std::this_thread::get_id(); }

private:
    Members members_;
    BrokerGate& gate_;
    std::atomic<bool> givenUp_{false};
    std::atomic<std::thread::id> notifier_{std::thread::id()}; ///< who is calling listeners
    /// A copy to call: a listener may register and unregister, itself too. Never smaller than the
    /// list of listeners, so that a change of the state needs no memory.
    std::vector<Listener*> listenersBeingCalled_;
};

} // namespace mqtt
