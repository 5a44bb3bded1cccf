#pragma once

#include "client/client_on_a_script.hpp"

#include <mqtt/data.hpp>

#include <functional>
#include <future>
#include <string>
#include <system_error>
#include <vector>

/// An endpoint whose value is the payload itself, and that records its events.
class Endpoint : public mqtt::MqttDataBase {
public:
    using mqtt::MqttDataBase::MqttDataBase;
    Endpoint(Endpoint const& other) = default;
    ~Endpoint() override { release(); }

    std::string value;
    std::vector<std::string> events;
    std::string publishTopic, subscribeTopic; ///< "": the topic base
    std::function<void()> whileReading, whileNotifying;
    bool releasesTheLock = true;

protected:
    void getPublishTopic(mqtt::Topic& topic) override {
        MqttDataBase::getPublishTopic(topic);
        if (!publishTopic.empty()) {
            topic = publishTopic;
        }
    }
    void getSubscribeTopic(mqtt::Topic& topic) override {
        MqttDataBase::getSubscribeTopic(topic);
        if (!subscribeTopic.empty()) {
            topic = subscribeTopic;
        }
    }
    void deserialize(mqtt::Topic const& topic, std::string const& payload, bool empty) override {
        value = payload;
        events.push_back("read " + topic.text() + " " + payload + (empty ? "empty" : ""));
        if (whileReading) {
            whileReading();
        }
    }
    void serialize(mqtt::Topic const& topic, std::string& payload) const override {
        payload = value + "@" + topic.text();
    }
    void notify(bool empty, int id, mqtt::MqttDataBase::Lock& lock) override {
        EXPECT_TRUE(lock.owns_lock());
        EXPECT_EQ(lock.mutex(), &mutex());
        events.push_back("notify " + std::to_string(id) + (empty ? " empty" : ""));
        if (releasesTheLock) {
            lock.unlock();
        }
        if (whileNotifying) {
            whileNotifying();
        }
    }
};

/// Whether no other thread holds the mutex of the endpoint.
inline bool isFree(mqtt::MqttDataBase const& endpoint) {
    auto const look = [&] {
        return mqtt::MqttDataBase::Lock(endpoint.mutex(), std::try_to_lock).owns_lock();
    };
    return std::async(std::launch::async, look).get();
}

/// For a call with a lock that is not locked.
template <class Call>
void expectNotPermitted(Call const& call) {
    try {
        call();
        ADD_FAILURE() << "nothing was thrown";
    } catch (std::system_error const& error) {
        EXPECT_EQ(error.code(), std::errc::operation_not_permitted);
    }
}

class AnEndpoint : public AClientOnAScript {
protected:
    AnEndpoint() { connect(); }

    /// Returns when the message has been handled.
    void deliver(std::string const& topic, std::string const& payload) {
        script_->deliver(topic, payload);
        letTheStepEnd();
    }

    mqtt::MqttClient::Error subscribe(Endpoint& which, int id) {
        mqtt::MqttDataBase::Lock lock(which.mutex());
        return which.subscribe(id, lock);
    }

    Endpoint endpoint{*client_, "a/b", 2, true};
};
