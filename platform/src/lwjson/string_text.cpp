#include "string_text.hpp"

#include <rapidjson/reader.h>

#include <stdexcept>

namespace zym::common::lwjson {

namespace {

[[noreturn]] void fail() {
    throw std::invalid_argument("Not a JSON string");
}

/// RapidJSON 1.1 refuses the first half of a surrogate pair without the second, but takes the
/// second half without the first.
struct WholeCharacters : rapidjson::UTF8<> {
    template <typename OutputStream>
    static void Encode(OutputStream& out, unsigned codePoint) {
        if (codePoint >= 0xd800U && codePoint <= 0xdfffU) {
            fail();
        }
        rapidjson::UTF8<>::Encode(out, codePoint);
    }
};

struct LengthOfString : rapidjson::BaseReaderHandler<WholeCharacters, LengthOfString> {
    bool String(char const* /*text*/, rapidjson::SizeType size, bool /*copy*/) {
        length = size;
        return true;
    }

    std::size_t length = 0;
};

} // namespace

std::string decodeString(std::string_view literal) {
    std::string text(literal);
    rapidjson::InsituStringStream stream(text.data());
    rapidjson::GenericReader<WholeCharacters, WholeCharacters> reader;
    LengthOfString content;
    bool const parsed = !reader.Parse<rapidjson::kParseInsituFlag>(stream, content).IsError();
    // The parser takes a zero byte for the end of the text.
    if (!parsed || stream.Tell() != text.size()) {
        fail();
    }
    text.erase(0, 1); // the quotation mark: the parser writes the content behind it
    text.resize(content.length);
    return text;
}

} // namespace zym::common::lwjson
