// Writes a document of any values: it must be valid, and its values must read back the same.

#include "fuzz/reference_json.hpp"
#include "fuzz/target.hpp"

#include <zym/common/lwjson.hpp>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

namespace {

using fuzz::Json;
using fuzz::require;
using fuzz::Validity;
using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;

/// Eight bytes of text are taken as the bits of a number, other texts as its digits.
double numberIn(std::string const& text) {
    double number = 0;
    if (text.size() != sizeof number) {
        return std::strtod(text.c_str(), nullptr);
    }
    std::memcpy(&number, text.data(), sizeof number);
    return number;
}

bool isEqual(Json const& a, Json const& b) {
    bool const isContainer = a.kind == Json::Kind::OBJECT || a.kind == Json::Kind::ARRAY;
    return a.kind == b.kind && a.keys == b.keys && a.text == b.text
           && (isContainer || a.raw == b.raw)
           && std::equal(a.children.begin(), a.children.end(), b.children.begin(), b.children.end(),
                         isEqual);
}

std::string objectWith(std::string const& text) {
    std::string json;
    Serializer out(json);
    out.appendKey("inner");
    out.addValue(text);
    out.finalize();
    return json;
}

struct Member {
    char kind; ///< 'd': number, 't': time, 'o': array of objects, 'w': wrapped object; else text
    std::string key;
    std::string text;

    double number() const { return numberIn(text); }
    std::size_t objects() const { return text.size() % 4U; }
    conv::UnixTime time() const {
        return std::signbit(number()) ? conv::UnixTime() : conv::UnixTime(number());
    }
};

bool canBeWritten(Member const& member) {
    if (member.kind != 'w') {
        return true;
    }
    Json json; // in an array, to leave room for one more level
    return fuzz::parse('[' + member.text + ']', json) == Validity::VALID
           && json.children.size() == 1 && json.children[0].kind == Json::Kind::OBJECT;
}

void write(Serializer& out, Member const& member) {
    out.appendKey(member.key.c_str());
    switch (member.kind) {
    case 'd':
        out.addValue(member.number());
        break;
    case 't':
        out.addValue(member.time());
        break;
    case 'o':
        out.addValue(
            std::vector<Serializer>(member.objects(), Serializer(objectWith(member.text))));
        break;
    case 'w':
        out.addValue(Serializer(member.text));
        break;
    default:
        out.addValue(member.text);
    }
}

void checkNumber(double expected, std::string_view raw) {
    double number = std::numeric_limits<double>::quiet_NaN();
    if (!std::isfinite(expected)) {
        require(raw == "null", "a number that is not finite is null");
        return;
    }
    Deserializer::extractValue(raw, number, "");
    require(fuzz::sameNumber(number, expected), "a number reads back");
}

void checkWrapped(std::string const& text, Json const& json) {
    Json wrapped;
    require(fuzz::parse(text, wrapped) == Validity::VALID && isEqual(wrapped, json),
            "a wrapped text keeps its value");
    require(json.raw.find_first_of("\r\n") == std::string_view::npos, "on one line");
}

void check(Member const& member, Json const& json) {
    std::string text;
    switch (member.kind) {
    case 'd':
        checkNumber(member.number(), json.raw);
        break;
    case 't':
        checkNumber(member.time().valid == 0 ? std::nan("") : member.number(), json.raw);
        break;
    case 'o':
        require(json.children.size() == member.objects(), "every object is written");
        for (auto const& object : json.children) {
            require(object.member("inner").text == member.text, "a text in an object");
        }
        break;
    case 'w':
        checkWrapped(member.text, json);
        break;
    default:
        Deserializer::extractValue(json.raw, text, "");
        require(text == member.text, "a text reads back");
    }
}

void run(std::string_view bytes) {
    std::vector<Member> members;
    std::string text = "is replaced";
    Serializer out(text);
    for (fuzz::Lines lines(bytes); !lines.none();) {
        std::string const head = lines.next();
        if (head.empty()) {
            continue;
        }
        Member const member{head[0], head.c_str() + 1, lines.next()};
        if (canBeWritten(member)) {
            write(out, member);
            members.push_back(member);
        }
    }
    out.finalize();

    Json json;
    require(fuzz::parse(text, json) == Validity::VALID, "the document is valid");
    require(json.kind == Json::Kind::OBJECT && json.children.size() == members.size(),
            "every member is written");
    require(Deserializer(text).getMember("").data() == json.member("").raw.data(),
            "the deserializer accepts the document");
    for (std::size_t i = 0; i < members.size(); ++i) {
        require(json.keys[i] == members[i].key, "a key");
        check(members[i], json.children[i]);
    }
}

fuzz::Target const JSON_WRITER("json_writer", run);

} // namespace
