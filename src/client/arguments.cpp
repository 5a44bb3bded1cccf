#include "client/arguments.hpp"

#include <mosquitto.h>

namespace mqtt {

namespace {

using Error = MqttClient::Error;

constexpr auto MALFORMED_UTF8 = static_cast<Error>(MOSQ_ERR_MALFORMED_UTF8);

bool fits(Topic const& topic, std::size_t payloadSize, int qos) {
    std::size_t const overhead = topic.text().size() + (qos == 0 ? 2 : 4);
    return overhead <= MAX_PACKET && payloadSize <= MAX_PACKET - overhead;
}

} // namespace

bool isUtf8(std::string const& text) {
    return mosquitto_validate_utf8(text.data(), static_cast<int>(text.size())) == 0;
}

Error checkPublication(Topic const& topic, std::size_t payloadSize, int qos) {
    auto const& text = topic.text();
    if (qos < 0 || qos > 2 || text.empty()) {
        return Error::INVALID_PARAMETER;
    }
    if (!isUtf8(text)) {
        return MALFORMED_UTF8;
    }
    if (!fits(topic, payloadSize, qos)) {
        return Error::PAYLOAD_SIZE;
    }
    return static_cast<Error>(mosquitto_pub_topic_check(text.c_str()));
}

Error checkSubscription(Topic const& topic) {
    auto const& text = topic.text();
    // Version 2.0 of the library has no objection to what begins with a null character, 2.1 has.
    bool const isWellFormed = text[0] == '\0' || mosquitto_sub_topic_check(text.c_str()) == 0;
    if (text.empty() || !isWellFormed) {
        return Error::INVALID_PARAMETER;
    }
    return isUtf8(text) ? Error::SUCCESS : MALFORMED_UTF8;
}

Error checkSizes(Topic const& topic, std::size_t payloadSize, int qos) {
    if (topic.text().find('\0') != std::string::npos) {
        return MALFORMED_UTF8;
    }
    return fits(topic, payloadSize, qos) ? Error::SUCCESS : Error::PAYLOAD_SIZE;
}

} // namespace mqtt
