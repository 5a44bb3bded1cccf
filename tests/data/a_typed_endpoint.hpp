#pragma once

#include "data/an_endpoint.hpp"
#include "support/watched.hpp"

#include <mqtt/link.hpp>

#include <functional>
#include <string>
#include <utility>
#include <vector>

/// A subscriber of links that records its calls: "<link> <identifier>", or
/// "<link> empty <identifier>".
class LinkRecorder : public mqtt::MqttData<mqtt::Link>::Subscriber {
public:
    using Hook = std::function<void(mqtt::Link const&)>;

    explicit LinkRecorder(Hook hook = {}) : hook_(std::move(hook)) {}
    virtual ~LinkRecorder() = default;

    void onMqttData(mqtt::Link const& link, bool empty, int id) override {
        calls_.change([&](auto& calls) {
            calls.push_back(link.id + (empty ? " empty " : " ") + std::to_string(id));
        });
        if (hook_) {
            hook_(link);
        }
    }

    std::vector<std::string> calls() const { return calls_.copy(); }

private:
    support::Watched<std::vector<std::string>> calls_;
    Hook hook_;
};

class ATypedEndpoint : public AClientOnAScript {
protected:
    ATypedEndpoint() { connect(); }

    void deliverPayload(std::string const& payload) {
        script_->deliver("a/b", payload);
        letTheStepEnd();
    }

    void deliver(std::string const& id) { deliverPayload(R"({"@id": ")" + id + R"("})"); }

    mqtt::MqttData<mqtt::Link> endpoint{*client_, "a/b"};
};
