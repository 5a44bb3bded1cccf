#pragma once

#include "client/client_on_a_script.hpp"
#include "support/watched.hpp"

#include <mqtt/link.hpp>

#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

/// A listener that keeps what it is told.
class Reader : public mqtt::MqttData<mqtt::Link>::Subscriber {
public:
    using Hook = std::function<void(mqtt::Link const&)>;

    explicit Reader(Hook hook = {}) : hook_(std::move(hook)) {}
    virtual ~Reader() = default;

    void onMqttData(mqtt::Link const& link, bool empty, int id) override {
        told_.change([&](auto& told) {
            told.push_back(link.id + (empty ? " empty " : " ") + std::to_string(id));
        });
        if (hook_) {
            hook_(link);
        }
    }

    std::vector<std::string> told() const { return told_.copy(); }

private:
    support::Watched<std::vector<std::string>> told_;
    Hook hook_;
};

template <class T>
bool isFree(mqtt::MqttData<T> const& endpoint) {
    auto const look = [&] {
        return mqtt::MqttDataBase::Lock(endpoint.mutex(), std::try_to_lock).owns_lock();
    };
    return std::async(std::launch::async, look).get();
}

class ATypedEndpoint : public AClientOnAScript {
protected:
    ATypedEndpoint() { connect(); }

    void deliver(std::string const& id, std::string const& topic = "a/b") {
        script_->deliver(topic, R"({"@id": ")" + id + R"("})");
        letTheStepEnd();
    }

    void deliverNothing() {
        script_->deliver("a/b", "");
        letTheStepEnd();
    }

    mqtt::MqttData<mqtt::Link> endpoint{*client_, "a/b"};
};
