// Compares the documents that the library's deserializer accepts, and the raw texts that it
// returns, with the reference; and which documents the reference accepts with RapidJSON's DOM.

#include "fuzz/reference_json.hpp"
#include "fuzz/target.hpp"

#include <zym/common/lwjson/deserializer.hpp>

#include <rapidjson/document.h>
#include <rapidjson/memorystream.h>

#include <algorithm>

namespace {

using fuzz::Json;
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

void compareMembers(Deserializer const& in, Json const& json);

void compare(std::string_view text, Json const& json) {
    Deserializer const in(text);
    bool const isObject = json.kind == Json::Kind::OBJECT;
    require(fuzz::succeeds([&] { in.getMember(""); }) == isObject, "only an object has members");
    if (isObject) {
        compareMembers(in, json);
    }
}

void compareMembers(Deserializer const& in, Json const& json) {
    for (auto key = json.keys.begin(); key != json.keys.end(); ++key) {
        bool const isFirst = std::find(json.keys.begin(), key, *key) == key;
        if (!isFirst || !*key || (*key)->find('\0') != std::string::npos) {
            continue; // no name selects this member
        }
        auto const& value = *(json.children.begin() + (key - json.keys.begin()));
        auto const raw = in.getMember((*key)->c_str());
        require(raw.data() == value.raw.data() && raw.size() == value.raw.size(), "a raw text");
        if (!value.children.empty()) {
            compare(raw, value);
        }
    }
    if (json.member("absent").kind == Json::Kind::ABSENT) {
        require(in.getMember("absent").empty(), "an absent member is empty");
    }
}

void run(std::string_view text) {
    Json json;
    compareWithDom(text, fuzz::parse(text, json));
    compare(text, json);
}

fuzz::Target const JSON_READER("json_reader", run);

} // namespace
