#pragma once

#include "client/connection_losses.hpp"
#include "client/connection_report.hpp"
#include "client/queue_limiter.hpp"
#include "client/socket/socket_tuning.hpp"
#include "client/unanswered_subscriptions.hpp"
#include "common/workers_counter.hpp"
#include "mqtt/client.hpp"
#include "mqtt/connection_options.hpp"
#include "mqtt/statistics.hpp"

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace mqtt {

/// What became of a publication.
struct Submission {
    MqttClient::Error error = MqttClient::Error::SUCCESS;
    /// Reported to `on_publish` when the publication is done. Empty if it is queued or refused.
    std::optional<int> messageId;
};

/// The way to the broker library for all that is published, subscribed and unsubscribed, with the
/// queue of what is published while there is no connection.
///
/// Without a connection the library does not simply refuse: it keeps QoS 1 and 2 publications for
/// itself, and while TCP is connecting it writes packets ahead of CONNECT. So it is not called at
/// all then.
///
/// One lock guards the phase and the queue. It is held while the library is called: no other thread
/// can publish between the check for a connection and the sending of the queue. No other lock of
/// the client is taken under it.
class BrokerGate {
public:
    using Error = MqttClient::Error;

    BrokerGate(mosqpp::mosquittopp& library, std::deque<MqttClient::Publish>& queue,
               SocketTuning& tuning, ConnectionLosses& losses, ConnectionReport const& report)
        : library_(library), queue_(queue), tuning_(tuning), losses_(losses), report_(report) {}

    /// @return null if the queue has no limit
    std::unique_ptr<QueueLimiter> limiterFor(ConnectionOptions const& options);
    /// While no connection is wanted.
    void setLimits(ConnectionOptions const& options,
                   std::unique_ptr<QueueLimiter> limiter) noexcept;

    /// IN_TURN: with limits a publication may have to wait until the library has sent others.
    /// AT_ONCE: the library gets all that waits, and then the publication.
    enum class Urgency : std::uint8_t { IN_TURN, AT_ONCE };

    /// Hands a publication to the library or, without a connection, to the queue.
    Submission publish(Topic const& topic, std::string const& payload, int qos, bool retain,
                       Urgency urgency);
    Error clear(Topic const& topic);
    /// @return NO_CONN without a connection
    Error subscribe(int& mid, Topic const& topic);
    /// @param mid where to put the message id; may be null
    /// @return NO_CONN without a connection
    Error unsubscribe(int* mid, Topic const& topic);

    /// Ends a network step that waits for input. The library has no call for that. It wakes up for
    /// a packet to be sent, so a packet is sent that changes nothing. The step in which the broker
    /// accepts the connection no longer waits, and ends without that.
    /// @return false without a connection
    bool wakeNetworkStep();

    /// Hands a DISCONNECT packet to the library.
    /// @return the library's code; `errno` says more
    int disconnect();
    /// Sends nothing any more, until the worker calls `disconnect` at the end of the network step.
    /// @return false without a connection
    bool leave();
    /// Whether a DISCONNECT packet was handed over since the last call or `forgetDisconnect`.
    bool consumeDisconnect() { return hasDisconnect_.exchange(false); }
    void forgetDisconnect() { hasDisconnect_ = false; }

    /// Worker, in the network step: the broker has accepted the connection.
    void connectionAccepted();
    /// Worker: subscribes before the gate is online.
    Error subscribeAgain(Topic const& topic);
    /// Worker: sends the queue and becomes online.
    /// @return false if the connection broke or a DISCONNECT packet was handed over
    bool sendQueue();
    /// The connection has ended, or could not be made.
    /// @return whether a DISCONNECT packet was handed over
    bool goOffline();

    bool isOnline();
    /// Changes the communication state, but not to "connected" unless the gate is online: after a
    /// DISCONNECT packet the client must not become connected.
    /// @return whether the state is another one now
    bool changeState(std::atomic<conv::ComState>& current, conv::ComState next);
    void dropQueue();

    /// Worker: the broker has answered a subscription.
    void subscriptionAnswered(int messageId, bool isRefused);

    /// Worker: the library has sent a publication (QoS 0) or got its acknowledgement.
    void done(int messageId) {
        if (isLimited_.load(std::memory_order_relaxed)) {
            forget(messageId);
        }
    }
    /// Worker, after each network step: gives the library what waits although there is a
    /// connection.
    void sendMore() {
        if (isLimited_.load(std::memory_order_relaxed)) {
            fillLibrary();
        }
    }

    /// Fills in what this class counts.
    void addTo(Statistics& statistics);

private:
    /// OFFLINE -> ACCEPTED: the broker has accepted the connection.
    /// ACCEPTED -> ONLINE: the queue is sent.
    /// any -> LEAVING: the library has taken a DISCONNECT packet. What follows it would be lost.
    /// any -> OFFLINE: the connection has ended.
    enum class Phase : std::uint8_t { OFFLINE, ACCEPTED, ONLINE, LEAVING };

    Error handOverSubscription(int& mid, Topic const& topic);
    Error unsubscribe(int* mid, char const* topic);
    Error check(Topic const& topic, std::size_t payloadSize, int qos);
    bool mayHandOver(Topic const& topic, std::size_t payloadSize, Urgency urgency);
    void append(Topic const& topic, std::string const& payload, int qos, bool retain);
    void makeRoom(Topic const& topic, std::size_t payloadSize);
    bool sendFirst();
    void popFront();
    void forget(int messageId);
    void fillLibrary();
    Error handOver(int& mid, Topic const& topic, std::string const& payload, int qos, bool retain);

    mosqpp::mosquittopp& library_;
    std::deque<MqttClient::Publish>& queue_;
    SocketTuning& tuning_;
    ConnectionLosses& losses_;
    ConnectionReport const& report_;
    std::mutex mutex_;
    std::unique_ptr<QueueLimiter> limiter_; ///< null without limits
    std::atomic<bool> isLimited_{false};    ///< whether there is a limiter
    std::size_t maxPayload_ = QueueLimits::NO_LIMIT;
    std::uint64_t sent_ = 0;
    std::uint64_t sentBytes_ = 0;
    std::unique_ptr<Statistics::Dropped> dropped_; ///< null until there is a limit
    UnansweredSubscriptions unansweredSubscriptions_;
    WorkersCounter refusedSubscriptions_;
    Phase phase_ = Phase::OFFLINE;
    std::atomic<bool> hasDisconnect_{false}; ///< looked at by each network step, without the lock
};

} // namespace mqtt
