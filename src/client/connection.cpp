#include "client/arguments.hpp"
#include "client/engine.hpp"
#include "common/user_call.hpp"
#include "common/wait.hpp"
#include "mqtt/client.hpp"

#include <algorithm>
#include <cerrno>

namespace mqtt {

namespace {

using Error = MqttClient::Error;
using conv::ComState;

constexpr int MAX_PORT = 65535;

/// A caller's turn, to the end of its scope.
class CallersTurn {
public:
    explicit CallersTurn(NetworkTurn& turn) : turn_(turn) { turn_.take(); }
    ~CallersTurn() { turn_.giveBack(); }
    CallersTurn(CallersTurn const&) = delete;
    CallersTurn& operator=(CallersTurn const&) = delete;

private:
    NetworkTurn& turn_;
};

} // namespace

Error MqttClient::connect(std::string host, int port, conv::SecondsDuration timeout) {
    // On the worker, so in a subscriber or a listener, waiting for the worker would be for ever.
    if (comState_ != ComState::DISCONNECTED || onWorkerThread()
        || engine_->notifier == std::this_thread::get_id()) {
        return Error::CONNECTION_PENDING;
    }
    int result = 0;
    int systemError = 0;
    {
        CallersTurn const turn(engine_->turn);
        if (host.empty()) {
            host = host_;
        }
        if (port < 0) {
            port = port_;
        }
        // The library would accept some of these and go on with the last good host.
        if (port < 0 || port > MAX_PORT) {
            return Error::INVALID_PARAMETER;
        }
        if (!leaveDisconnected()) {
            return Error::CONNECTION_PENDING;
        }
        engine_->flushFirst = false; // meant for the last connection
        result = mosqpp::mosquittopp::connect(host.c_str(), port, HEART_BEAT_RATE.toInt32());
        systemError = errno;
        if (result == 0) {
            engine_->tuning.connected(socket());
            host_.swap(host); // takes no memory
            port_ = port;
        }
    }
    if (result != 0) {
        errno = systemError;
        return static_cast<Error>(result);
    }
    return waitForComState(ComState::CONNECTED, timeout) ? Error::SUCCESS : Error::TIMEOUT;
}

Error MqttClient::disconnect(conv::SecondsDuration timeout) {
    if (engine_->notifier == std::this_thread::get_id()) {
        return Error::CONNECTION_PENDING;
    }
    // Between two network steps, so that nothing is read before the DISCONNECT packet is
    // written. A worker that stays in its step, as a subscriber keeps it there, is left there.
    constexpr std::chrono::seconds patience{1};
    bool const haveTurn =
        !onWorkerThread() && engine_->turn.takeWithin(patience, [this] { return wakeWorker(); });
    int result = 0;
    int systemError = 0;
    {
        std::lock_guard const lock(engine_->gate.mutex);
        result = mosqpp::mosquittopp::disconnect();
        systemError = errno;
        if (result == 0) {
            // What is published from here on would follow the DISCONNECT packet and be lost.
            engine_->gate.online = false;
            engine_->gate.leaving = true;
            engine_->flushFirst = true;
        }
    }
    if (haveTurn) {
        engine_->turn.giveBack();
    }
    if (result != 0) {
        errno = systemError;
        return static_cast<Error>(result);
    }
    // It is the worker that writes the packet, so in there the wait would be in vain.
    auto const patienceForState = onWorkerThread() ? conv::SecondsDuration(0) : timeout;
    return waitForComState(ComState::DISCONNECTED, patienceForState) ? Error::SUCCESS
                                                                     : Error::TIMEOUT;
}

void MqttClient::giveUp() {
    engine_->givenUp = true;
}

void MqttClient::pause() {
    paused_ = true;
}

void MqttClient::resume() {
    paused_ = false;
}

void MqttClient::registerListener(Listener* listener) {
    if (listener == nullptr) {
        return;
    }
    std::lock_guard const lock(stateMutex_);
    if (std::find(listeners_.begin(), listeners_.end(), listener) != listeners_.end()) {
        return;
    }
    // Now, or a change of the state could run out of memory.
    engine_->told.reserve(listeners_.size() + 1);
    listeners_.push_back(listener);
}

void MqttClient::unregisterListener(Listener* listener) {
    std::lock_guard const lock(stateMutex_);
    auto const found = std::find(listeners_.begin(), listeners_.end(), listener);
    if (found != listeners_.end()) {
        listeners_.erase(found);
    }
}

Error MqttClient::setWill(Topic const& topic, std::string const& payload, int qos, bool retain) {
    std::lock_guard const lock(stateMutex_);
    if (comState_ != ComState::DISCONNECTED) {
        return Error::CONNECTION_PENDING;
    }
    // More than the library checks: with a will like that the broker drops every connection.
    auto const refused = checkPublication(topic, payload.size(), qos);
    if (refused != Error::SUCCESS) {
        return refused;
    }
    if (payload.size() > MAX_WILL_PAYLOAD) {
        return Error::PAYLOAD_SIZE;
    }
    return static_cast<Error>(will_set(topic.text().c_str(), static_cast<int>(payload.size()),
                                       payload.data(), qos, retain));
}

Error MqttClient::clearWill() {
    std::lock_guard const lock(stateMutex_);
    if (comState_ != ComState::DISCONNECTED) {
        return Error::CONNECTION_PENDING;
    }
    return static_cast<Error>(will_clear());
}

bool MqttClient::onWorkerThread() const {
    return worker_.get_id() == std::this_thread::get_id();
}

bool MqttClient::leaveDisconnected() {
    std::lock_guard const mainLock(mainMutex_);
    std::lock_guard const lock(stateMutex_);
    if (comState_ != ComState::DISCONNECTED) {
        return false;
    }
    // Before the listeners hear of it: they may give up.
    engine_->givenUp = false;
    setComState(ComState::CONNECTING);
    return true;
}

void MqttClient::setComState(ComState state) {
    // The main lock too, and first: a listener may subscribe.
    std::lock_guard const mainLock(mainMutex_);
    std::lock_guard const lock(stateMutex_);
    if (!changeComState(state)) {
        return;
    }
    engine_->notifier = std::this_thread::get_id();
    // A copy: a listener may register and unregister, itself too.
    auto& told = engine_->told;
    told = listeners_;
    // NOLINTNEXTLINE(modernize-loop-convert): to register may move the copy
    for (std::size_t i = 0; i < told.size(); ++i) {
        callUser([&] { told[i]->onComStateChanged(state); });
    }
    engine_->notifier = std::thread::id();
    stateChanged_.notify_all();
}

/// @return whether it is another state than before
bool MqttClient::changeComState(ComState state) {
    std::lock_guard const lock(engine_->gate.mutex);
    // Told to disconnect since the queue was drained: it must not become connected after that.
    bool const tooLate = state == ComState::CONNECTED && !engine_->gate.online;
    return !tooLate && comState_.exchange(state) != state;
}

bool MqttClient::waitForComState(ComState state, conv::SecondsDuration timeout) {
    std::unique_lock lock(stateMutex_);
    return waitUntil(stateChanged_, lock, timeout.toTimepoint(std::chrono::steady_clock::now()),
                     [&] { return comState_ == state; });
}

} // namespace mqtt
