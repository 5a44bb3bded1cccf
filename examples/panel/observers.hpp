#pragma once

// Observes the status of the plant and its entities, and the panel's own connection.

#include "console.hpp"
#include "plant.hpp"

#include <mqtt/client.hpp>
#include <mqtt/payloads.hpp>

#include <condition_variable>
#include <mutex>
#include <string>

/// Prints the status of an entity. Values arrive on the client's worker thread, each as a copy; a
/// retained value arrives right after the subscription.
class EntityObserver final : private mqtt::MqttData<conv::ServiceStatus>::Subscriber {
public:
    EntityObserver(mqtt::MqttClient& client, std::string const& topic, std::string const& name)
        : name_(name), status_(client, topic) {
        status_.subscribe(this, 0);
    }

private:
    /// `empty`: the value was erased from the broker.
    void onMqttData(conv::ServiceStatus const& status, bool empty, int /*id*/) override {
        if (empty) {
            return;
        }
        std::string const health = status.health == RUNNING_LOW ? ", but is running low" : "";
        printLine("the " + name_ + (status.operating == OPERATING ? " works" : " is closed")
                  + health);
    }

    std::string const name_;
    // Declared last and so destroyed first: its destructor waits for a value being handled.
    mqtt::MqttData<conv::ServiceStatus> status_;
};

/// Prints every change of the plant's connection and of the panel's, and can wait for a change.
class PlantObserver final : private mqtt::MqttClient::Listener,
                            private mqtt::MqttData<conv::CommunicationStatus>::Subscriber {
public:
    explicit PlantObserver(mqtt::MqttClient& client)
        : client_(client), communication_(client, PLANT) {
        client_.registerListener(this);
        communication_.subscribe(this, 0);
    }
    ~PlantObserver() { client_.unregisterListener(this); }
    PlantObserver(PlantObserver const&) = delete;
    PlantObserver& operator=(PlantObserver const&) = delete;

    void waitUntilConnected() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return plant_ == ComState::CONNECTED; });
    }
    void waitUntilGone() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] {
            return plant_ == ComState::DISCONNECTED || plant_ == ComState::CONNECTION_LOST;
        });
    }
    void waitUntilBrokerLost() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return brokerLost_; });
    }

private:
    using ComState = conv::ComState;

    /// After a loss of the broker the last state of the plant is no longer known.
    void onComStateChanged(ComState state) override {
        printLine(textOf(state));
        if (state == ComState::CONNECTION_LOST) {
            std::lock_guard<std::mutex> const lock(mutex_);
            brokerLost_ = true;
            plant_ = ComState::UNKNOWN;
            changed_.notify_all();
        }
    }

    void onMqttData(conv::CommunicationStatus const& status, bool empty, int /*id*/) override {
        if (empty) {
            return;
        }
        printLine("the plant: " + textOf(status.state));
        std::lock_guard<std::mutex> const lock(mutex_);
        plant_ = status.state;
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    ComState plant_ = ComState::UNKNOWN;
    bool brokerLost_ = false;
    mqtt::MqttClient& client_;
    mqtt::MqttData<conv::CommunicationStatus> communication_;
};
