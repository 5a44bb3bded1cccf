// Reads any payload as a link, as a collection of links and as an array.

#include "data/array_elements.hpp"
#include "fuzz/typed_values.hpp"

#include <mqtt/link.hpp>

#include <algorithm>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace {

using fuzz::Json;
using fuzz::Outcome;
using fuzz::require;
using mqtt::Link;
using Links = std::vector<Link>;

bool isSame(Links const& a, Links const& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](Link const& x, Link const& y) { return x.id == y.id; });
}

void checkLink(std::string const& payload, Json const& json) {
    Link value{"before"};
    Link expected = value;
    bool const isAccepted =
        payload.empty() || fuzz::readText(json.member("@id"), expected.id) == Outcome::SUCCESS;
    require(fuzz::read(payload, value) == isAccepted, "a link without its id is dropped");
    require(value.id == expected.id, "the id");
    require(fuzz::writtenAndRead<mqtt::MqttData<Link>>(value).id == value.id, "a link reads back");
}

/// @param links set as the library leaves them, also on failure
/// @return whether the collection is accepted
bool readExpected(Json const& json, Links& links) {
    std::uint64_t count = 0;
    if (fuzz::readInteger(json.member("members@count"), 0xffffffffU, count) != Outcome::SUCCESS) {
        return false;
    }
    links.clear();
    auto const& members = json.member("members");
    return members.kind == Json::Kind::ARRAY
           && std::all_of(members.children.begin(), members.children.end(), [&](Json const& link) {
                  return fuzz::readText(link.member("@id"), links.emplace_back().id)
                         == Outcome::SUCCESS;
              });
}

void checkCollection(std::string const& payload, Json const& json) {
    Links value{{"before"}, {"reading"}};
    Links expected = value;
    bool const isAccepted = payload.empty() || readExpected(json, expected);
    require(fuzz::read(payload, value) == isAccepted, "a collection without its links is dropped");
    require(isSame(value, expected), "the links");
    require(value.capacity() <= payload.size() + 2, "room for no more than the text can hold");
    require(isSame(fuzz::writtenAndRead<mqtt::MqttDataCollection<Link>>(value), value),
            "a collection reads back");
}

/// The elements before the first error.
std::vector<std::string_view> elementsIn(std::string_view text) {
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

void checkElements(std::string_view text, Json const& json) {
    auto const elements = elementsIn(text);
    for (auto const element : elements) {
        require(text.find(element) != std::string_view::npos, "an element is part of the text");
    }
    require(json.kind != Json::Kind::ARRAY
                || std::equal(elements.begin(), elements.end(), json.children.begin(),
                              json.children.end(),
                              [](std::string_view a, Json const& b) { return a == b.raw; }),
            "the elements of a valid array");
}

void run(std::string_view bytes) {
    std::string const payload(bytes);
    Json json;
    fuzz::parse(bytes, json);
    checkLink(payload, json);
    checkCollection(payload, json);
    checkElements(bytes, json);
}

fuzz::Target const LINKS("links", run);

} // namespace
