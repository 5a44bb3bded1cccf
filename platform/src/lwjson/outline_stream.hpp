#pragma once

#include "plain_text.hpp"

#include <rapidjson/reader.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zym::common::lwjson {

/// A stream that shows the parser only the structure of a JSON text.
///
/// The parser would refuse a whole document for one number too large for a double or for half of a
/// surrogate pair in one string, and it copies every string. The deserializer needs only where
/// values begin and end, and checks a value when it is asked for. So the stream leaves out the
/// valid content of strings, and all digits of a run behind the first that is not zero. The parser
/// still accepts and refuses the same texts.
class OutlineStream {
public:
    using Ch = char;

    /// @param text shorter than 4 GiB
    explicit OutlineStream(std::string_view text)
        : begin_(text.data()), at_(begin_), end_(begin_ + text.size()) {}

    char Peek() const { return at_ == end_ ? '\0' : *at_; }

    char Take() {
        char const c = Peek();
        ++at_;
        // A zero may end an integer: the parser has to see what follows it.
        if (isDigit(c) && c != '0') {
            at_ = std::find_if_not(at_, end_, isDigit);
        }
        return c;
    }

    std::uint32_t Tell() const { return static_cast<std::uint32_t>(at_ - begin_); }

    // The parser, which works in place, calls this behind the opening mark of a string, and again
    // at the end of a number. The stream ignores what the parser writes.
    char* PutBegin() {
        if (at_[-1] == '"') {
            skipString();
        }
        return nullptr;
    }
    void Put(char) {}
    void Flush() {}
    std::size_t PutEnd(char*) { return 1; }

    // The parser calls this before every key and value.
    void skipBlanks() {
        while (at_ != end_ && isBlank(*at_)) {
            ++at_;
        }
        part_ = Tell();
    }

    /// Where the current or next key or value begins.
    std::uint32_t part() const { return part_; }

    /// Whether the latest string has escapes.
    bool sawEscapes() const { return sawEscapes_; }

private:
    // Stops at the closing mark, or at the first byte that is not valid.
    void skipString() {
        sawEscapes_ = false;
        at_ = endOfPlain(at_, end_);
        if (at_ != end_ && *at_ == '\\') {
            skipEscapes();
        }
    }

    void skipEscapes();
    std::size_t escapeLength() const;

    static bool isDigit(char c) { return c >= '0' && c <= '9'; }
    static bool isBlank(char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; }

    char const* begin_;
    char const* at_;
    char const* end_;
    std::uint32_t part_ = 0;
    bool sawEscapes_ = false;
};

} // namespace zym::common::lwjson

namespace rapidjson {

template <>
inline void SkipWhitespace(zym::common::lwjson::OutlineStream& is) {
    is.skipBlanks();
}

} // namespace rapidjson
