// Compares the documents that the library's deserializer accepts, the raw texts that it returns and
// the values that it reads from them with the reference; and which documents the reference accepts
// with RapidJSON's DOM.

#include "fuzz/reference_json.hpp"
#include "fuzz/target.hpp"

#include <zym/common/lwjson.hpp>

#include <rapidjson/document.h>
#include <rapidjson/memorystream.h>

#include <algorithm>
#include <stdexcept>

namespace {

using fuzz::Json;
using fuzz::Outcome;
using fuzz::require;
using fuzz::Validity;
using zym::common::lwjson::Deserializer;

void compareWithDom(std::string_view text, Validity validity) {
    rapidjson::MemoryStream stream(text.data(), text.size());
    rapidjson::Document document;
    document.ParseStream<rapidjson::kParseIterativeFlag>(stream);
    auto const error = document.GetParseError();
    if (validity == Validity::TOO_DEEP || error == rapidjson::kParseErrorNumberTooBig
        || error == rapidjson::kParseErrorStringUnicodeSurrogateInvalid) {
        return; // the grammar of JSON has no such limits
    }
    // RapidJSON takes a zero byte for the end.
    bool const isAccepted = !document.HasParseError() && stream.Tell() == text.size();
    require(isAccepted == (validity == Validity::VALID), "RapidJSON accepts the same texts");
}

/// An exception that is not documented leaves this function.
template <class T>
Outcome extract(std::string_view raw, T& out) {
    try {
        Deserializer::extractValue(raw, out, "");
        return Outcome::SUCCESS;
    } catch (std::out_of_range const&) {
        return Outcome::OUT_OF_RANGE;
    } catch (std::invalid_argument const&) {
        return Outcome::INVALID;
    }
}

template <class T>
void compareValue(std::string_view raw, Json const& json, T value) {
    T expected = value;
    require(extract(raw, value) == read(json, expected), "the outcome for a type");
    if constexpr (std::is_same_v<T, double>) {
        require(fuzz::sameNumber(value, expected), "a double, unchanged on failure");
    } else {
        require(value == expected, "a text or an integer, unchanged on failure");
    }
}

void compareTime(std::string_view raw, Json const& json) {
    conv::UnixTime time(-1.25);
    double expected = time.seconds;
    if (json.raw == "null") {
        require(extract(raw, time) == Outcome::SUCCESS && time.valid == 0, "null is no time");
        return;
    }
    require(extract(raw, time) == read(json, expected), "the outcome for a time");
    require(time.valid == 1 && fuzz::sameNumber(time.seconds, expected),
            "a time, unchanged on failure");
}

void compareAsEachType(std::string_view raw, Json const& json) {
    compareValue(raw, json, std::string("before"));
    compareValue(raw, json, static_cast<unsigned char>(99));
    compareValue(raw, json, 99U);
    compareValue(raw, json, -1.25);
    compareTime(raw, json);
}

void compareMembers(std::string_view text, Json const& json) {
    Deserializer const in(text);
    bool const isObject = json.kind == Json::Kind::OBJECT;
    require(fuzz::succeeds([&] { in.getMember(""); }) == isObject, "only an object has members");
    for (auto key = json.keys.begin(); key != json.keys.end(); ++key) {
        bool const isFirst = std::find(json.keys.begin(), key, *key) == key;
        if (!isFirst || !*key || (*key)->find('\0') != std::string::npos) {
            continue; // no name selects this member
        }
        auto const& value = *(json.children.begin() + (key - json.keys.begin()));
        auto const raw = in.getMember((*key)->c_str());
        require(raw.data() == value.raw.data() && raw.size() == value.raw.size(), "a raw text");
        compareAsEachType(raw, value);
        if (!value.children.empty()) {
            compareMembers(raw, value);
        }
    }
    if (isObject && json.member("absent").kind == Json::Kind::ABSENT) {
        require(in.getMember("absent").empty(), "an absent member is empty");
    }
}

} // namespace

void fuzz::run(std::string_view text) {
    Json json;
    compareWithDom(text, fuzz::parse(text, json));
    compareMembers(text, json);
    if (json.raw.size() != text.size()) { // not valid, or blanks around it
        json = Json();
        json.kind = Json::Kind::LITERAL; // of no readable type
    }
    compareAsEachType(text, json);
}
