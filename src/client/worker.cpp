// The worker thread: network steps, the way back to a lost broker, and what has to be done
// when a connection stands.
//
// Everything that the broker library calls back runs inside a network step on this thread.
// Completing a connection does not: the library sends its own unacknowledged publications
// again only after `on_connect` has returned, and a newer value sent from in there would be
// overtaken by an older one. So `on_connect` only takes note, and the step's end does the rest.

#include "client/backoff.hpp"
#include "client/engine.hpp"
#include "client/socket/farewell.hpp"
#include "mqtt/client.hpp"

#include <utility>

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace mqtt {

namespace {

constexpr int OK = static_cast<int>(MqttClient::Error::SUCCESS);
constexpr int NO_CONN = static_cast<int>(MqttClient::Error::NO_CONN);
constexpr int CONN_LOST = static_cast<int>(MqttClient::Error::CONN_LOST);

// How long a broker may take to hear the end.
constexpr std::chrono::seconds LAST_WORDS{1};

// Nobody is subscribed to this one.
constexpr char const* WAKE_TOPIC = "$zym/wake";

} // namespace

int MqttClient::loop() {
    ::pthread_setname_np(::pthread_self(), "zym-mqtt");
    engine_->workerId = static_cast<pid_t>(::syscall(SYS_gettid));
    while (!stop_) {
        if (paused_ && !isLeaving()) {
            engine_->life.sleep(std::chrono::milliseconds(500));
        } else {
            networkStep();
        }
    }
    takeLeave();
    engine_->life.ended();
    return 0;
}

/// There is a connection, or the search for one, that nobody wants any more.
bool MqttClient::isLeaving() const {
    return engine_->givenUp && comState_ != conv::ComState::DISCONNECTED;
}

void MqttClient::networkStep() {
    auto& engine = *engine_;
    engine.turn.enter();
    if (isLeaving() && disconnect(0) == Error::NO_CONN) {
        // An earlier DISCONNECT packet may have been for a connection that never came up.
        closeGate();
        setComState(conv::ComState::DISCONNECTED);
    }
    if (engine.flushFirst.exchange(false)) {
        flushDisconnect();
    }
    int const result = step(engine.tuning.patience());
    if (result == OK) {
        engine.tuning.stepped(socket(), want_write());
        if (engine.acknowledged) {
            completeConnection();
        }
    }
    // Decided while we have the turn: a caller that connects leaves state 1 only when it has it,
    // and a result from before says nothing about the connection that has come up since.
    bool const lost =
        (result == NO_CONN || result == CONN_LOST) && comState_ != conv::ComState::DISCONNECTED;
    // There was a DISCONNECT packet for a connection that never came up.
    bool const retry = lost && !closeGate();
    if (lost && !retry) {
        setComState(conv::ComState::DISCONNECTED);
    }
    engine.turn.leave();

    if (result == OK) {
        resetReconnectAttempts();
    } else if (retry) {
        backOffAndReconnect();
    } else {
        std::this_thread::yield();
    }
}

void MqttClient::backOffAndReconnect() {
    auto& engine = *engine_;
    if (!engine.life.sleep(reconnectDelay(nextReconnectAttempt()))) {
        return;
    }
    engine.turn.enter();
    engine.reconnecting = true;
    // Once asked to end, `reconnecting` may have been looked at already: do not begin.
    if (!stop_ && !engine.givenUp && mosqpp::mosquittopp::reconnect() == OK) {
        engine.tuning.connected(socket());
    }
    engine.reconnecting = false;
    engine.turn.leave();
}

/// Writes the DISCONNECT packet before anything is read: a message read after `disconnect` is a
/// protocol error to the library, which then drops the connection, and the broker publishes the
/// will.
void MqttClient::flushDisconnect() {
    auto const deadline = std::chrono::steady_clock::now() + LAST_WORDS;
    Farewell const farewell(socket());
    flushOutput(deadline);
    if (socket() < 0) {
        farewell.waitForPeer(deadline);
    }
}

/// Lets the broker have what the destructor has sent, the unsubscriptions, before the connection
/// is closed.
void MqttClient::takeLeave() {
    if (engine_->flushFirst.exchange(false)) {
        flushDisconnect();
    }
    {
        std::lock_guard const lock(engine_->gate.mutex);
        if (!engine_->gate.online) {
            return;
        }
    }
    auto const deadline = std::chrono::steady_clock::now() + LAST_WORDS;
    flushOutput(deadline);
    Farewell(socket()).waitForPeer(deadline);
}

void MqttClient::flushOutput(std::chrono::steady_clock::time_point deadline) {
    while (socket() >= 0 && want_write() && loop_write(1) == OK && socket() >= 0 && want_write()
           && std::chrono::steady_clock::now() < deadline) {
        waitForOutput(socket());
    }
}

/// Ends a network step that waits for input. The library has no call for that; it wakes up for a
/// packet to be sent, so we send one that changes nothing. False without a connection.
bool MqttClient::wakeWorker() {
    return unsubscribeAtBroker(nullptr, WAKE_TOPIC) == Error::SUCCESS;
}

void MqttClient::on_connect(int rc) {
    // The broker's answer is the low byte.
    if ((rc & 0xFF) == 0) {
        engine_->acknowledged = true;
    }
}

void MqttClient::on_disconnect(int rc) {
    // The broker's consent makes the library forget that it was told to disconnect.
    bool const intended = closeGate() || rc == 0;
    engine_->acknowledged = false;
    setComState(intended ? conv::ComState::DISCONNECTED : conv::ComState::CONNECTION_LOST);
}

/// The connection has ended. @return whether it was told to
bool MqttClient::closeGate() {
    std::lock_guard const lock(engine_->gate.mutex);
    engine_->gate.online = false;
    return std::exchange(engine_->gate.leaving, false);
}

void MqttClient::completeConnection() {
    std::lock_guard const lock(mainMutex_);
    engine_->acknowledged = false;
    if (resubscribe() && drainQueue()) {
        setComState(conv::ComState::CONNECTED);
    }
}

bool MqttClient::resubscribe() {
    for (auto const& entry : subscriptions_) {
        engine_->tuning.issued();
        if (mosqpp::mosquittopp::subscribe(nullptr, entry.first.text().c_str(), 0) == CONN_LOST) {
            return false;
        }
    }
    return true;
}

bool MqttClient::drainQueue() {
    std::lock_guard const lock(engine_->gate.mutex);
    if (engine_->gate.leaving) {
        return false;
    }
    while (!queue_.empty()) {
        auto const& first = queue_.front();
        engine_->tuning.issued(first.qos != 0);
        int const result = mosqpp::mosquittopp::publish(
            nullptr, first.topic.text().c_str(), static_cast<int>(first.payload.size()),
            first.payload.data(), first.qos, first.retain);
        // NO_CONN too: but then the library has kept a QoS 1 or 2 publication for itself.
        if (result == CONN_LOST || (result == NO_CONN && first.qos == 0)) {
            return false;
        }
        queue_.pop_front();
        if (result == NO_CONN) {
            return false;
        }
    }
    engine_->gate.online = true;
    return true;
}

} // namespace mqtt
