#include "fuzz/reference_json.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace fuzz {

namespace {

constexpr int MAX_DEPTH = 64;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

std::string utf8(std::uint32_t codePoint) {
    if (codePoint < 0x80U) {
        return {static_cast<char>(codePoint)};
    }
    std::string tail;
    std::uint32_t largestHead = 0x3fU; // what fits into the first byte
    for (; codePoint > largestHead; codePoint >>= 6U, largestHead >>= 1U) {
        tail.insert(tail.begin(), static_cast<char>(0x80U | (codePoint & 0x3fU)));
    }
    std::uint32_t const mark = ~(2U * largestHead + 1U);
    return static_cast<char>((mark & 0xffU) | codePoint) + tail;
}

class Parser {
public:
    explicit Parser(std::string_view text) : text_(text) {}

    Json document() {
        Json json = value();
        check(at_ == text_.size());
        return json;
    }

private:
    static void check(bool isValid) {
        if (!isValid) {
            throw Validity::MALFORMED;
        }
    }

    void expect(std::string_view word) { check(takeIf(word)); }

    char peek() const {
        check(at_ < text_.size());
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

    void skipBlanks() { at_ = std::min(text_.find_first_not_of(" \t\r\n", at_), text_.size()); }

    /// Skips blanks on both sides.
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
        if (++depth_ > MAX_DEPTH) {
            throw Validity::TOO_DEEP;
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
            check(peek() == ',' || peek() == end);
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
            static_cast<void>(takeIf("+") || takeIf("-"));
            digits();
        }
    }

    void digits() {
        check(isDigit(peek()));
        at_ = std::min(text_.find_first_not_of("0123456789", at_), text_.size());
    }

    std::optional<std::string> string() {
        expect("\"");
        std::string result;
        bool isWhole = true;
        for (char c = take(); c != '"'; c = take()) {
            check(static_cast<unsigned char>(c) >= 0x20U);
            if (c == '\\') {
                isWhole = escape(result) && isWhole;
            } else {
                result += c;
            }
        }
        return isWhole ? std::make_optional(result) : std::nullopt;
    }

    /// @return false for half of a surrogate pair
    bool escape(std::string& result) {
        if (takeIf("u")) {
            return unicode(result);
        }
        auto const i = std::string_view("\"\\/bfnrt").find(take());
        check(i != std::string_view::npos);
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
        auto const digits = text_.substr(at_, 4);
        auto const end = std::from_chars(digits.begin(), digits.end(), result, 16).ptr;
        check(digits.size() == 4 && end == digits.end());
        at_ += 4;
        return result;
    }

    std::string_view text_;
    std::size_t at_ = 0;
    int depth_ = 0;
};

} // namespace

Json const& Json::member(std::string_view key) const {
    static Json const ABSENT_MEMBER;
    auto const found = std::find(keys.begin(), keys.end(), key);
    return found == keys.end() ? ABSENT_MEMBER : *(children.begin() + (found - keys.begin()));
}

Validity parse(std::string_view text, Json& json) {
    try {
        json = Parser(text).document();
        return Validity::VALID;
    } catch (Validity const& validity) {
        return validity;
    }
}

Outcome outcomeOfOtherKind(Json const& json) {
    return json.kind == Json::Kind::ABSENT ? Outcome::OUT_OF_RANGE : Outcome::INVALID;
}

Outcome read(Json const& json, double& out) {
    if (json.kind != Json::Kind::NUMBER) {
        return outcomeOfOtherKind(json);
    }
    double const number = std::strtod(std::string(json.raw).c_str(), nullptr);
    auto const mantissa = json.raw.substr(0, json.raw.find_first_of("eE"));
    bool const isZero = mantissa.find_first_of("123456789") == std::string_view::npos;
    if (std::isinf(number) || (number == 0 && !isZero)) {
        return Outcome::OUT_OF_RANGE;
    }
    out = number;
    return Outcome::SUCCESS;
}

Outcome read(Json const& json, std::string& out) {
    if (!json.text) {
        return outcomeOfOtherKind(json);
    }
    out = *json.text;
    return Outcome::SUCCESS;
}

bool sameNumber(double a, double b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

} // namespace fuzz
