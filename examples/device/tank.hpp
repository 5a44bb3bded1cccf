#pragma once

// A service of the application: a tank of 100 litres hands out water on request.

#include "binding.hpp"
#include "console.hpp"
#include "entity.hpp"
#include "plant.hpp"

#include <mqtt/request_reply.hpp>

#include <memory>
#include <string>

class Tank final : private mqtt::RequestReplyServer::Listener {
public:
    Tank(mqtt::MqttClient& client, Binding const& binding)
        : entity_(client, TANK_ID, "tank"),
          binding_(binding),
          draw_(client, PLANT, mqtt::Topic(), DRAW) {}

    /// The server reads every request into the object given here.
    mqtt::MqttClient::Error serve() {
        return draw_.subscribe(this, TANK_ID, std::make_shared<Litres>());
    }

    void close() {
        draw_.unsubscribe();
        entity_.report(NOT_OPERATING, HEALTHY);
    }

    Entity& entity() { return entity_; }

private:
    /// Called on the client's worker thread. The returned object becomes the reply, whatever the
    /// error code, which is SUCCESS unless set.
    std::shared_ptr<mqtt::RequestReplyData> onRequest(std::string const& /*name*/,
                                                      Uuid const& panel, Uuid const& /*serverUuid*/,
                                                      mqtt::RequestReplyData const& requestData,
                                                      ErrorCode& error) override {
        auto const wanted = dynamic_cast<Litres const&>(requestData).count();
        if (!binding_.isBound(panel)) {
            error = NOT_BOUND;
            printLine("refused a stranger");
        } else if (wanted > left_) {
            error = NOT_ENOUGH;
            printLine("refused " + std::to_string(wanted) + " litres");
        } else {
            handOut(wanted);
        }
        return std::make_shared<Litres>(left_);
    }

    void handOut(unsigned int litres) {
        left_ -= litres;
        printLine("handed out " + std::to_string(litres) + " litres");
        if (left_ < 50) {
            entity_.report(OPERATING, RUNNING_LOW);
        }
    }

    unsigned int left_ = 100; // used on the worker thread only
    Entity entity_;
    Binding const& binding_;
    // Declared last and so destroyed first: its destructor waits for a request being handled.
    mqtt::RequestReplyServer draw_;
};
