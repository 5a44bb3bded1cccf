#include "fuzz/reference_json.hpp"

#include <cmath>
#include <cstdlib>
#include <cstring>

namespace fuzz {

namespace {

constexpr int DEEPEST = 64;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

std::string utf8(std::uint32_t code) {
    auto const tail = [code](unsigned shift) {
        return static_cast<char>(0x80U | ((code >> shift) & 0x3fU));
    };
    auto const head = [code](unsigned mark, unsigned shift) {
        return static_cast<char>(mark | (code >> shift));
    };
    if (code < 0x80U) {
        return {head(0, 0)};
    }
    if (code < 0x800U) {
        return {head(0xc0U, 6), tail(0)};
    }
    if (code < 0x10000U) {
        return {head(0xe0U, 12), tail(6), tail(0)};
    }
    return {head(0xf0U, 18), tail(12), tail(6), tail(0)};
}

class Parser {
public:
    explicit Parser(std::string_view text) : text_(text) {}

    Json document() {
        Json json = value();
        if (at_ != text_.size()) {
            throw Verdict::MALFORMED;
        }
        return json;
    }

private:
    char peek() const {
        if (at_ == text_.size()) {
            throw Verdict::MALFORMED;
        }
        return text_[at_];
    }

    char take() {
        char const c = peek();
        ++at_;
        return c;
    }

    bool takeIf(std::string_view word) {
        if (text_.substr(at_, word.size()) != word) {
            return false;
        }
        at_ += word.size();
        return true;
    }

    void expect(std::string_view word) {
        if (!takeIf(word)) {
            throw Verdict::MALFORMED;
        }
    }

    void skipBlanks() { at_ = std::min(text_.find_first_not_of(" \t\r\n", at_), text_.size()); }

    /// With the blanks on both sides.
    Json value() {
        skipBlanks();
        auto const begin = at_;
        Json json = bareValue();
        json.raw = text_.substr(begin, at_ - begin);
        skipBlanks();
        return json;
    }

    Json bareValue() {
        Json json;
        char const first = peek();
        if (first == '{' || first == '[') {
            container(json, first == '{');
        } else if (first == '"') {
            json.kind = Json::Kind::STRING;
            json.text = string();
        } else if (first == '-' || isDigit(first)) {
            json.kind = Json::Kind::NUMBER;
            number();
        } else {
            json.kind = Json::Kind::LITERAL;
            if (!takeIf("true") && !takeIf("false")) {
                expect("null");
            }
        }
        return json;
    }

    void container(Json& json, bool isObject) {
        json.kind = isObject ? Json::Kind::OBJECT : Json::Kind::ARRAY;
        char const end = isObject ? '}' : ']';
        ++at_;
        if (++depth_ > DEEPEST) {
            throw Verdict::TOO_DEEP;
        }
        skipBlanks();
        for (bool first = true; peek() != end; first = false) {
            if (!first) {
                expect(",");
            }
            if (isObject) {
                json.keys.push_back(key());
            }
            json.children.push_back(value());
            if (peek() != ',' && peek() != end) {
                throw Verdict::MALFORMED;
            }
        }
        ++at_;
        --depth_;
    }

    std::optional<std::string> key() {
        skipBlanks();
        auto result = string();
        skipBlanks();
        expect(":");
        return result;
    }

    void number() {
        takeIf("-");
        if (!takeIf("0")) {
            digits();
        }
        if (takeIf(".")) {
            digits();
        }
        if (takeIf("e") || takeIf("E")) {
            if (!takeIf("+")) {
                takeIf("-");
            }
            digits();
        }
    }

    void digits() {
        if (!isDigit(peek())) {
            throw Verdict::MALFORMED;
        }
        while (at_ < text_.size() && isDigit(text_[at_])) {
            ++at_;
        }
    }

    std::optional<std::string> string() {
        expect("\"");
        std::string result;
        bool whole = true;
        for (char c = take(); c != '"'; c = take()) {
            if (static_cast<unsigned char>(c) < 0x20U) {
                throw Verdict::MALFORMED;
            }
            if (c == '\\') {
                whole = escape(result) && whole;
            } else {
                result += c;
            }
        }
        return whole ? std::make_optional(result) : std::nullopt;
    }

    /// @return false for half of a surrogate pair
    bool escape(std::string& result) {
        char const letter = take();
        if (letter == 'u') {
            return unicode(result);
        }
        constexpr std::string_view LETTERS = "\"\\/bfnrt";
        auto const i = LETTERS.find(letter);
        if (i == std::string_view::npos) {
            throw Verdict::MALFORMED;
        }
        result += "\"\\/\b\f\n\r\t"[i];
        return true;
    }

    bool unicode(std::string& result) {
        auto const unit = hex();
        if (unit < 0xd800U || unit > 0xdfffU) {
            result += utf8(unit);
            return true;
        }
        auto const behind = at_;
        if (unit < 0xdc00U && takeIf("\\u")) {
            auto const low = hex();
            if (low >= 0xdc00U && low <= 0xdfffU) {
                result += utf8(0x10000U + ((unit - 0xd800U) << 10U) + (low - 0xdc00U));
                return true;
            }
        }
        at_ = behind;
        return false;
    }

    std::uint32_t hex() {
        std::uint32_t result = 0;
        for (int i = 0; i < 4; ++i) {
            constexpr std::string_view DIGITS = "0123456789abcdef0123456789ABCDEF";
            auto const digit = DIGITS.find(take());
            if (digit == std::string_view::npos) {
                throw Verdict::MALFORMED;
            }
            result = result * 16U + static_cast<std::uint32_t>(digit % 16U);
        }
        return result;
    }

    std::string_view text_;
    std::size_t at_ = 0;
    int depth_ = 0;
};

} // namespace

Json const& Json::member(std::string_view key) const {
    static Json const ABSENT_MEMBER;
    for (std::size_t i = 0; i < keys.size(); ++i) {
        if (keys[i] == key) {
            return children[i];
        }
    }
    return ABSENT_MEMBER;
}

Verdict readReference(std::string_view text, Json& json) {
    try {
        json = Parser(text).document();
        return Verdict::GOOD;
    } catch (Verdict const& verdict) {
        return verdict;
    }
}

Outcome readInteger(Json const& json, std::uint64_t largest, std::uint64_t& out) {
    if (json.kind == Json::Kind::ABSENT) {
        return Outcome::OUT_OF_RANGE;
    }
    if (json.kind != Json::Kind::NUMBER
        || json.raw.find_first_of(".eE") != std::string_view::npos) {
        return Outcome::INVALID;
    }
    if (json.raw.front() == '-' || json.raw.size() > 10) {
        return Outcome::OUT_OF_RANGE;
    }
    auto const number = std::stoull(std::string(json.raw));
    if (number > largest) {
        return Outcome::OUT_OF_RANGE;
    }
    out = number;
    return Outcome::TAKEN;
}

Outcome readNumber(Json const& json, double& out) {
    if (json.kind == Json::Kind::ABSENT) {
        return Outcome::OUT_OF_RANGE;
    }
    if (json.kind != Json::Kind::NUMBER) {
        return Outcome::INVALID;
    }
    double const number = std::strtod(std::string(json.raw).c_str(), nullptr);
    auto const mantissa = json.raw.substr(0, json.raw.find_first_of("eE"));
    bool const isZero = mantissa.find_first_of("123456789") == std::string_view::npos;
    if (std::isinf(number) || (number == 0 && !isZero)) {
        return Outcome::OUT_OF_RANGE;
    }
    out = number;
    return Outcome::TAKEN;
}

Outcome readText(Json const& json, std::string& out) {
    if (json.kind == Json::Kind::ABSENT) {
        return Outcome::OUT_OF_RANGE;
    }
    if (!json.text) {
        return Outcome::INVALID;
    }
    out = *json.text;
    return Outcome::TAKEN;
}

bool sameNumber(double a, double b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

} // namespace fuzz
