#include "documents.hpp"

#include "console.hpp"

#include <mqtt/link.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/request_reply.hpp>

#include <mosquitto.h>

#include <algorithm>
#include <exception>
#include <iterator>
#include <sstream>
#include <vector>

using mqtt::MqttData;
using mqtt::Topic;
using zym::common::lwjson::Deserializer;

JsonLine& JsonLine::text(char const* key, std::string const& value) {
    out_.appendKey(key);
    out_.addValue(value);
    return *this;
}

JsonLine& JsonLine::number(char const* key, double value) {
    out_.appendKey(key);
    out_.addValue(value);
    return *this;
}

JsonLine& JsonLine::boolean(char const* key, bool value) {
    return raw(key, value ? "true" : "false");
}

JsonLine& JsonLine::raw(char const* key, std::string const& json) {
    out_.appendKey(key);
    out_.appendValue(json.c_str());
    return *this;
}

std::string JsonLine::finish() {
    out_.finalize();
    return onOneLine(text_);
}

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

/// Without control characters, or with those that a text may have.
bool isUtf8(std::string text, bool withLayout) {
    if (withLayout) {
        std::replace_if(
            text.begin(), text.end(), [](char c) { return c == '\n' || c == '\r' || c == '\t'; },
            ' ');
    }
    return mosquitto_validate_utf8(text.data(), static_cast<int>(text.size())) == MOSQ_ERR_SUCCESS;
}

void appendHex(std::string& text, char c) {
    constexpr char DIGITS[] = "0123456789abcdef";
    auto const code = static_cast<unsigned char>(c);
    text += DIGITS[code >> 4U];
    text += DIGITS[code & 0xfU];
}

std::string describeIdentification(std::string const& payload) {
    conv::Identification value;
    MqttData<conv::Identification>::deserialize(Topic(), payload, false, value);
    std::string text = '"' + value.name + '"';
    for (auto const* part :
         {&value.manufacturer, &value.model, &value.serial, &value.version, &value.location}) {
        text += part->empty() ? "" : ", " + *part;
    }
    return printable(text);
}

/// The result code of a reply.
std::string describeCode(std::string const& payload) {
    unsigned char code = 0;
    Deserializer::extractValue(Deserializer(std::string_view(payload)).getMember("$err"), code, "");
    std::ostringstream text;
    text << "reply " << mqtt::RequestReply::ErrorCode{code} << ' ';
    return text.str();
}

bool endsWith(std::string const& text, std::string const& end) {
    return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// The document of a request or a reply, which have a client's level behind the service's name.
std::string describeCall(std::string const& name, std::string const& payload) {
    if (endsWith(name, mqtt::REQUEST_SUFFIX)) {
        return "request " + printable(payload);
    }
    return endsWith(name, mqtt::REPLY_SUFFIX) ? describeCode(payload) + printable(payload)
                                              : printable(payload);
}

} // namespace

std::string printable(std::string const& payload) {
    auto line = isJsonObject(payload) ? onOneLine(payload) : payload;
    if (isUtf8(line, false)) {
        return line;
    }
    std::string text;
    for (char const c : line) {
        if (c >= ' ' && c <= '~') {
            text += c;
        } else {
            text += "\\x";
            appendHex(text, c);
        }
    }
    return text;
}

void addPayload(JsonLine& line, std::string const& payload) {
    if (!isUtf8(payload, true)) {
        std::string hex;
        for (char const c : payload) {
            appendHex(hex, c);
        }
        line.text("payloadHex", hex);
        return;
    }
    line.text("payload", payload);
    if (isJsonObject(payload)) {
        line.raw("document", payload);
    }
}

std::string describeCommunication(std::string const& payload) {
    constexpr char const* STATES[] = {"unknown", "disconnected", "connected", "connection lost",
                                      "connecting"};
    conv::CommunicationStatus value;
    MqttData<conv::CommunicationStatus>::deserialize(Topic(), payload, false, value);
    auto const state = static_cast<unsigned>(value.state);
    return (state < std::size(STATES) ? STATES[state] : "state " + std::to_string(state))
           + (value.since.valid != 0 ? " since " + dateAndTime(value.since.seconds) : "");
}

std::string describeStatus(std::string const& payload) {
    conv::ServiceStatus value;
    MqttData<conv::ServiceStatus>::deserialize(Topic(), payload, false, value);
    return "operating " + std::to_string(value.operating) + ", health "
           + std::to_string(value.health);
}

std::string describe(Topic const& topic, std::string const& payload) {
    auto const last = topic.size() > 0 ? topic[topic.size() - 1] : "";
    try {
        if (!isJsonObject(payload)) {
            return printable(payload);
        }
        if (last == "communication") {
            return describeCommunication(payload);
        }
        if (last == MqttData<conv::ServiceStatus>::TOPIC_SUFFIX) {
            return describeStatus(payload);
        }
        if (last == MqttData<conv::Identification>::TOPIC_SUFFIX) {
            return describeIdentification(payload);
        }
        return describeCall(topic.size() > 1 ? topic[topic.size() - 2] : "", payload);
    } catch (std::exception const&) {
        return printable(payload); // a document of another kind
    }
}
