#pragma once

#include <cstddef>
#include <string_view>

namespace zym::common::lwjson {

/// What the parser gets to see of a JSON text: its structure.
///
/// The parser would refuse a whole document for one number that is too large for a double, or
/// for half of a surrogate pair in one string, and copies every string. The reader wants to know
/// no more than where values begin and end, and judges a value when somebody asks for it. So
/// only the first of a run of plain characters in a string, or of digits in a number, is shown,
/// and no escape names a surrogate. What is good JSON and what is not stays the same.
class OutlineStream {
public:
    using Ch = char;

    explicit OutlineStream(std::string_view text) : text_(text) {}

    char Peek() const {
        if (Tell() == text_.size()) {
            return '\0';
        }
        char const c = text_[at_];
        // \ud800 and its like become \uc800: any other code will do.
        return hexDigitsLeft_ == 4 && (c == 'd' || c == 'D') ? 'c' : c;
    }

    char Take() {
        char const c = Peek();
        ++at_;
        if (inString_) {
            takenInString(c);
        } else {
            takenOutside(c);
        }
        previous_ = c;
        return c;
    }

    std::size_t Tell() const { return at_; }

    // Parsing in place: what the parser writes is not kept, and its length nobody's concern.
    char* PutBegin() { return nullptr; }
    void Put(char) {}
    void Flush() {}
    std::size_t PutEnd(char*) { return 1; }

private:
    void takenInString(char c) {
        if (hexDigitsLeft_ > 0) {
            --hexDigitsLeft_;
        } else if (escaped_) {
            escaped_ = false;
            hexDigitsLeft_ = c == 'u' ? 4 : 0;
        } else if (c == '\\') {
            escaped_ = true;
        } else if (c == '"') {
            inString_ = false;
        } else {
            skipWhile([](char next) {
                return static_cast<unsigned char>(next) >= 0x20 && next != '"' && next != '\\';
            });
        }
    }

    void takenOutside(char c) {
        if (c == '"') {
            inString_ = true;
        } else if (isDigit(c) && (c != '0' || mayStartWithZero())) {
            skipWhile(isDigit);
        }
    }

    // A zero ends an integer; the parser has to see what follows it. After a minus sign it may
    // be either, but then the exponent is negative and never too large for the parser.
    bool mayStartWithZero() const {
        return previous_ == '.' || previous_ == 'e' || previous_ == 'E' || previous_ == '+';
    }

    static bool isDigit(char c) { return c >= '0' && c <= '9'; }

    template <typename Condition>
    void skipWhile(Condition condition) {
        while (at_ < text_.size() && condition(text_[at_])) {
            ++at_;
        }
    }

    std::string_view text_;
    std::size_t at_ = 0;
    char previous_ = '\0';
    bool inString_ = false;
    bool escaped_ = false;
    int hexDigitsLeft_ = 0; ///< of the escape being taken
};

} // namespace zym::common::lwjson
