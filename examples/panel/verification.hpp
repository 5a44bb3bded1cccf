#pragma once

// Checks what the broker retains. The check functions of the library are made for the test programs
// of a device: they connect to localhost, port 1883, only. With any other broker the panel checks
// by itself.

#include "console.hpp"
#include "plant.hpp"

#include <mqtt/client.hpp>
#include <mqtt/link.hpp>
#include <mqtt/test_checks.hpp>

#include <future>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

inline Uuid const RETAINED_MESSAGES_ID(6);

inline bool isStandardBroker(std::string const& host, int port) {
    return port == 1883 && (host == "localhost" || host == "127.0.0.1");
}

/// Waits for the first list of links, and checks that it names the plant's entities and no others.
class LinkCheck final : private mqtt::MqttData<std::vector<mqtt::Link>>::Subscriber {
public:
    explicit LinkCheck(mqtt::MqttClient& client) : links_(client, PLANT) {
        links_.subscribe(this, 0);
    }

    void run() {
        first_.get_future().wait();
        if (!mqtt::checkCollectionPublished({TANK_ID, PUMP_ID, VALVE_ID}, links_)) {
            throw std::runtime_error("the links are not those of tank, pump and valve");
        }
        printLine("the links are those of tank, pump and valve");
    }

private:
    void onMqttData(std::vector<mqtt::Link> const& /*links*/, bool empty, int /*id*/) override {
        if (!empty && !std::exchange(arrived_, true)) {
            first_.set_value();
        }
    }

    bool arrived_ = false; // used on the worker thread only
    std::promise<void> first_;
    mqtt::MqttDataCollection<mqtt::Link> links_;
};

/// Counts the retained messages below the plant. The broker sends them right after a subscription,
/// so all have arrived when a message arrives that is published after it. It has its own
/// connection, since a client passes a message to one of its subscriptions only, and the panel has
/// others.
class RetainedMessages final : private mqtt::MqttClient::Subscriber {
public:
    RetainedMessages(std::string const& host, int port)
        : client_(RETAINED_MESSAGES_ID, false, "residue", host, port, true) {}
    ~RetainedMessages() override { client_.release(this); }
    RetainedMessages(RetainedMessages const&) = delete;
    RetainedMessages& operator=(RetainedMessages const&) = delete;

    int count() {
        using mqtt::MqttClient;
        if (client_.subscribe(PLANT + "#", this, 0) != MqttClient::Error::SUCCESS
            || client_.publish(mark_, "that is all", 0, false) != MqttClient::Error::SUCCESS) {
            throw std::runtime_error("cannot look at what is retained");
        }
        return found_.get_future().get();
    }

private:
    void onMqttMessage(int /*tag*/, mqtt::Topic const& topic,
                       std::string const& /*payload*/) override {
        if (topic == mark_) {
            found_.set_value(count_);
        } else {
            ++count_;
            printLine("still there: " + topic.text());
        }
    }

    mqtt::Topic const mark_ = PLANT + "mark";
    int count_ = 0; // used on the worker thread only
    std::promise<int> found_;
    mqtt::MqttClient client_;
};

/// Counts its checks. A check that fails throws.
class Verification {
public:
    Verification(mqtt::MqttClient& client, std::string const& host, int port)
        : client_(client), host_(host), port_(port), isStandard_(isStandardBroker(host, port)) {
        if (!isStandard_) {
            printLine("the check functions look at localhost:1883 only: on " + host + ':'
                      + std::to_string(port) + " the panel looks for itself");
        }
    }

    void verifyLinks() {
        LinkCheck(client_).run();
        if (isStandard_) {
            mqtt::testLinkInCollection(topicOf(TANK_ID).text(), PLANT,
                                       "Check that the tank belongs to the plant", counter_);
        }
    }

    void verifyNothingRetained() {
        if (isStandard_) {
            mqtt::testTopicClean(PLANT + "#", counter_);
            printLine("the check functions: " + std::to_string(counter_.started) + " checks, "
                      + std::to_string(counter_.passed) + " passed");
        } else if (RetainedMessages(host_, port_).count() > 0) {
            throw std::runtime_error("the broker still retains something of the plant");
        }
        printLine("the broker retains nothing of the plant");
    }

private:
    mqtt::MqttClient& client_;
    std::string const host_;
    int const port_;
    bool const isStandard_;
    mqtt::TestCounter counter_;
};
