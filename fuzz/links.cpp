// Any payload on the topic of a link, or of a collection of links; and any text as an array.

#include "data/array_elements.hpp"
#include "fuzz/reference_json.hpp"
#include "fuzz/target.hpp"

#include <mqtt/link.hpp>

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace {

using fuzz::Json;
using fuzz::Outcome;
using fuzz::require;
using mqtt::Link;
using Links = std::vector<Link>;

template <class T>
bool isTaken(std::string const& payload, T& value) {
    try {
        mqtt::MqttData<T>::deserialize(mqtt::Topic(), payload, payload.empty(), value);
        return true;
    } catch (std::exception const&) {
        return false;
    }
}

bool isSame(Links const& a, Links const& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](Link const& x, Link const& y) { return x.id == y.id; });
}

void link(std::string const& payload, Json const& json) {
    Link value{"before"};
    Link expected = value;
    bool const readable =
        payload.empty() || fuzz::readText(json.member("@id"), expected.id) == Outcome::TAKEN;
    require(isTaken(payload, value) == readable, "a link is dropped without its id");
    require(value.id == expected.id, "the id");

    std::string written;
    mqtt::MqttData<Link>::serialize(mqtt::Topic(), written, value);
    Link again;
    require(isTaken(written, again) && again.id == value.id, "it reads back");
}

/// @param links as they are left, whether the reading fails or not
/// @return whether it does not
bool expect(Json const& json, Links& links) {
    std::uint64_t count = 0;
    if (fuzz::readInteger(json.member("members@count"), 0xffffffffU, count) != Outcome::TAKEN) {
        return false;
    }
    links.clear();
    auto const& members = json.member("members");
    if (members.kind != Json::Kind::ARRAY) {
        return false;
    }
    for (auto const& member : members.children) {
        if (fuzz::readText(member.member("@id"), links.emplace_back().id) != Outcome::TAKEN) {
            return false;
        }
    }
    return true;
}

void links(std::string const& payload, Json const& json) {
    Links value{{"before"}, {"that"}};
    Links expected = value;
    bool const readable = payload.empty() || expect(json, expected);
    require(isTaken(payload, value) == readable, "a collection is dropped for what is no link");
    require(isSame(value, expected), "the links");
    require(value.capacity() <= payload.size() + 2, "room for no more than the text can hold");

    std::string written;
    mqtt::MqttDataCollection<Link>::serialize(mqtt::Topic(), written, value);
    Links again;
    require(isTaken(written, again) && isSame(again, value), "they read back");
}

/// What a walk over any text gives, as far as it gets.
std::vector<std::string_view> walked(std::string_view text) {
    std::vector<std::string_view> result;
    try {
        mqtt::ArrayElements elements(text);
        std::string_view element;
        while (elements.next(element)) {
            result.push_back(element);
        }
    } catch (std::runtime_error const&) {
        // No array, or one without an end.
    }
    return result;
}

void elements(std::string_view text, Json const& json) {
    auto const found = walked(text);
    for (auto const element : found) {
        require(element.empty() || text.find(element) != std::string_view::npos, "a part of it");
    }
    if (json.kind != Json::Kind::ARRAY) {
        return;
    }
    require(std::equal(found.begin(), found.end(), json.children.begin(), json.children.end(),
                       [](std::string_view a, Json const& b) { return a == b.raw; }),
            "the elements of a good array");
}

void run(std::string_view bytes) {
    std::string const payload(bytes);
    Json json;
    fuzz::readReference(bytes, json);
    link(payload, json);
    links(payload, json);
    elements(bytes, json);
}

fuzz::Target const LINKS("links", run);

} // namespace
