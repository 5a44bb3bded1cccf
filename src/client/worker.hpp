#pragma once

#include "client/broker_gate.hpp"
#include "client/communication_state.hpp"
#include "client/connection_losses.hpp"
#include "client/connection_report.hpp"
#include "client/network.hpp"
#include "client/network_turn.hpp"
#include "client/one_by_one_relay.hpp"
#include "client/subscriptions.hpp"
#include "common/workers_counter.hpp"
#include "mqtt/statistics.hpp"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include <sys/types.h>

namespace mqtt {

/// The end of the worker thread: interrupts its sleeps, and is waited for.
class WorkerEnd {
public:
    /// Worker: sleeps; returns early, with false, once the end is asked for.
    bool sleep(std::chrono::milliseconds duration);
    void askFor();
    /// Worker: the last call.
    void reached();
    /// @return whether the end is reached
    bool waitFor(std::chrono::milliseconds duration);

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool isAskedFor_ = false;
    bool isReached_ = false;
};

/// The worker thread: network steps, reconnecting, and what has to be done when the broker has
/// accepted a connection.
///
/// Everything that the broker library calls back runs inside a network step on this thread.
/// Completing a connection does not: the library sends its own unacknowledged publications again
/// only after `on_connect` has returned, and a newer value sent in there would be overtaken by an
/// older one. So `on_connect` only takes note, and the end of the step does the rest.
class Worker {
public:
    /// The client's members that this class works on.
    struct Members {
        std::atomic<bool>& stop;
        std::atomic<bool>& paused;
        std::thread& thread;
    };

    Worker(Members members, NetworkTurn& turn, Network& network, BrokerGate& gate,
           ConnectionLosses& losses, CommunicationState& state, Subscriptions& subscriptions,
           ConnectionReport& report);

    void setSleepsWhileDisconnected(bool sleeps) { sleepsWhileDisconnected_ = sleeps; }

    /// Fills in what this class counts. In any thread.
    void addTo(Statistics& statistics) const;

    /// @throws std::system_error there is no thread to be had
    void start();
    /// Ends the thread and waits for that.
    void end() noexcept;
    bool isCurrentThread() const { return members_.thread.get_id() == std::this_thread::get_id(); }

    /// Worker: the broker has accepted the connection.
    void connectionAccepted();
    /// Worker: the connection has ended, because of a DISCONNECT packet if the result is 0.
    void connectionEnded(int result, int systemError);
    /// Worker: whether the library is acknowledging a publication that the broker did not take.
    bool isGivingUpAPublication() const { return isGivingUpAPublication_; }

private:
    int loop();
    void networkStep();
    int step();
    int stepOfTheRelay();
    void giveUpUnanswered();
    void writeDisconnect();
    void completeConnection();
    void backOffAndReconnect();
    void reconnect();
    void finish();

    Members members_;
    NetworkTurn& turn_;
    Network& network_;
    BrokerGate& gate_;
    ConnectionLosses& losses_;
    CommunicationState& state_;
    Subscriptions& subscriptions_;
    ConnectionReport& report_;
    WorkerEnd end_;
    std::unique_ptr<OneByOneRelay> relay_; ///< worker: makes the network steps if there is one
    WorkersCounter connections_;
    WorkersCounter reconnections_;
    WorkersCounter givenUp_;
    bool isAccepted_ = false; ///< worker: the connection is to be completed
    bool isGivingUpAPublication_ = false;
    bool hadConnection_ = false; ///< the broker has accepted the one under way
    bool wasLost_ = false;       ///< a connection, and there was none since
    std::atomic<bool> sleepsWhileDisconnected_{false};
    std::atomic<bool> reconnecting_{false};
    std::atomic<pid_t> kernelId_{0}; ///< of the thread
};

} // namespace mqtt
