#pragma once

#include "plain_text.hpp"

#include <rapidjson/reader.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zym::common::lwjson {

/// What the parser gets to see of a JSON text: its structure.
///
/// The parser would refuse a whole document for one number that is too large for a double, or
/// for half of a surrogate pair in one string, and copies every string. The reader wants to know
/// no more than where values begin and end, and judges a value when somebody asks for it. So only
/// the first of a run of digits is shown, and zeros before it, and of what stands in a string
/// nothing but what must not stand there. What is good JSON and what is not stays the same.
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

    // Parsing in place: this is called when the mark that opens a string has been taken, and again
    // at the end of a number. What the parser then writes is not kept.
    char* PutBegin() {
        if (at_[-1] == '"') {
            skipString();
        }
        return nullptr;
    }
    void Put(char) {}
    void Flush() {}
    std::size_t PutEnd(char*) { return 1; }

    // The parser does so ahead of every key and value.
    void skipBlanks() {
        while (at_ != end_ && isBlank(*at_)) {
            ++at_;
        }
        part_ = Tell();
    }

    /// Where the next key or value begins, or the one that is being read.
    std::uint32_t part() const { return part_; }

    /// Whether there were escapes in the last string.
    bool sawEscapes() const { return sawEscapes_; }

private:
    // As far as it is good.
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
