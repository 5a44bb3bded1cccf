#pragma once

// A service of the application: a tank of 100 litres hands out water on request.

#include "binding.hpp"
#include "entity.hpp"
#include "plant.hpp"
#include "program.hpp"

#include <mqtt/request_reply.hpp>

#include <memory>
#include <string>

/// A `mqtt::Server` with a function would be shorter, but its function does not get to know who
/// asks; so this is a listener of a server.
class Tank final : private mqtt::RequestReplyServer::Listener {
public:
    Tank(mqtt::MqttClient& client, Binding const& binding)
        : entity_(client, TANK_ID, "tank"),
          binding_(binding),
          level_(client, topicOf(TANK_ID)),
          draw_(client, DRAW.base, DRAW.subPath, DRAW.name) {
        level_.value.litres = 100;
        // The server reads every request into this object.
        draw_.subscribe(this, TANK_ID, std::make_shared<mqtt::Payload<Litres>>());
    }

    void publish() {
        entity_.publish();
        level_.publish();
    }

    void close() {
        draw_.unsubscribe();
        entity_.report(CLOSED);
    }

    mqtt::Link const& link() const { return entity_.link(); }

private:
    /// Called on the client's worker thread, which alone sets the level. The returned object
    /// becomes the reply. The code is SUCCESS unless set.
    std::shared_ptr<mqtt::RequestReplyData> onRequest(std::string const& /*name*/,
                                                      Uuid const& panel, Uuid const& /*serverUuid*/,
                                                      mqtt::RequestReplyData const& request,
                                                      ErrorCode& error) override {
        auto const wanted = dynamic_cast<mqtt::Payload<Litres> const&>(request).value.litres;
        auto const left = level_.get().litres;
        if (!binding_.isBound(panel)) {
            error = ErrorCode(DrawError::NOT_BOUND);
            printLine("refused a stranger");
        } else if (wanted > left) {
            error = ErrorCode(DrawError::NOT_ENOUGH);
            printLine("refused " + std::to_string(wanted) + " litres");
        } else {
            return handOut(wanted, {left - wanted});
        }
        return mqtt::NO_DATA;
    }

    std::shared_ptr<mqtt::RequestReplyData> handOut(unsigned int litres, Litres const& left) {
        level_.publish(left);
        printLine("handed out " + std::to_string(litres) + " litres");
        if (left.litres < 50) {
            entity_.report(RUNNING_LOW);
        }
        return std::make_shared<mqtt::Payload<Litres>>(left);
    }

    Entity entity_;
    Binding const& binding_;
    mqtt::MqttData<Litres> level_;
    // Declared last and so destroyed first: its destructor waits for a request being handled.
    mqtt::RequestReplyServer draw_;
};
