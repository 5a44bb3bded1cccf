#include "outline_stream.hpp"

#include "../hex_digit.hpp"

namespace zym::common::lwjson {

void OutlineStream::skipEscapes() {
    while (std::size_t const length = escapeLength()) {
        sawEscapes_ = true;
        at_ = endOfPlain(at_ + length, end_);
    }
}

// 0 when no escape stands here, or a malformed one.
std::size_t OutlineStream::escapeLength() const {
    constexpr std::size_t LONG = sizeof "\\u0000" - 1;
    if (end_ - at_ < 2 || *at_ != '\\') {
        return 0;
    }
    if (at_[1] != 'u') {
        return std::string_view("\"\\/bfnrt").find(at_[1]) == std::string_view::npos ? 0 : 2;
    }
    bool const isGood =
        static_cast<std::size_t>(end_ - at_) >= LONG
        && std::all_of(at_ + 2, at_ + LONG, [](char c) { return hexDigit(c).has_value(); });
    return isGood ? LONG : 0;
}

} // namespace zym::common::lwjson
