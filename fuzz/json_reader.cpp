// The JSON reader's view of any text: what it takes for a document, and the raw texts in it. Held
// against the reference; and that, as to what is a document, against RapidJSON's own.

#include "fuzz/reference_json.hpp"
#include "fuzz/target.hpp"

#include <zym/common/lwjson/deserializer.hpp>

#include <rapidjson/document.h>
#include <rapidjson/memorystream.h>

#include <algorithm>
#include <stdexcept>

namespace {

using fuzz::Json;
using fuzz::require;
using fuzz::Verdict;
using zym::common::lwjson::Deserializer;

void compareWithDom(std::string_view text, Verdict verdict) {
    rapidjson::MemoryStream stream(text.data(), text.size());
    rapidjson::Document document;
    document.ParseStream<rapidjson::kParseIterativeFlag>(stream);
    switch (document.GetParseError()) {
    case rapidjson::kParseErrorNumberTooBig:
    case rapidjson::kParseErrorStringUnicodeSurrogateInvalid:
        return; // these are not a matter of grammar
    default:
        break;
    }
    // To the parser a zero byte is the end.
    bool const isGood = !document.HasParseError() && stream.Tell() == text.size();
    require(verdict == Verdict::TOO_DEEP || isGood == (verdict == Verdict::GOOD),
            "RapidJSON accepts the same texts");
}

template <class Action>
bool isRefused(Action const& action) {
    try {
        action();
    } catch (std::runtime_error const&) {
        return true;
    }
    return false;
}

bool isSame(std::string_view a, std::string_view b) {
    return a.data() == b.data() && a.size() == b.size();
}

void compare(Deserializer const& in, Json const& json);

void descend(std::string_view raw, Json const& json) {
    require(isSame(raw, json.raw), "a raw text");
    if (!json.children.empty()) {
        compare(Deserializer(raw), json);
    }
}

void compareMembers(Deserializer const& in, Json const& json) {
    for (std::size_t i = 0; i < json.keys.size(); ++i) {
        auto const& key = json.keys[i];
        bool const canBeAsked = key && key->find('\0') == std::string::npos;
        if (canBeAsked
            && std::find(json.keys.begin(), json.keys.end(), key) - json.keys.begin()
                   == static_cast<std::ptrdiff_t>(i)) {
            descend(in.getMember(key->c_str()), json.children[i]);
        }
    }
    if (json.member("absent").kind == Json::Kind::ABSENT) {
        require(in.getMember("absent").empty(), "a member that is not there is empty");
    }
}

void compare(Deserializer const& in, Json const& json) {
    bool const isObject = json.kind == Json::Kind::OBJECT;
    require(isRefused([&] { in.getMember(""); }) == !isObject, "only an object has members");
    if (isObject) {
        compareMembers(in, json);
    }
}

void run(std::string_view text) {
    Json json;
    auto const verdict = fuzz::readReference(text, json);
    compareWithDom(text, verdict);
    compare(Deserializer(text), json);
}

fuzz::Target const JSON_READER("json_reader", run);

} // namespace
