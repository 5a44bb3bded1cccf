#include <zym/common/lwjson/deserializer.hpp>

#include "outline_stream.hpp"
#include "string_text.hpp"

#include <rapidjson/reader.h>

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace zym::common::lwjson {

namespace {

// Parsing in place needs no memory: the parser hands what it reads of a string to the stream, which
// ignores it.
constexpr unsigned PARSE_FLAGS =
    rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseInsituFlag;

// The parser is recursive: without a limit a text from the network could exhaust the stack.
constexpr unsigned MAX_DEPTH = 64;

// The parser counts in 32 bits, and so does `Part`.
constexpr auto MAX_TEXT_BYTES = std::numeric_limits<std::uint32_t>::max();

bool isDecodedTo(std::string_view literal, std::string_view name) {
    try {
        return decodeString(literal) == name;
    } catch (std::invalid_argument const&) {
        return false; // half of a surrogate pair: no name has one
    }
}

} // namespace

/// Records where the root's members stand. The parser calls an operation when it has just read past
/// the key or value.
class Deserializer::Outline
    : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Deserializer::Outline> {
public:
    Outline(OutlineStream const& stream, Deserializer& out) : stream_(stream), out_(out) {}

    // The parser calls this for every scalar.
    bool Default() {
        if (depth_ == 1) {
            addValue(stream_.part());
        }
        return true;
    }

    bool Key(char const* /*shown*/, rapidjson::SizeType /*length*/, bool /*copy*/) {
        if (depth_ == 1) {
            key_ = {stream_.part() + 1, stream_.Tell() - 1};
            out_.keysHaveEscapes_ |= stream_.sawEscapes();
        }
        return true;
    }

    bool StartObject() { return enter(true); }
    bool StartArray() { return enter(false); }
    bool EndObject(rapidjson::SizeType /*members*/) { return leave(); }
    bool EndArray(rapidjson::SizeType /*elements*/) { return leave(); }

private:
    bool enter(bool isObject) {
        if (depth_ == 0) {
            out_.isObject_ = isObject;
        } else if (depth_ == 1) {
            nested_ = stream_.part();
        }
        return ++depth_ <= MAX_DEPTH;
    }

    bool leave() {
        if (--depth_ == 1) {
            addValue(nested_);
        }
        return true;
    }

    void addValue(std::uint32_t begin) {
        if (!out_.isObject_) {
            return;
        }
        Part const value{begin, stream_.Tell()};
        if (!out_.members_.isFull()) {
            out_.members_.add({key_, value});
        } else {
            out_.moreMembers_.push_back({key_, value});
        }
    }

    OutlineStream const& stream_;
    Deserializer& out_;
    unsigned depth_ = 0;
    std::uint32_t nested_ = 0; ///< where the latest object or array in the root begins
    Part key_{};
};

Deserializer::Deserializer(std::string_view text) : text_(text) {
    OutlineStream stream(text);
    Outline outline(stream, *this);
    rapidjson::Reader reader;
    bool const parsed = std::uint64_t{text.size()} <= MAX_TEXT_BYTES
                        && !reader.Parse<PARSE_FLAGS>(stream, outline).IsError();
    // The parser takes a zero byte for the end of the text.
    if (!parsed || stream.Tell() != text.size()) {
        isObject_ = false;
    }
}

std::string_view Deserializer::getMember(char const* key) const {
    if (!isObject_) {
        throw std::runtime_error("Cannot get member from a scalar or array");
    }
    std::string_view const name(key);
    auto const isNamed = [&](Member const& member) {
        std::string_view const rawKey = part(member.key);
        if (!keysHaveEscapes_ || rawKey.find('\\') == std::string_view::npos) {
            return rawKey == name;
        }
        return isDecodedTo(part({member.key.begin - 1, member.key.end + 1}), name);
    };
    auto const* const usual = std::find_if(members_.begin(), members_.end(), isNamed);
    if (usual != members_.end()) {
        return part(usual->value);
    }
    auto const found = std::find_if(moreMembers_.begin(), moreMembers_.end(), isNamed);
    return found == moreMembers_.end() ? std::string_view() : part(found->value);
}

} // namespace zym::common::lwjson
