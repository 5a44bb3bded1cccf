#pragma once

// What the device and the panel have agreed on: a tank of water that tells how it is doing and
// can be asked for some of it, with a service called "draw".

#include <mqtt/request_reply.hpp>
#include <mqtt/topic.hpp>
#include <zym/common/lwjson.hpp>
#include <zym/common/uuid.hpp>

#include <cstdint>
#include <string>

/// Everything about the tank is published below this topic.
inline mqtt::Topic const TANK = "demo/tank";
inline zym::common::Uuid const TANK_ID(3);

/// The codes of a service begin at 16; those below say what became of the request itself.
constexpr mqtt::RequestReply::ErrorCode NOT_ENOUGH{17};

/// The values of a service status are the service's own.
constexpr std::uint8_t NOT_OPERATING = 0;
constexpr std::uint8_t OPERATING = 1;
constexpr std::uint8_t HEALTHY = 1;
constexpr std::uint8_t RUNNING_LOW = 2;

/// An amount of water, as request and as reply: `"litres": 60` beside the members that every
/// request or reply has.
class Litres final : public mqtt::RequestReplyData {
public:
    Litres() = default;
    explicit Litres(unsigned int litres) : litres_(litres) {}

    unsigned int count() const { return litres_; }

    void serialize(zym::common::lwjson::Serializer& out) const override {
        out.appendKey("litres");
        out.appendValue(std::to_string(litres_).c_str());
    }
    /// What this throws, for a text that has no such number, drops the request unanswered.
    void deserialize(zym::common::lwjson::Deserializer& in) override {
        using zym::common::lwjson::Deserializer;
        Deserializer::extractValue(in.getMember("litres"), litres_, "");
    }

private:
    unsigned int litres_ = 0;
};
