#include <zym/common/lwjson/serializer.hpp>

#include "number_text.hpp"

#include <algorithm>
#include <cmath>
#include <string_view>

namespace zym::common::lwjson {

namespace {

constexpr char MEMBER_LAYOUT[] = "\n  ";
constexpr char ELEMENT_LAYOUT[] = "\n    ";

// The letter of a short escape, or 0.
char shortEscape(char c) {
    switch (c) {
    case '"':
    case '\\':
        return c;
    case '\b':
        return 'b';
    case '\f':
        return 'f';
    case '\n':
        return 'n';
    case '\r':
        return 'r';
    case '\t':
        return 't';
    default:
        return 0;
    }
}

bool passes(char c) {
    return static_cast<unsigned char>(c) >= 0x20 && c != '"' && c != '\\';
}

void appendEscape(std::string& json, char c) {
    constexpr char HEX_DIGITS[] = "0123456789abcdef";
    json += '\\';
    if (char const letter = shortEscape(c); letter != 0) {
        json += letter;
        return;
    }
    auto const code = static_cast<unsigned char>(c);
    json += "u00";
    json += HEX_DIGITS[code >> 4U];
    json += HEX_DIGITS[code & 0xfU];
}

void appendString(std::string& json, std::string_view text) {
    json += '"';
    std::size_t copied = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (!passes(text[i])) {
            json.append(text, copied, i - copied);
            appendEscape(json, text[i]);
            copied = i + 1;
        }
    }
    json.append(text, copied);
    json += '"';
}

// A raw line feed never stands inside a JSON string, so it and the blanks behind it are layout.
void appendOnOneLine(std::string& json, std::string_view text) {
    while (!text.empty()) {
        std::size_t const end = std::min(text.find_first_of("\r\n"), text.size());
        json.append(text, 0, end);
        std::size_t const next = text.find_first_not_of("\r\n \t", end);
        text.remove_prefix(std::min(next, text.size()));
    }
}

} // namespace

Serializer::Serializer(std::string& json) : target_(&json) {
    json = '{';
}

Serializer::Serializer(std::string const& finishedText) : target_(nullptr) {
    appendOnOneLine(wrapped_, finishedText);
}

void Serializer::appendKey(char const* key) {
    std::string& json = mutableJson();
    json += MEMBER_LAYOUT;
    appendString(json, key);
    json += ": ";
}

void Serializer::appendValue(char const* rawText) {
    std::string& json = mutableJson();
    json += rawText;
    json += ',';
}

void Serializer::addValue(std::string const& text) {
    std::string& json = mutableJson();
    appendString(json, text);
    json += ',';
}

void Serializer::addValue(double number) {
    if (!std::isfinite(number)) {
        appendValue("null");
        return;
    }
    std::string& json = mutableJson();
    appendNumber(json, number);
    json += ',';
}

void Serializer::addValue(conv::UnixTime const& time) {
    if (time.valid == 0) {
        appendValue("null");
        return;
    }
    addValue(time.seconds);
}

void Serializer::addValue(Serializer const& object) {
    std::string& json = mutableJson();
    appendOnOneLine(json, object.json());
    json += ',';
}

void Serializer::addValue(std::vector<Serializer> const& objects) {
    std::string& json = mutableJson();
    json.back() = '\n'; // the blank behind the key
    json += "  [";
    for (Serializer const& object : objects) {
        json += ELEMENT_LAYOUT;
        addValue(object);
    }
    if (!objects.empty()) {
        json.pop_back();
    }
    json += MEMBER_LAYOUT;
    json += "],";
}

void Serializer::finalize() {
    std::string& json = mutableJson();
    if (json.back() == ',') {
        json.back() = '\n';
    }
    json += '}';
}

} // namespace zym::common::lwjson
