#pragma once

// Checking what stands on the broker. The check functions of the library are made for the test
// programs of a device and look at the broker on localhost, port 1883, and nowhere else. On any
// other broker we look for ourselves.

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

inline Uuid const RESIDUE_ID(6);

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
        say("the links are those of tank, pump and valve");
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

/// Counts what is retained below the plant. Retained messages come right after a subscription, so
/// all of them are here when a message arrives that is published after it. The connection is its
/// own: one connection hands a message to one of its subscriptions only, and the panel has others.
class Residue final : private mqtt::MqttClient::Subscriber {
public:
    Residue(std::string const& host, int port)
        : client_(RESIDUE_ID, false, "residue", host, port, true) {}
    ~Residue() override { client_.release(this); }
    Residue(Residue const&) = delete;
    Residue& operator=(Residue const&) = delete;

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
            say("still there: " + topic.text());
        }
    }

    mqtt::Topic const mark_ = PLANT + "mark";
    int count_ = 0; // used on the worker thread only
    std::promise<int> found_;
    mqtt::MqttClient client_;
};

/// Counts its checks; a check that fails has said so, and throws.
class Verification {
public:
    Verification(mqtt::MqttClient& client, std::string const& host, int port)
        : client_(client), host_(host), port_(port), isStandard_(isStandardBroker(host, port)) {
        if (!isStandard_) {
            say("the check functions look at localhost:1883 only: on " + host + ':'
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

    void verifyThatAllIsClean() {
        if (isStandard_) {
            mqtt::testTopicClean(PLANT + "#", counter_);
            say("the check functions: " + std::to_string(counter_.started) + " checks, "
                + std::to_string(counter_.passed) + " passed");
        } else if (Residue(host_, port_).count() > 0) {
            throw std::runtime_error("the broker still retains something of the plant");
        }
        say("the broker retains nothing of the plant");
    }

private:
    mqtt::MqttClient& client_;
    std::string const host_;
    int const port_;
    bool const isStandard_;
    mqtt::TestCounter counter_;
};
