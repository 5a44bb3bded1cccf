#pragma once

// Uses a service: calls that are answered, refused, never answered, and cancelled.

#include "plant.hpp"
#include "program.hpp"

#include <mqtt/service.hpp>

#include <chrono>
#include <map>
#include <string>

inline mqtt::ServerId const ABSENT_SERVER(Uuid(99));

inline std::string describe(ErrorCode code) {
    static std::map<ErrorCode, std::string> const texts{
        {ErrorCode::SUCCESS, "done"},
        {ErrorCode::TIMEOUT, "no answer in time"},
        {ErrorCode::PENDING, "sent"},
        {ErrorCode::BUSY, "busy with another request"},
        {ErrorCode::CANCELLED, "called off"},
        {ErrorCode(DrawError::NOT_ENOUGH), "refused with code 17, not enough"},
        {ErrorCode(DrawError::NOT_BOUND), "refused with code 18, not bound"}};
    auto const found = texts.find(code);
    return found == texts.end() ? "ended with code " + std::to_string(static_cast<int>(code))
                                : found->second;
}

/// Draws water from the tank. A caller has one call under way at a time.
class TankUser {
public:
    explicit TankUser(mqtt::MqttClient& client)
        : level_(client, topicOf(TANK_ID)),
          tank_(client, DRAW, mqtt::ClientId(PANEL_ID), mqtt::ServerId(TANK_ID)),
          nobody_(client, DRAW, mqtt::ClientId(PANEL_ID), ABSENT_SERVER) {}

    /// Waits for the reply. One that refuses has no value: then the level is read from the broker,
    /// which retains it.
    void draw(unsigned int litres) {
        auto const reply = tank_.callWait({litres}, std::chrono::seconds(5));
        Litres left = reply ? *reply : Litres();
        if (!reply) {
            level_.waitForNext(left, std::chrono::seconds(5));
        }
        printLine("draw " + std::to_string(litres) + " litres: " + describe(reply.code()) + ", "
                  + std::to_string(left.litres) + " litres left");
    }

    /// Without a server nothing answers: the call ends with its time-out, here one second.
    void drawFromAbsentServer() {
        auto const reply = nobody_.callWait({5}, std::chrono::seconds(1));
        printLine("draw 5 litres from nobody: " + describe(reply.code()));
    }

    /// Does not wait: a function is called at the end. A second call is refused at once.
    void drawAndCancel() {
        for (auto const* attempt : {"first", "second"}) {
            auto const code = nobody_.call({5}, std::chrono::seconds::max(), [](auto const& reply) {
                printLine("the request has ended: " + describe(reply.code()));
            });
            printLine(std::string("draw 5 litres from nobody, ") + attempt
                      + " request: " + describe(code));
        }
        nobody_.cancel(); // the function has been called when this returns
    }

private:
    mqtt::MqttData<Litres> level_;
    mqtt::Caller<Litres, Litres> tank_;
    mqtt::Caller<Litres, Litres> nobody_;
};
