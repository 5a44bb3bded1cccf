#pragma once

#include <conv/unix_time.hpp>
#include <zym/common/export.hpp>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zym::common::lwjson {

/// Reads a JSON text: finds the raw texts of the root's members, and turns raw texts into values.
/// ```
/// Deserializer const in(json);
/// std::string name;
/// Deserializer::extractValue(in.getMember("name"), name, "");
/// ```
/// The constructor reads the text once and does not copy it. A finished deserializer may be used
/// from several threads at once.
class ZYM_COMMON_EXPORT Deserializer {
public:
    /// Reads a text. A malformed text throws nothing here: its root then is no object. A text is
    /// malformed when it breaks the grammar of JSON, has more bytes after its root, is nested more
    /// than 64 deep, or is longer than 4 GiB.
    /// @param text must outlive the deserializer and the texts that `getMember` returned
    explicit Deserializer(std::string_view text);
    explicit Deserializer(char const* text) : Deserializer(std::string_view(text)) {}
    /// The temporary string would not live long enough.
    explicit Deserializer(std::string&& text) = delete;

    /// The raw text of a member of the root object, a part of the text read: the first one, if
    /// several members have the key. Escapes in keys are decoded.
    /// @return an empty text when there is no such member
    /// @throws std::runtime_error "Cannot get member from a scalar or array" when the root is not
    ///         an object
    std::string_view getMember(char const* key) const;

    /// Turns a raw text, without blanks around it, into a value. An integer has digits only. A time
    /// is a number, or `null` for the invalid time. Bytes of 0x80 and above stay as they are.
    /// @param out stays unchanged on failure
    /// @param extra not used
    /// @throws std::out_of_range for an empty text, an integer that is negative or too large, and
    ///         a number out of the range of a double
    /// @throws std::invalid_argument for any other text that is no such value, also for a string
    ///         with half of a surrogate pair
    static void extractValue(std::string_view text, std::string& out, char const* extra);
    /// @copydoc extractValue(std::string_view, std::string&, char const*)
    static void extractValue(std::string_view text, unsigned char& out, char const* extra);
    /// @copydoc extractValue(std::string_view, std::string&, char const*)
    static void extractValue(std::string_view text, unsigned int& out, char const* extra);
    /// @copydoc extractValue(std::string_view, std::string&, char const*)
    static void extractValue(std::string_view text, double& out, char const* extra);
    /// @copydoc extractValue(std::string_view, std::string&, char const*)
    static void extractValue(std::string_view text, conv::UnixTime& out, char const* extra);

private:
    /// Positions in the text.
    struct Part {
        std::uint32_t begin;
        std::uint32_t end;
    };
    struct Member {
        Part key; ///< without the quotation marks
        Part value;
    };
    /// The first 12 members, without an allocation: most documents have no more. The array is not
    /// cleared, which would take longer than to read a small document.
    class FirstMembers {
    public:
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init, modernize-use-equals-default)
        FirstMembers() noexcept {}
        FirstMembers(FirstMembers const& other) noexcept : FirstMembers() { *this = other; }
        FirstMembers& operator=(FirstMembers const& other) noexcept {
            size_ = other.size_;
            std::copy(other.begin(), other.end(), members_.begin());
            return *this;
        }
        ~FirstMembers() = default;

        bool isFull() const noexcept { return size_ == members_.size(); }
        void add(Member const& member) noexcept { members_[size_++] = member; }
        Member const* begin() const noexcept { return members_.data(); }
        Member const* end() const noexcept { return begin() + size_; }

    private:
        std::uint8_t size_ = 0;
        std::array<Member, 12> members_; ///< the first `size_` are set
    };
    class Outline;

    std::string_view part(Part const& part) const {
        return text_.substr(part.begin, part.end - part.begin);
    }

    std::string_view text_;
    bool isObject_ = false;
    bool keysHaveEscapes_ = false;
    FirstMembers members_;
    std::vector<Member> moreMembers_;
};

} // namespace zym::common::lwjson
