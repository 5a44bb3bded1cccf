#pragma once

// Using a service: requests that are answered, refused, never answered, and called off.

#include "console.hpp"
#include "plant.hpp"

#include <mqtt/client.hpp>
#include <mqtt/request_reply.hpp>

#include <memory>
#include <string>

inline Uuid const NOBODY_ID(99);

inline std::string outcome(ErrorCode code) {
    std::string const number = "code " + std::to_string(static_cast<int>(code));
    if (code == NOT_ENOUGH) {
        return "refused with " + number + ", not enough";
    }
    if (code == NOT_BOUND) {
        return "refused with " + number + ", not bound";
    }
    switch (code) {
    case ErrorCode::SUCCESS:
        return "done";
    case ErrorCode::TIMEOUT:
        return "no answer in time";
    case ErrorCode::PENDING:
        return "sent";
    case ErrorCode::BUSY:
        return "busy with another request";
    case ErrorCode::CANCELLED:
        return "called off";
    default:
        return "ended with " + number;
    }
}

/// Told how a request ended that nobody waited for.
class Ending final : public mqtt::RequestReplyClient::Listener {
public:
    void onReply(unsigned int /*requestId*/, std::string const& /*name*/, Uuid const& /*client*/,
                 Uuid const& /*server*/, mqtt::RequestReplyData const& /*data*/,
                 ErrorCode error) override {
        say("the request has ended: " + outcome(error));
    }
};

/// Draws water from the tank. One client has one request under way at a time.
class Drawing {
public:
    explicit Drawing(mqtt::MqttClient& client) : draw_(client, PLANT, mqtt::Topic(), DRAW) {}

    /// The simple way: wait for the reply. It is read into `left`, also when the code is an error.
    void draw(unsigned int litres) {
        auto const wanted = std::make_shared<Litres>(litres);
        auto const left = std::make_shared<Litres>();
        auto const code = draw_.requestWait(PANEL_ID, TANK_ID, wanted, left, 5);
        bool const answered = code == ErrorCode::SUCCESS || code >= ErrorCode::APPLICATION;
        std::string const answer = ", " + std::to_string(left->count()) + " litres left";
        say("draw " + std::to_string(litres) + " litres: " + outcome(code)
            + (answered ? answer : ""));
    }

    /// Nobody says that a server is not there: the request ends by time-out, here of one second.
    void drawFromNobody() {
        auto const wanted = std::make_shared<Litres>(5);
        auto const code = draw_.requestWait(PANEL_ID, NOBODY_ID, wanted, nullptr, 1);
        say("draw 5 litres from nobody: " + outcome(code));
    }

    /// Without waiting: a listener is told. A second request is refused at once.
    void drawAndThinkBetterOfIt() {
        Ending ending;
        auto const wanted = std::make_shared<Litres>(5);
        auto const forEver = conv::SecondsDuration::NO_TIMEOUT;
        for (auto const* attempt : {"first", "second"}) {
            auto const code =
                draw_.request(&ending, PANEL_ID, NOBODY_ID, wanted, nullptr, nullptr, forEver);
            say(std::string("draw 5 litres from nobody, ") + attempt
                + " request: " + outcome(code));
        }
        draw_.cancel(); // the listener has been told when this returns
    }

private:
    mqtt::RequestReplyClient draw_;
};
