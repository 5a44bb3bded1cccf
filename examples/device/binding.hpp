#pragma once

// The plant's side of a binding: it serves one panel at a time. Who is bound, and where that one
// is found, is up to the service; the library carries the question and the answer.

#include "console.hpp"
#include "plant.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/request_reply.hpp>

#include <memory>
#include <string>

/// Answers "bind" and "unbind". Everything in here happens on the client's worker thread, one
/// request after the other, and so do the questions of the tank: no lock is needed.
class Binding final : private mqtt::RequestReplyServer::Listener {
public:
    explicit Binding(mqtt::MqttClient& client)
        : bind_(client, PLANT, mqtt::Topic(), "bind"),
          unbind_(client, PLANT, mqtt::Topic(), "unbind") {}

    mqtt::MqttClient::Error serve() {
        auto const result =
            bind_.subscribe(this, PLANT_ID, std::make_shared<mqtt::BindRequestData>());
        return result == mqtt::MqttClient::Error::SUCCESS
                   ? unbind_.subscribe(this, PLANT_ID, mqtt::NO_DATA)
                   : result;
    }

    bool isBound(Uuid const& panel) const { return panel == panel_; }

private:
    using Error = zym::common::Binder::Error;

    std::shared_ptr<mqtt::RequestReplyData> onRequest(std::string const& name, Uuid const& panel,
                                                      Uuid const& /*serverUuid*/,
                                                      mqtt::RequestReplyData const& data,
                                                      ErrorCode& error) override {
        if (name == bind_.name()) {
            bind(panel, dynamic_cast<mqtt::BindRequestData const&>(data).topic, error);
        } else {
            unbind(panel, error);
        }
        return mqtt::NO_DATA;
    }

    /// A panel that asks again, because it was restarted perhaps, is told that it is bound.
    void bind(Uuid const& panel, mqtt::Topic const& where, ErrorCode& error) {
        if (isBound(panel)) {
            error = refusal(Error::ALREADY_BOUND);
        } else if (!panel_.isNil()) {
            error = refusal(Error::REFUSED);
        } else {
            panel_ = panel;
            say("bound to " + where.text());
        }
    }

    void unbind(Uuid const& panel, ErrorCode& error) {
        if (isBound(panel)) {
            panel_ = Uuid::NIL;
            say("unbound");
        } else {
            error = refusal(Error::NOT_BOUND);
        }
    }

    Uuid panel_; ///< nil while nobody is bound
    // The last ones, and so the first to go: their destructors wait for a request being handled.
    mqtt::RequestReplyServer bind_;
    mqtt::RequestReplyServer unbind_;
};
