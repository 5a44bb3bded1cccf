#include "client/worker.hpp"

#include "client/backoff.hpp"
#include "client/socket/connect_break.hpp"
#include "mqtt/client.hpp"

#include <csignal>
#include <new>
#include <utility>

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace mqtt {

namespace {

using conv::ComState;
using std::chrono::milliseconds;

constexpr int OK = static_cast<int>(MqttClient::Error::SUCCESS);
constexpr int NO_CONN = static_cast<int>(MqttClient::Error::NO_CONN);
constexpr int CONN_LOST = static_cast<int>(MqttClient::Error::CONN_LOST);

constexpr milliseconds PAUSE{500};
/// The longest wait for the broker while a relay stands between. Nothing wakes it.
constexpr milliseconds RELAY_WAIT{10};

/// Blocks the signals of the process in the calling thread, and in those that it starts, to the end
/// of its scope. Signals that a fault raises in a thread are not blocked: their handlers run in
/// that thread only.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        for (int const fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) {
            sigdelset(&all, fault);
        }
        ::pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(SignalsBlocked const&) = delete;
    SignalsBlocked& operator=(SignalsBlocked const&) = delete;

private:
    sigset_t before_{};
};

} // namespace

bool WorkerEnd::sleep(milliseconds duration) {
    std::unique_lock lock(mutex_);
    return !changed_.wait_for(lock, duration, [this] { return isAskedFor_; });
}

void WorkerEnd::askFor() {
    std::lock_guard const lock(mutex_);
    isAskedFor_ = true;
    changed_.notify_all();
}

void WorkerEnd::reached() {
    std::lock_guard const lock(mutex_);
    isReached_ = true;
    changed_.notify_all();
}

bool WorkerEnd::waitFor(milliseconds duration) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, duration, [this] { return isReached_; });
}

Worker::Worker(Members members, NetworkTurn& turn, Network& network, BrokerGate& gate,
               ConnectionLosses& losses, CommunicationState& state, Subscriptions& subscriptions,
               ConnectionReport& report)
    : members_(members),
      turn_(turn),
      network_(network),
      gate_(gate),
      losses_(losses),
      state_(state),
      subscriptions_(subscriptions),
      report_(report) {}

void Worker::start() {
    SignalsBlocked const inheritedByTheThread;
    members_.thread = std::thread([this] { loop(); });
}

void Worker::end() noexcept {
    members_.stop = true;
    end_.askFor();
    turn_.end();
    gate_.wakeNetworkStep();
    while (!end_.waitFor(milliseconds(50))) {
        // A host that does not answer keeps the worker in `reconnect` for minutes. No callback
        // follows on the worker when that is broken: it has been told to stop.
        if (reconnecting_) {
            breakConnect(kernelId_);
        }
    }
    members_.thread.join();
}

int Worker::loop() {
    ::pthread_setname_np(::pthread_self(), "zym-mqtt");
    kernelId_ = static_cast<pid_t>(::syscall(SYS_gettid));
    while (!members_.stop) {
        if (members_.paused && !state_.hasUnwantedConnection()) {
            end_.sleep(PAUSE);
        } else {
            networkStep();
        }
    }
    finish();
    end_.reached();
    return 0;
}

void Worker::networkStep() {
    turn_.enter();
    if (state_.hasUnwantedConnection() && gate_.disconnect() == NO_CONN) {
        // An earlier DISCONNECT packet may have been for a connection that never came up.
        gate_.goOffline();
        state_.set(ComState::DISCONNECTED);
    }
    if (gate_.consumeDisconnect()) {
        writeDisconnect();
    }
    int const result = step();
    if (result == OK && isAccepted_ && !relay_) {
        completeConnection();
    }
    gate_.sendMore();
    if (subscriptions_.holdsBack()) {
        subscriptions_.sendHeldBack(SubscriptionOrder::Clock::now());
    }
    // Decided while we have the turn: a caller that connects leaves "disconnected" only when it has
    // it, and a result from before says nothing about the connection that has come up since.
    bool const lost = (result == NO_CONN || result == CONN_LOST) && !state_.isDisconnected();
    // A DISCONNECT packet may have been for a connection that never came up.
    bool const retry = lost && !gate_.goOffline();
    if (lost && !retry) {
        state_.set(ComState::DISCONNECTED);
    }
    turn_.leave();

    if (result == OK) {
        resetReconnectAttempts();
    } else if (retry) {
        backOffAndReconnect();
    } else if (sleepsWhileDisconnected_ && result == NO_CONN && state_.isDisconnected()) {
        turn_.waitForCaller();
    } else {
        std::this_thread::yield();
    }
}

int Worker::step() {
    if (!relay_) {
        return network_.step();
    }
    try {
        return stepOfTheRelay();
    } catch (std::bad_alloc const&) {
        relay_.reset(); // closes the connection: the next step notices it
        return OK;
    }
}

int Worker::stepOfTheRelay() {
    int result = relay_->step(RELAY_WAIT);
    if (result == OK && relay_->isLost()) {
        giveUpUnanswered();
        result = relay_->closeConnection();
    }
    if (result == OK && relay_->isDone()) {
        relay_->giveBack();
        relay_.reset();
    } else if (result != OK) {
        relay_.reset();
    }
    return result;
}

/// A publication that was lost three times would be sent again with each connection, and the broker
/// would close each one: nothing would arrive any more.
void Worker::giveUpUnanswered() {
    auto const& publication = relay_->unanswered();
    if (!publication) {
        return;
    }
    losses_.lostAlone(publication->messageId);
    if (losses_.isCause(publication->messageId)) {
        isGivingUpAPublication_ = true;
        bool const isGivenUp = relay_->acknowledgeUnanswered();
        isGivingUpAPublication_ = false;
        if (isGivenUp) {
            givenUp_.add(1);
            report_.publicationGivenUp(publication->topic, publication->payloadSize);
        }
    }
}

void Worker::writeDisconnect() {
    if (relay_) {
        relay_->sendDisconnect();
        relay_.reset();
    }
    network_.writeDisconnect();
}

void Worker::backOffAndReconnect() {
    auto const delay = reconnectDelay(nextReconnectAttempt());
    report_.waitsForNextAttempt(delay);
    if (!end_.sleep(delay)) {
        return;
    }
    turn_.enter();
    reconnecting_ = true;
    // Once the end was asked for, `reconnecting_` may have been looked at already: do not begin.
    if (!members_.stop && !state_.isGivenUp()) {
        reconnect();
    }
    reconnecting_ = false;
    turn_.leave();
}

void Worker::reconnect() {
    relay_.reset();
    if (network_.reconnect() != OK || !losses_.isPublicationSuspected()) {
        return;
    }
    try {
        relay_ = network_.relay();
    } catch (std::bad_alloc const&) {
        // The connection is as any other one.
    }
}

/// Lets the broker have the unsubscriptions of the destructor before the connection is closed.
void Worker::finish() {
    if (gate_.consumeDisconnect()) {
        writeDisconnect();
    }
    if (gate_.isOnline()) {
        network_.writeLastPackets();
    }
}

void Worker::connectionAccepted() {
    isAccepted_ = true;
    gate_.connectionAccepted();
    hadConnection_ = true;
    connections_.add(1);
    reconnections_.add(std::exchange(wasLost_, false) ? 1 : 0);
    losses_.connectionAccepted(ConnectionLosses::Clock::now());
}

void Worker::connectionEnded(int result, int systemError) {
    // A broker's answer that crosses our DISCONNECT packet makes the library forget the packet.
    bool const intended = gate_.goOffline() || result == OK;
    losses_.connectionEnded(ConnectionLosses::Clock::now(), intended);
    isAccepted_ = false;
    wasLost_ = !intended && (wasLost_ || hadConnection_);
    hadConnection_ = false;
    if (!intended) {
        report_.failed(result, systemError);
    }
    state_.set(intended ? ComState::DISCONNECTED : ComState::CONNECTION_LOST);
}

void Worker::addTo(Statistics& statistics) const {
    statistics.connections = connections_.get();
    statistics.reconnections = reconnections_.get();
    statistics.dropped.givenUp = givenUp_.get();
    statistics.lastNetworkStep = turn_.left();
}

void Worker::completeConnection() {
    auto const lock = subscriptions_.lock();
    isAccepted_ = false;
    if (subscriptions_.subscribeAgain() && gate_.sendQueue()) {
        report_.connectionCompleted();
        state_.set(ComState::CONNECTED);
    }
}

} // namespace mqtt
