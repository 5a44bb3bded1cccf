#include "client/arguments.hpp"
#include "client/implementation.hpp"
#include "mqtt/client.hpp"

#include <mosquitto.h>

#include <cerrno>
#include <optional>
#include <string_view>

namespace mqtt {

namespace {

using Error = MqttClient::Error;
using conv::ComState;

constexpr int MAX_PORT = 65535;
/// How long `disconnect` waits for a worker that a subscriber keeps in its network step.
constexpr std::chrono::seconds TURN_TIMEOUT{1};

bool reportsSuback(int level, std::string_view text) {
    constexpr std::string_view END = " received SUBACK";
    return level == MOSQ_LOG_DEBUG && text.size() >= END.size()
           && text.substr(text.size() - END.size()) == END;
}

} // namespace

Error MqttClient::connect(std::string host, int port, conv::SecondsDuration timeout) {
    auto& impl = *impl_;
    // On the worker, so in a subscriber or a listener, waiting for the worker would never end.
    if (!impl.state.isDisconnected() || onWorkerThread() || impl.state.isCallingListeners()) {
        return Error::CONNECTION_PENDING;
    }
    int result = 0;
    int systemError = 0;
    {
        CallersTurn const turn(impl.turn);
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
        if (!impl.state.startConnecting()) {
            return Error::CONNECTION_PENDING;
        }
        impl.gate.forgetDisconnect(); // it was for the last connection
        result = impl.network.connect(host, port);
        systemError = errno;
        if (result == 0) {
            host_.swap(host); // takes no memory
            port_ = port;
        }
    }
    if (result != 0) {
        errno = systemError;
        return static_cast<Error>(result);
    }
    return impl.state.waitFor(ComState::CONNECTED, timeout) ? Error::SUCCESS : Error::TIMEOUT;
}

Error MqttClient::disconnect(conv::SecondsDuration timeout) {
    auto& impl = *impl_;
    if (impl.state.isCallingListeners()) {
        return Error::CONNECTION_PENDING;
    }
    int result = 0;
    int systemError = 0;
    {
        // Between two network steps, so that nothing is read before the DISCONNECT packet is
        // written: a step may have read more messages than the one that is being dealt with. On the
        // worker, or if the turn does not come in time, the worker does it at the end of the step.
        std::optional<CallersTurn> turn;
        bool isDuringStep = onWorkerThread();
        if (!isDuringStep) {
            turn.emplace(impl.turn, TURN_TIMEOUT, [&] {
                isDuringStep = impl.gate.wakeNetworkStep();
                return isDuringStep;
            });
            isDuringStep = isDuringStep && !turn->isMine();
        }
        if (isDuringStep && impl.gate.leave()) {
            impl.state.giveUp();
        } else {
            result = impl.gate.disconnect();
            systemError = errno;
        }
    }
    if (result != 0) {
        errno = systemError;
        return static_cast<Error>(result);
    }
    // The worker writes the packet: on the worker itself waiting for that would be in vain.
    auto const wait = onWorkerThread() ? conv::SecondsDuration(0) : timeout;
    return impl.state.waitFor(ComState::DISCONNECTED, wait) ? Error::SUCCESS : Error::TIMEOUT;
}

void MqttClient::giveUp() {
    impl_->state.giveUp();
}

void MqttClient::pause() {
    paused_ = true;
}

void MqttClient::resume() {
    paused_ = false;
}

void MqttClient::registerListener(Listener* listener) {
    if (listener != nullptr) {
        impl_->state.add(listener);
    }
}

void MqttClient::unregisterListener(Listener* listener) {
    impl_->state.remove(listener);
}

Error MqttClient::setWill(Topic const& topic, std::string const& payload, int qos, bool retain) {
    std::lock_guard const lock(stateMutex_);
    if (comState_ != ComState::DISCONNECTED) {
        return Error::CONNECTION_PENDING;
    }
    // More than the library checks: a broker drops every connection with a will that is not valid.
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

void MqttClient::on_connect(int rc) {
    int const answer = rc & 0xFF; // the broker's answer is the low byte
    impl_->report.answered(answer);
    if (answer == 0) {
        impl_->worker.connectionAccepted();
    }
}

void MqttClient::on_disconnect(int rc) {
    int const systemError = errno;
    impl_->worker.connectionEnded(rc, systemError);
}

void MqttClient::on_log(int level, char const* text) {
    // The library also logs before it has a client, and after.
    if (impl_) {
        impl_->report.brokerLibraryWrote(level, text);
        if (reportsSuback(level, text)) {
            impl_->subscriptions.subscriptionAcknowledged();
        }
    }
}

Error MqttClient::setOptions(ConnectionOptions const& options) {
    std::lock_guard const lock(stateMutex_);
    if (comState_ != ComState::DISCONNECTED) {
        return Error::CONNECTION_PENDING;
    }
    return impl_->set(options);
}

Statistics MqttClient::statistics() const {
    Statistics result;
    impl_->gate.addTo(result);
    impl_->worker.addTo(result);
    impl_->endpointReport.addTo(result);
    result.received = impl_->received.get();
    result.receivedBytes = impl_->receivedBytes.get();
    result.receivedDropped = impl_->receivedDropped.get();
    return result;
}

Failure MqttClient::lastFailure() const {
    return impl_->report.lastFailure();
}

} // namespace mqtt
