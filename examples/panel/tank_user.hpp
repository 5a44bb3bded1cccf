#pragma once

// Uses a service: requests that are answered, refused, never answered, and cancelled.

#include "console.hpp"
#include "plant.hpp"

#include <mqtt/client.hpp>
#include <mqtt/request_reply.hpp>

#include <memory>
#include <string>

inline Uuid const ABSENT_SERVER_ID(99);

inline std::string describe(ErrorCode code) {
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

/// Prints how a request ended that no thread waits for.
class RequestEndPrinter final : public mqtt::RequestReplyClient::Listener {
public:
    void onReply(unsigned int /*requestId*/, std::string const& /*name*/, Uuid const& /*client*/,
                 Uuid const& /*server*/, mqtt::RequestReplyData const& /*data*/,
                 ErrorCode error) override {
        printLine("the request has ended: " + describe(error));
    }
};

/// Draws water from the tank. A client has one request under way at a time.
class TankUser {
public:
    explicit TankUser(mqtt::MqttClient& client) : draw_(client, PLANT, mqtt::Topic(), DRAW) {}

    /// Waits for the reply. It is read into `left`, also when the code is an error.
    void draw(unsigned int litres) {
        auto const wanted = std::make_shared<Litres>(litres);
        auto const left = std::make_shared<Litres>();
        auto const code = draw_.requestWait(PANEL_ID, TANK_ID, wanted, left, 5);
        bool const answered = code == ErrorCode::SUCCESS || code >= ErrorCode::APPLICATION;
        std::string const answer = ", " + std::to_string(left->count()) + " litres left";
        printLine("draw " + std::to_string(litres) + " litres: " + describe(code)
                  + (answered ? answer : ""));
    }

    /// Without a server nothing answers: the request ends with its time-out, here one second.
    void drawFromAbsentServer() {
        auto const wanted = std::make_shared<Litres>(5);
        auto const code = draw_.requestWait(PANEL_ID, ABSENT_SERVER_ID, wanted, nullptr, 1);
        printLine("draw 5 litres from nobody: " + describe(code));
    }

    /// Does not wait: a listener is called at the end. A second request is refused at once.
    void drawAndCancel() {
        RequestEndPrinter ending;
        auto const wanted = std::make_shared<Litres>(5);
        auto const noTimeout = conv::SecondsDuration::NO_TIMEOUT;
        for (auto const* attempt : {"first", "second"}) {
            auto const code = draw_.request(&ending, PANEL_ID, ABSENT_SERVER_ID, wanted, nullptr,
                                            nullptr, noTimeout);
            printLine(std::string("draw 5 litres from nobody, ") + attempt
                      + " request: " + describe(code));
        }
        draw_.cancel(); // the listener has been called when this returns
    }

private:
    mqtt::RequestReplyClient draw_;
};
