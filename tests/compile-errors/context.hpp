// What the statements of the table in CMakeLists.txt use.
#pragma once

#include <mqtt/service.hpp>

#include <cstdint>
#include <string>

using namespace std::chrono_literals;
using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;

struct Amount {
    unsigned litres = 0;
};
ZYM_MQTT_VALUE(Amount, "amount", 2, true, litres)

/// Has no list of fields.
struct Bare {
    unsigned litres = 0;
};

enum class SmallError : std::uint8_t { NONE_LEFT = 16 };
enum class WideError { NONE_LEFT = 16 };

inline mqtt::Result<Amount> answer(Amount const& wanted) {
    return wanted;
}

extern mqtt::MqttClient client;
extern mqtt::MqttData<Amount> endpoint;
extern mqtt::Caller<Amount, Amount> caller;
extern Serializer json;
extern Amount amount;
extern zym::common::Uuid const UUID;
extern mqtt::ClientId const CLIENT;
extern mqtt::ServerId const SERVER;
extern mqtt::Service<Amount, Amount> const SERVICE;
constexpr auto* FUNCTION = &answer;
