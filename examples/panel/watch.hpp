#pragma once

// Watching: what the plant and its entities say of themselves, and our own connection, without
// which we would not hear it.

#include "console.hpp"
#include "plant.hpp"

#include <mqtt/client.hpp>
#include <mqtt/payloads.hpp>

#include <condition_variable>
#include <mutex>
#include <string>

/// Prints what an entity says of how it is doing. Values come in on the client's worker thread,
/// each as a copy; one that is retained comes right after the subscription.
class EntityWatch final : private mqtt::MqttData<conv::ServiceStatus>::Subscriber {
public:
    EntityWatch(mqtt::MqttClient& client, std::string const& topic, std::string const& name)
        : name_(name), status_(client, topic) {
        status_.subscribe(this, 0);
    }

private:
    /// An empty one: the value has been erased from the broker.
    void onMqttData(conv::ServiceStatus const& status, bool empty, int /*id*/) override {
        if (empty) {
            return;
        }
        std::string const health = status.health == RUNNING_LOW ? ", but is running low" : "";
        say("the " + name_ + (status.operating == OPERATING ? " works" : " is closed") + health);
    }

    std::string const name_;
    // The last one, and so the first to go: its destructor waits for a value coming in.
    mqtt::MqttData<conv::ServiceStatus> status_;
};

/// Prints every change of the plant's connection and of ours, and waits for some.
class PlantWatch final : private mqtt::MqttClient::Listener,
                         private mqtt::MqttData<conv::CommunicationStatus>::Subscriber {
public:
    explicit PlantWatch(mqtt::MqttClient& client) : client_(client), communication_(client, PLANT) {
        client_.registerListener(this);
        communication_.subscribe(this, 0);
    }
    ~PlantWatch() { client_.unregisterListener(this); }
    PlantWatch(PlantWatch const&) = delete;
    PlantWatch& operator=(PlantWatch const&) = delete;

    void waitUntilThere() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return plant_ == ComState::CONNECTED; });
    }
    void waitUntilGone() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] {
            return plant_ == ComState::DISCONNECTED || plant_ == ComState::CONNECTION_LOST;
        });
    }
    void waitUntilTheBrokerWasLost() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return brokerWasLost_; });
    }

private:
    using ComState = conv::ComState;

    /// What the plant said before we lost the broker may have changed since: it counts no more.
    void onComStateChanged(ComState state) override {
        say(inWords(state));
        if (state == ComState::CONNECTION_LOST) {
            std::lock_guard<std::mutex> const lock(mutex_);
            brokerWasLost_ = true;
            plant_ = ComState::UNKNOWN;
            changed_.notify_all();
        }
    }

    void onMqttData(conv::CommunicationStatus const& status, bool empty, int /*id*/) override {
        if (empty) {
            return;
        }
        say("the plant: " + inWords(status.state));
        std::lock_guard<std::mutex> const lock(mutex_);
        plant_ = status.state;
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    ComState plant_ = ComState::UNKNOWN;
    bool brokerWasLost_ = false;
    mqtt::MqttClient& client_;
    mqtt::MqttData<conv::CommunicationStatus> communication_;
};
