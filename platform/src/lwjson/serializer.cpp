#include <zym/common/lwjson/serializer.hpp>

#include "number_text.hpp"
#include "plain_text.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string_view>

namespace zym::common::lwjson {

namespace {

constexpr char MEMBER_LAYOUT[] = "\n  ";
constexpr char ELEMENT_LAYOUT[] = "\n    ";

// Most documents are shorter.
constexpr std::size_t USUAL_SIZE = 511;

bool isLayout(char c) {
    return c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

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

void appendEscaped(std::string& json, std::string_view text) {
    char const* at = text.begin();
    while (at != text.end()) {
        char const* const end = endOfPlain(at, text.end());
        json.append(at, end);
        at = end;
        if (at != text.end()) {
            appendEscape(json, *at++);
        }
    }
}

// Appends three texts at once: growing the string takes most of a writer's time.
template <std::size_t Before, std::size_t Behind>
void appendAll(std::string& json, char const (&before)[Before], std::string_view text,
               char const (&behind)[Behind]) {
    std::size_t const start = json.size();
    json.resize(start + Before + text.size() + Behind - 2);
    char* to = json.data() + start;
    std::memcpy(to, before, Before - 1);
    to += Before - 1;
    std::memcpy(to, text.data(), text.size());
    std::memcpy(to + text.size(), behind, Behind - 1);
}

template <std::size_t Before, std::size_t Behind>
void appendString(std::string& json, char const (&before)[Before], std::string_view text,
                  char const (&behind)[Behind]) {
    if (isAllPlain(text)) {
        appendAll(json, before, text, behind);
        return;
    }
    json += before;
    appendEscaped(json, text);
    json += behind;
}

// A JSON string holds no raw line feed, so a line feed and the blanks behind it are layout.
void appendOnOneLine(std::string& json, std::string_view text) {
    while (!text.empty()) {
        std::string_view const line = text.substr(0, text.find('\n'));
        std::size_t const end = std::min(line.find('\r'), line.size());
        json.append(text, 0, end);
        std::size_t next = end;
        while (next < text.size() && isLayout(text[next])) {
            ++next;
        }
        text.remove_prefix(next);
    }
}

} // namespace

Serializer::Serializer(std::string& json) : target_(&json) {
    json.clear();
    json.reserve(USUAL_SIZE);
    json += '{';
}

Serializer::Serializer(std::string const& finishedText) : target_(nullptr) {
    wrapped_.reserve(finishedText.size());
    appendOnOneLine(wrapped_, finishedText);
}

void Serializer::appendKey(char const* key) {
    appendString(mutableJson(), "\n  \"", key, "\": ");
}

void Serializer::appendValue(char const* rawText) {
    appendAll(mutableJson(), "", rawText, ",");
}

void Serializer::addValue(std::string const& text) {
    appendString(mutableJson(), "\"", text, "\",");
}

void Serializer::addValue(double number) {
    if (!std::isfinite(number)) {
        appendValue("null");
        return;
    }
    char text[LONGEST_NUMBER + 1];
    char* const end = writeNumber(text, number);
    *end = ',';
    mutableJson().append(text, static_cast<std::size_t>(end + 1 - text));
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
    if (object.target_ == nullptr) {
        json += object.wrapped_;
    } else {
        appendOnOneLine(json, *object.target_);
    }
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
