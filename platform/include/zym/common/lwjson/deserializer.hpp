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

/// Reads a JSON text: gives the raw texts of the root's members, and turns raw texts into values.
/// ```
/// Deserializer const in(json);
/// std::string name;
/// Deserializer::extractValue(in.getMember("name"), name, "");
/// ```
/// The text is read once, when the reader is made, and is not copied. Once made, a reader may be
/// used from any number of threads.
class ZYM_COMMON_EXPORT Deserializer {
public:
    /// Reads a text. A malformed one raises nothing here: it simply has no object as its root.
    /// Malformed is what breaks the grammar of JSON, has more bytes after its root, is
    /// nested more than 64 deep, or is longer than 4 GiB.
    /// @param text must outlive the reader and all texts got from it
    explicit Deserializer(std::string_view text);
    explicit Deserializer(char const* text) : Deserializer(std::string_view(text)) {}
    /// Would be gone before the first use.
    explicit Deserializer(std::string&& text) = delete;

    /// The raw text of a member of the root object, a part of the text read. Of members with the
    /// same key it is the first. Escapes in keys are understood.
    /// @return an empty text when there is no such member
    /// @throws std::runtime_error "Cannot get member from a scalar or array" when the root is not
    ///         an object
    std::string_view getMember(char const* key) const;

    /// Turns a raw text, without blanks around it, into a value. Integers are digits only. A time
    /// is a number or `null`, the invalid time. Bytes of 0x80 and above pass unchanged.
    /// @param out is left untouched on failure
    /// @param extra not used
    /// @throws std::out_of_range for an empty text, an integer that is negative or too large, and
    ///         a number beyond the reach of a double
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
    /// Where something stands in the text.
    struct Part {
        std::uint32_t begin;
        std::uint32_t end;
    };
    struct Member {
        Part key; ///< without the quotation marks
        Part value;
    };
    /// Room for the members of most documents: those that have more cost an allocation. Clearing it
    /// would take longer than to read a small document.
    class UsualMembers {
    public:
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init, modernize-use-equals-default)
        UsualMembers() noexcept {}
        UsualMembers(UsualMembers const& other) noexcept : UsualMembers() { *this = other; }
        UsualMembers& operator=(UsualMembers const& other) noexcept {
            size_ = other.size_;
            std::copy(other.begin(), other.end(), members_.begin());
            return *this;
        }
        ~UsualMembers() = default;

        bool isFull() const noexcept { return size_ == members_.size(); }
        void add(Member const& member) noexcept { members_[size_++] = member; }
        Member const* begin() const noexcept { return members_.data(); }
        Member const* end() const noexcept { return begin() + size_; }

    private:
        std::uint8_t size_ = 0;
        std::array<Member, 12> members_; ///< as far as there are
    };
    class Outline;

    std::string_view part(Part const& part) const {
        return text_.substr(part.begin, part.end - part.begin);
    }

    std::string_view text_;
    bool isObject_ = false;
    bool keysHaveEscapes_ = false;
    UsualMembers members_;
    std::vector<Member> moreMembers_;
};

} // namespace zym::common::lwjson
