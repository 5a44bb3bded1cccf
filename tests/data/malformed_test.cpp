// What other programs may send: every standard value reads every kind of malformed payload, and
// then a good document.

#include <mqtt/link.hpp>
#include <mqtt/payloads.hpp>

#include <gtest/gtest.h>

#include <exception>
#include <random>
#include <string>
#include <vector>

namespace {

using conv::CommunicationStatus;
using conv::ComState;
using conv::Identification;
using conv::ServiceStatus;
using conv::UnixTime;
using mqtt::Link;
using mqtt::MqttData;
using Links = std::vector<Link>;

template <class T>
std::string written(T const& value) {
    std::string document;
    MqttData<T>::serialize("a", document, value);
    return document;
}

/// @return whether the payload is accepted
template <class T>
bool read(T& value, std::string const& payload) {
    try {
        MqttData<T>::deserialize("a", payload, false, value);
        return true;
    } catch (std::exception const&) {
        return false; // the endpoint drops the message
    }
}

/// Afterwards the value reads the next document.
template <class T>
void expectDropped(std::string const& payload, T value, T const& next) {
    EXPECT_FALSE(read(value, payload));
    EXPECT_TRUE(read(value, written(next)));
    EXPECT_EQ(written(value), written(next));
}

/// @param kept what is left of the value
template <class T>
void expectAccepted(std::string const& payload, T value, T const& kept, T const& next) {
    EXPECT_TRUE(read(value, payload));
    EXPECT_EQ(written(value), written(kept));
    EXPECT_TRUE(read(value, written(next)));
    EXPECT_EQ(written(value), written(next));
}

std::string nested(std::size_t depth, std::string const& open, char close) {
    std::string text;
    for (std::size_t i = 0; i < depth; ++i) {
        text += open;
    }
    return text + "1" + std::string(depth, close);
}

/// A document with the members of all values, all with this JSON value.
std::string everyMember(std::string const& value) {
    std::string text = "{";
    for (char const* const key :
         {"state", "since", "uuid", "manufacturer", "model", "serial", "physicalName", "name",
          "interface", "version", "location", "contact", "operating", "health", "@id",
          "members@count", "members"}) {
        text += std::string("\"") + key + "\": " + value + ", ";
    }
    return text + "\"end\": 0}";
}

std::string garbage() {
    std::string bytes(1024 * 1024, '\0');
    std::minstd_rand random(1);
    for (auto& byte : bytes) {
        byte = static_cast<char>(random() % 256);
    }
    return bytes;
}

std::vector<std::string> malformedPayloads() {
    auto const good = everyMember("9");
    std::vector<std::string> payloads{
        R"({"state": 9, "operating": 9, "health": 9, "name": "x", "@id": "x)",
        good.substr(0, good.size() - 1),
        good + "}",
        good + good,
        " \n",
        "state=9",
        "9",
        "null",
        "\"name\"",
        "[]",
        "[" + good + "]",
        "{}",
        nested(100000, "[", ']'),
        nested(100000, "{\"state\":", '}'),
        std::string(5, '\0'),
        garbage(),
        R"({"state": 9, "operating": 9, "name": ")" + garbage(),
    };
    for (std::string const& value :
         {nested(100000, "[", ']'), std::string("{\"a\": null}"), std::string("true"),
          std::string("-1.5e400"), std::string("-1"), std::string(1001, '9'),
          std::string(R"("\ud800A")"), std::string(R"("\x41")"), std::string("\"a\0b\"", 5)}) {
        payloads.push_back(everyMember(value));
    }
    return payloads;
}

TEST(AMalformedPayload, LeavesOfEachValueWhatItsKindKeeps) {
    for (auto const& payload : malformedPayloads()) {
        SCOPED_TRACE(payload.substr(0, 60));
        expectAccepted<CommunicationStatus>(payload, {ComState::CONNECTED, UnixTime(5)},
                                            {ComState::CONNECTED, UnixTime()},
                                            {ComState::CONNECTING, UnixTime(6)});
        Identification old;
        old.uuid = "old";
        Identification next;
        next.uuid = "new";
        expectAccepted(payload, old, old, next);
        expectDropped<ServiceStatus>(payload, {1, 2}, {3, 4});
        expectDropped<Link>(payload, {"old"}, {"new"});
        expectDropped<Links>(payload, {{"old"}}, {{"x"}, {"y"}});
    }
}

} // namespace
