#pragma once

// Observes the status of the plant and its entities, and the panel's own connection.

#include "plant.hpp"
#include "program.hpp"

#include <mqtt/client.hpp>
#include <mqtt/payloads.hpp>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

/// Prints the status of an entity, as long as the result exists. Values arrive on the client's
/// worker thread; a retained value arrives right after the subscription. `empty`: the value was
/// erased from the broker.
inline mqtt::Subscription<conv::ServiceStatus>
observeEntity(mqtt::MqttClient& client, std::string const& topic, std::string const& name) {
    mqtt::MqttData<conv::ServiceStatus> status(client, topic);
    return status.subscribe([name](conv::ServiceStatus const& now, bool empty) {
        if (!empty) {
            printLine("the " + name + (now.operating == CLOSED.operating ? " is closed" : " works")
                      + (now.health == RUNNING_LOW.health ? ", but is running low" : ""));
        }
    });
}

/// Waits until the plant is connected, or is not, and prints its states meanwhile. The state is
/// retained: a wait that begins later sees the last one.
inline void waitForPlant(mqtt::MqttClient& client, bool connected) {
    auto const isAwaited = [&](conv::CommunicationStatus const& now) {
        printLine("the plant: " + textOf(now.state));
        return (now.state == conv::ComState::CONNECTED) == connected;
    };
    mqtt::MqttData<conv::CommunicationStatus> communication(client, PLANT);
    conv::CommunicationStatus status;
    communication.waitFor(status, isAwaited, std::chrono::seconds::max());
}

/// Prints every change of the panel's connection. When it is lost, the last values of the plant may
/// be out of date.
class ConnectionObserver final : private mqtt::MqttClient::Listener {
public:
    explicit ConnectionObserver(mqtt::MqttClient& client) : client_(client) {
        client_.registerListener(this);
    }
    ~ConnectionObserver() { client_.unregisterListener(this); }
    ConnectionObserver(ConnectionObserver const&) = delete;
    ConnectionObserver& operator=(ConnectionObserver const&) = delete;

    void waitUntilLost() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return isLost_; });
    }

private:
    void onComStateChanged(conv::ComState state) override {
        printLine(textOf(state));
        std::lock_guard<std::mutex> const lock(mutex_);
        isLost_ = isLost_ || state == conv::ComState::CONNECTION_LOST;
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    bool isLost_ = false;
    mqtt::MqttClient& client_;
};
