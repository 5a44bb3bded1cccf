#pragma once

// A service of the application: a tank of 100 litres hands out water on request.

#include "binding.hpp"
#include "entity.hpp"
#include "plant.hpp"
#include "program.hpp"

#include <mqtt/service.hpp>

#include <optional>
#include <string>

class Tank final {
public:
    Tank(mqtt::MqttClient& client, Binding const& binding)
        : entity_(client, TANK_ID, "tank"), binding_(binding), level_(client, topicOf(TANK_ID)) {
        level_.value.litres = 100;
        draw_.emplace(client, DRAW, mqtt::ServerId(TANK_ID),
                      [this](Litres const& wanted, mqtt::ClientId const& panel) {
                          return handOut(wanted.litres, panel.uuid);
                      });
    }

    void publish() {
        entity_.publish();
        level_.publish();
    }

    /// Waits for a request being handled.
    void close() {
        draw_.reset();
        entity_.report(CLOSED);
    }

    mqtt::Link const& link() const { return entity_.link(); }

private:
    /// Called on the client's worker thread, which alone sets the level.
    mqtt::Result<Litres> handOut(unsigned int litres, Uuid const& panel) {
        auto const level = level_.get().litres;
        if (!binding_.isBound(panel)) {
            printLine("refused a stranger");
            return DrawError::NOT_BOUND;
        }
        if (litres > level) {
            printLine("refused " + std::to_string(litres) + " litres");
            return DrawError::NOT_ENOUGH;
        }
        Litres const left{level - litres};
        level_.publish(left);
        printLine("handed out " + std::to_string(litres) + " litres");
        if (left.litres < 50) {
            entity_.report(RUNNING_LOW);
        }
        return left;
    }

    Entity entity_;
    Binding const& binding_;
    mqtt::MqttData<Litres> level_;
    // Declared last and so destroyed first: its destructor waits for a request being handled.
    std::optional<mqtt::Server<Litres, Litres>> draw_;
};
