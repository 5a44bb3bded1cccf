#pragma once

// The plant's side of a binding: it serves one panel at a time. The service decides which panel is
// bound; the library transmits request and reply.

#include "plant.hpp"
#include "program.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/request_reply.hpp>

#include <memory>
#include <string>

/// Answers "bind" and "unbind". All operations after the constructor run on the client's worker
/// thread, one after the other, also `isBound`, which the tank calls: no lock is needed.
class Binding final : private mqtt::RequestReplyServer::Listener {
public:
    explicit Binding(mqtt::MqttClient& client)
        : bind_(client, PLANT, mqtt::Topic(), "bind"),
          unbind_(client, PLANT, mqtt::Topic(), "unbind") {
        bind_.subscribe(this, PLANT_ID, std::make_shared<mqtt::BindRequestData>());
        unbind_.subscribe(this, PLANT_ID, mqtt::NO_DATA);
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

    /// A panel that asks again, perhaps after a restart, gets the answer that it is bound.
    void bind(Uuid const& panel, mqtt::Topic const& where, ErrorCode& error) {
        if (isBound(panel)) {
            error = refusalCode(Error::ALREADY_BOUND);
        } else if (!panel_.isNil()) {
            error = refusalCode(Error::REFUSED);
        } else {
            panel_ = panel;
            printLine("bound to " + where.text());
        }
    }

    void unbind(Uuid const& panel, ErrorCode& error) {
        if (isBound(panel)) {
            panel_ = Uuid::NIL;
            printLine("unbound");
        } else {
            error = refusalCode(Error::NOT_BOUND);
        }
    }

    Uuid panel_; ///< nil while no panel is bound
    // Declared last and so destroyed first: their destructors wait for a request being handled.
    mqtt::RequestReplyServer bind_;
    mqtt::RequestReplyServer unbind_;
};
