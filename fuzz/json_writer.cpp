// What the JSON writer writes, of any values, is a document, and its values read back the same.

#include "fuzz/extraction.hpp"
#include "fuzz/lines.hpp"

#include <zym/common/lwjson.hpp>

#include <cmath>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

namespace {

using fuzz::Json;
using fuzz::require;
using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;

/// Eight bytes of a text as a number, so that every number can be had; or what it says.
double numberIn(std::string const& text) {
    double number = 0;
    if (text.size() == sizeof number) {
        std::memcpy(&number, text.data(), sizeof number);
    } else {
        number = std::strtod(text.c_str(), nullptr);
    }
    return number;
}

bool isEqual(Json const& a, Json const& b) {
    if (a.kind != b.kind || a.keys != b.keys || a.text != b.text
        || a.children.size() != b.children.size()) {
        return false;
    }
    if (a.children.empty() && a.kind != Json::Kind::OBJECT && a.kind != Json::Kind::ARRAY) {
        return a.raw == b.raw;
    }
    for (std::size_t i = 0; i < a.children.size(); ++i) {
        if (!isEqual(a.children[i], b.children[i])) {
            return false;
        }
    }
    return true;
}

std::string objectWith(std::string const& text) {
    std::string json;
    Serializer out(json);
    out.appendKey("inner");
    out.addValue(text);
    out.finalize();
    return json;
}

class Document {
public:
    void add(char kind, std::string const& key, std::string const& text) {
        switch (kind) {
        case 'd':
            addNumber(key, numberIn(text));
            break;
        case 't':
            addTime(key, numberIn(text));
            break;
        case 'o':
            addObjects(key, text);
            break;
        case 'w':
            addWrapped(key, text);
            break;
        default:
            addText(key, text);
        }
    }

    /// By the reference, and in the end by the reader that belongs to the writer.
    void check() {
        out_.finalize();
        require(fuzz::readReference(json_, root_) == fuzz::Verdict::GOOD, "a document is written");
        require(root_.kind == Json::Kind::OBJECT && root_.children.size() == checks_.size(),
                "every member is written");
        Deserializer const in(json_);
        require(in.getMember("").data() == root_.member("").raw.data(), "the reader takes it");
        for (std::size_t i = 0; i < checks_.size(); ++i) {
            require(root_.keys[i] == checks_[i].key, "a key");
            checkValue(checks_[i], root_.children[i]);
        }
    }

private:
    struct Check {
        char kind;
        std::string key;
        std::string text;
        double number;
    };

    void begin(char kind, std::string const& key, std::string const& text, double number) {
        out_.appendKey(key.c_str());
        checks_.push_back({kind, key.c_str(), text, number});
    }

    void addText(std::string const& key, std::string const& text) {
        begin('s', key, text, 0);
        out_.addValue(text);
    }

    void addNumber(std::string const& key, double number) {
        begin('d', key, "", number);
        out_.addValue(number);
    }

    void addTime(std::string const& key, double seconds) {
        begin('d', key, "", std::signbit(seconds) ? std::nan("") : seconds);
        out_.addValue(std::signbit(seconds) ? conv::UnixTime() : conv::UnixTime(seconds));
    }

    void addObjects(std::string const& key, std::string const& text) {
        begin('o', key, text, 0);
        out_.addValue(std::vector<Serializer>(text.size() % 4U, Serializer(objectWith(text))));
    }

    void addWrapped(std::string const& key, std::string const& text) {
        Json json; // with room for the level that it goes down
        if (fuzz::readReference('[' + text + ']', json) != fuzz::Verdict::GOOD
            || json.children.size() != 1 || json.children[0].kind != Json::Kind::OBJECT) {
            return;
        }
        begin('w', key, text, 0);
        out_.addValue(Serializer(text));
    }

    static void checkValue(Check const& check, Json const& json) {
        if (check.kind == 's') {
            std::string text;
            require(fuzz::extract(json.raw, text) == fuzz::Outcome::TAKEN && text == check.text,
                    "a text reads back");
        } else if (check.kind == 'd' && !std::isfinite(check.number)) {
            require(json.raw == "null", "what is no number is null");
        } else if (check.kind == 'd') {
            double number = 0;
            require(fuzz::extract(json.raw, number) == fuzz::Outcome::TAKEN
                        && fuzz::sameNumber(number, check.number),
                    "a number reads back");
        } else if (check.kind == 'o') {
            require(json.children.size() == check.text.size() % 4U, "every object is written");
            for (auto const& object : json.children) {
                require(object.member("inner").text == check.text, "a text in an object");
            }
        } else {
            Json wrapped;
            require(fuzz::readReference(check.text, wrapped) == fuzz::Verdict::GOOD
                        && isEqual(wrapped, json),
                    "a wrapped text stays what it is");
            require(json.raw.find_first_of("\r\n") == std::string_view::npos, "on one line");
        }
    }

    std::string json_ = "to be replaced";
    Serializer out_{json_};
    Json root_;
    std::vector<Check> checks_;
};

void run(std::string_view bytes) {
    Document document;
    for (fuzz::Lines lines(bytes); !lines.none();) {
        std::string const head = lines.next();
        if (!head.empty()) {
            document.add(head[0], head.substr(1), lines.next());
        }
    }
    document.check();
}

fuzz::Target const JSON_WRITER("json_writer", run);

} // namespace
