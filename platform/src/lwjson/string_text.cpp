#include "string_text.hpp"

#include "../hex_digit.hpp"
#include "plain_text.hpp"

#include <stdexcept>

namespace zym::common::lwjson {

namespace {

class StringDecoder {
public:
    explicit StringDecoder(std::string_view body) : rest_(body) {}

    std::string decode() {
        std::string text;
        text.reserve(rest_.size());
        takePlain(text);
        while (!rest_.empty()) {
            if (take() != '\\') {
                fail();
            }
            appendEscape(text);
            takePlain(text);
        }
        return text;
    }

private:
    [[noreturn]] static void fail() { throw std::invalid_argument("Not a JSON string"); }

    char take() {
        if (rest_.empty()) {
            fail();
        }
        char const c = rest_.front();
        rest_.remove_prefix(1);
        return c;
    }

    void takePlain(std::string& text) {
        char const* const begin = rest_.data();
        auto const length =
            static_cast<std::size_t>(endOfPlain(begin, begin + rest_.size()) - begin);
        text.append(begin, length);
        rest_.remove_prefix(length);
    }

    void appendEscape(std::string& text) {
        constexpr std::string_view LETTERS = "\"\\/bfnrt";
        constexpr std::string_view MEANINGS = "\"\\/\b\f\n\r\t";
        char const letter = take();
        if (letter == 'u') {
            appendUtf8(text, takeCodePoint());
            return;
        }
        std::size_t const i = LETTERS.find(letter);
        if (i == std::string_view::npos) {
            fail();
        }
        text += MEANINGS[i];
    }

    unsigned takeHexDigit() {
        auto const digit = hexDigit(take());
        if (!digit) {
            fail();
        }
        return *digit;
    }

    unsigned takeCodeUnit() {
        unsigned unit = 0;
        for (int i = 0; i < 4; ++i) {
            unit = unit << 4U | takeHexDigit();
        }
        return unit;
    }

    unsigned takeCodePoint() {
        unsigned const unit = takeCodeUnit();
        if (unit < 0xd800U || unit > 0xdfffU) {
            return unit;
        }
        if (unit > 0xdbffU || take() != '\\' || take() != 'u') {
            fail();
        }
        unsigned const low = takeCodeUnit();
        if (low < 0xdc00U || low > 0xdfffU) {
            fail();
        }
        return 0x10000U + ((unit & 0x3ffU) << 10U | (low & 0x3ffU));
    }

    static void appendUtf8(std::string& text, unsigned code) {
        if (code < 0x80U) {
            appendByte(text, code);
        } else if (code < 0x800U) {
            appendByte(text, 0xc0U | code >> 6U);
            appendByte(text, 0x80U | (code & 0x3fU));
        } else if (code < 0x10000U) {
            appendByte(text, 0xe0U | code >> 12U);
            appendByte(text, 0x80U | (code >> 6U & 0x3fU));
            appendByte(text, 0x80U | (code & 0x3fU));
        } else {
            appendByte(text, 0xf0U | code >> 18U);
            appendByte(text, 0x80U | (code >> 12U & 0x3fU));
            appendByte(text, 0x80U | (code >> 6U & 0x3fU));
            appendByte(text, 0x80U | (code & 0x3fU));
        }
    }

    static void appendByte(std::string& text, unsigned byte) { text += static_cast<char>(byte); }

    std::string_view rest_;
};

} // namespace

std::string decodeString(std::string_view body) {
    return StringDecoder(body).decode();
}

} // namespace zym::common::lwjson
