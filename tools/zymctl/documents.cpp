#include "documents.hpp"

#include <mqtt/payloads.hpp>
#include <mqtt/request_reply.hpp>
#include <zym/common/lwjson.hpp>

#include <mosquitto.h>

#include <algorithm>
#include <ctime>
#include <exception>
#include <iterator>
#include <sstream>

using mqtt::MqttData;
using mqtt::Topic;
using zym::common::lwjson::Deserializer;

bool isJsonObject(std::string const& text) {
    try {
        static_cast<void>(Deserializer(std::string_view(text)).getMember(""));
        return text.find('\0') == std::string::npos;
    } catch (std::exception const&) {
        return false;
    }
}

std::string onOneLine(std::string_view json) {
    std::string line;
    bool inLayout = false;
    for (char const c : json) {
        inLayout = c == '\n' || c == '\r' || (inLayout && (c == ' ' || c == '\t'));
        if (!inLayout) {
            line += c;
        }
    }
    return line;
}

namespace {

bool isPrintable(std::string const& text) {
    return mosquitto_validate_utf8(text.data(), static_cast<int>(text.size())) == MOSQ_ERR_SUCCESS;
}

/// @return empty: another document
template <class T>
std::optional<T> read(std::string const& payload) {
    try {
        T value{};
        MqttData<T>::deserialize(Topic(), payload, false, value);
        return isJsonObject(payload) ? std::make_optional(value) : std::nullopt;
    } catch (std::exception const&) {
        return std::nullopt;
    }
}

std::string describeCommunication(conv::CommunicationStatus const& value) {
    constexpr char const* STATES[] = {"unknown", "disconnected", "connected", "connection lost",
                                      "connecting"};
    auto const state = static_cast<unsigned>(value.state);
    return (state < std::size(STATES) ? STATES[state] : "state " + std::to_string(state))
           + (value.since.valid != 0 ? " since " + timeText(value.since.seconds, "%F %T") : "");
}

std::string describeIdentification(conv::Identification const& value) {
    auto text = '"' + value.name + '"';
    for (auto const* part :
         {&value.manufacturer, &value.model, &value.serial, &value.version, &value.location}) {
        text += part->empty() ? "" : ", " + *part;
    }
    return printable(text);
}

/// The document of a request or a reply, which have a client's level behind the service's name.
std::string describeCall(std::string const& service, std::string const& payload) {
    auto const mark = service.size() < 2 ? "" : service.substr(service.size() - 2);
    std::ostringstream text;
    if (mark == mqtt::REQUEST_SUFFIX) {
        text << "request ";
    } else if (auto const code = readMember<std::uint8_t>(payload, "$err");
               mark == mqtt::REPLY_SUFFIX && code) {
        text << "reply " << static_cast<mqtt::RequestReply::ErrorCode>(*code) << ' ';
    }
    text << printable(payload);
    return text.str();
}

} // namespace

bool isText(std::string payload) {
    auto const isLayout = [](char c) { return c == '\n' || c == '\r' || c == '\t'; };
    std::replace_if(payload.begin(), payload.end(), isLayout, ' ');
    return isPrintable(payload);
}

std::string hexadecimal(std::string const& bytes) {
    constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (char const c : bytes) {
        auto const code = static_cast<unsigned char>(c);
        text += {DIGITS[code >> 4U], DIGITS[code & 0xfU]};
    }
    return text;
}

std::string printable(std::string const& payload) {
    auto line = isJsonObject(payload) ? onOneLine(payload) : payload;
    if (isPrintable(line)) {
        return line;
    }
    std::string text;
    for (char const c : line) {
        text += c >= ' ' && c <= '~' ? std::string(1, c) : "\\x" + hexadecimal({c});
    }
    return text;
}

std::string timeText(double secondsSince1970, char const* format) {
    auto const whole = static_cast<std::time_t>(secondsSince1970);
    std::tm parts{};
    char text[64];
    if (localtime_r(&whole, &parts) == nullptr) {
        return "?";
    }
    return {text, std::strftime(text, sizeof text, format, &parts)};
}

std::vector<mqtt::Link> readLinks(std::string const& payload) {
    return read<std::vector<mqtt::Link>>(payload).value_or(std::vector<mqtt::Link>());
}

std::string describe(Topic const& topic, std::string const& payload) {
    auto const level = [&](unsigned fromEnd) {
        return topic.size() < fromEnd ? "" : topic[topic.size() - fromEnd];
    };
    if (level(1) == "communication") {
        if (auto const value = read<conv::CommunicationStatus>(payload)) {
            return describeCommunication(*value);
        }
    } else if (level(1) == MqttData<conv::ServiceStatus>::TOPIC_SUFFIX) {
        if (auto const value = read<conv::ServiceStatus>(payload)) {
            return "operating " + std::to_string(value->operating) + ", health "
                   + std::to_string(value->health);
        }
    } else if (level(1) == MqttData<conv::Identification>::TOPIC_SUFFIX) {
        if (auto const value = read<conv::Identification>(payload)) {
            return describeIdentification(*value);
        }
    }
    return isJsonObject(payload) ? describeCall(level(2), payload) : printable(payload);
}
