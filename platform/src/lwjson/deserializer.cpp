#include <zym/common/lwjson/deserializer.hpp>

#include "outline_stream.hpp"
#include "string_text.hpp"

#include <rapidjson/reader.h>

#include <algorithm>
#include <stdexcept>

namespace zym::common::lwjson {

namespace {

// Few documents have more, and all others need one allocation for them.
constexpr std::size_t USUAL_MEMBERS = 12;

// In place, because the parser then asks for no memory: it writes what it has read of a string
// back to the stream, where it comes to nothing.
constexpr unsigned PARSING = rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseInsituFlag;

// The parser is recursive: without a limit a stranger's text could exhaust the stack.
constexpr unsigned DEEPEST = 64;

bool namesKey(std::string_view rawKey, std::string_view key) {
    if (rawKey.find('\\') == std::string_view::npos) {
        return rawKey == key;
    }
    try {
        return decodeString(rawKey) == key;
    } catch (std::invalid_argument const&) {
        return false; // half of a surrogate pair: nobody can ask for such a key
    }
}

} // namespace

/// Follows the parser through a text and notes where the root's members or elements stand. The
/// parser tells of a key or value when it has just read past it.
class Deserializer::Outline
    : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Deserializer::Outline> {
public:
    Outline(std::string_view text, OutlineStream const& stream, Deserializer& out)
        : text_(text), stream_(stream), out_(out) {}

    // Called for every scalar.
    bool Default() {
        endValue();
        return true;
    }

    bool Key(char const* /*shown*/, rapidjson::SizeType /*length*/, bool /*copy*/) {
        if (depth_ == 1) {
            std::string_view const quoted = takePart();
            key_ = quoted.substr(1, quoted.size() - 2);
        }
        return true;
    }

    bool StartObject() { return enter(Root::OBJECT); }
    bool StartArray() { return enter(Root::ARRAY); }
    bool EndObject(rapidjson::SizeType /*members*/) { return leave(); }
    bool EndArray(rapidjson::SizeType /*elements*/) { return leave(); }

private:
    bool enter(Root kind) {
        if (depth_ == 0) {
            out_.root_ = kind;
            partEnd_ = stream_.Tell();
            if (kind == Root::OBJECT) {
                out_.members_.reserve(USUAL_MEMBERS);
            }
        }
        return ++depth_ <= DEEPEST;
    }

    bool leave() {
        --depth_;
        endValue();
        return true;
    }

    void endValue() {
        if (depth_ != 1) {
            return;
        }
        if (out_.root_ == Root::OBJECT) {
            out_.members_.push_back({key_, takePart()});
        } else {
            out_.elements_.push_back(takePart());
        }
    }

    // The text from behind the last key or value up to here, without what separates the two.
    std::string_view takePart() {
        std::size_t const begin = text_.find_first_not_of(" \t\r\n,:", partEnd_);
        partEnd_ = stream_.Tell();
        return text_.substr(begin, partEnd_ - begin);
    }

    std::string_view text_;
    OutlineStream const& stream_;
    Deserializer& out_;
    unsigned depth_ = 0;
    std::size_t partEnd_ = 0; ///< where the last key or value of the root ended
    std::string_view key_;
};

Deserializer::Deserializer(std::string_view text) {
    OutlineStream stream(text);
    Outline outline(text, stream, *this);
    rapidjson::Reader reader;
    bool const parsed = !reader.Parse<PARSING>(stream, outline).IsError();
    // The parser takes a zero byte for the end of the text.
    if (!parsed || stream.Tell() != text.size()) {
        root_ = Root::OTHER;
        members_.clear();
        elements_.clear();
    }
}

std::string_view Deserializer::getMember(char const* key) const {
    if (root_ != Root::OBJECT) {
        throw std::runtime_error("Cannot get member from a scalar or array");
    }
    auto const found = std::find_if(members_.begin(), members_.end(), [key](Member const& member) {
        return namesKey(member.key, key);
    });
    return found == members_.end() ? std::string_view() : found->value;
}

std::vector<std::string_view> const& Deserializer::getElements() const {
    if (root_ != Root::ARRAY) {
        throw std::runtime_error("Cannot get elements from a scalar or object");
    }
    return elements_;
}

} // namespace zym::common::lwjson
