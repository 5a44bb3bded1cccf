// Writes a document of any values: it must be valid, and its values must read back the same.

#include "fuzz/reference_json.hpp"
#include "fuzz/target.hpp"

#include <zym/common/lwjson.hpp>

#include <cmath>
#include <cstring>
#include <vector>

namespace {

using fuzz::Json;
using fuzz::require;
using fuzz::Validity;
using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;

bool isEqual(Json const& a, Json const& b) {
    bool const isContainer = a.kind == Json::Kind::OBJECT || a.kind == Json::Kind::ARRAY;
    return a.kind == b.kind && a.keys == b.keys && a.text == b.text
           && (isContainer || a.raw == b.raw)
           && std::equal(a.children.begin(), a.children.end(), b.children.begin(), b.children.end(),
                         isEqual);
}

struct Member {
    char kind; ///< 'd': number, 't': time, 'o': array of objects, 'w': wrapped object; else text
    std::string key;
    std::string text;

    /// Eight bytes of text are the bits of a number, other texts its digits.
    double number() const {
        double number = std::strtod(text.c_str(), nullptr);
        if (text.size() == sizeof number) {
            std::memcpy(&number, text.data(), sizeof number);
        }
        return number;
    }
    std::size_t objects() const { return text.size() % 4U; }
    std::string object() const {
        std::string json;
        Serializer out(json);
        out.appendKey("inner");
        out.addValue(text);
        out.finalize();
        return json;
    }
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
        out.addValue(std::vector<Serializer>(member.objects(), Serializer(member.object())));
        break;
    case 'w':
        out.addValue(Serializer(member.text));
        break;
    default:
        out.addValue(member.text);
    }
}

void checkNumber(double expected, Json const& json) {
    double number = 0;
    bool const isNumber = fuzz::reads(json, number);
    require(isNumber ? fuzz::sameNumber(number, expected)
                     : json.raw == "null" && !std::isfinite(expected),
            "a number reads back, and is null if not finite");
}

void checkWrapped(std::string const& text, Json const& json) {
    Json wrapped;
    require(fuzz::parse(text, wrapped) == Validity::VALID && isEqual(wrapped, json),
            "a wrapped text keeps its value");
    require(json.raw.find_first_of("\r\n") == std::string_view::npos, "on one line");
}

void check(Member const& member, Json const& json) {
    switch (member.kind) {
    case 'd':
        checkNumber(member.number(), json);
        break;
    case 't':
        checkNumber(member.time().valid == 0 ? std::nan("") : member.number(), json);
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
        require(json.text == member.text, "a text reads back");
    }
}

} // namespace

void fuzz::run(std::string_view bytes) {
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
