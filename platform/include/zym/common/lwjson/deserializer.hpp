#pragma once

#include <conv/unix_time.hpp>
#include <zym/common/export.hpp>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zym::common::lwjson {

/// Reads a JSON text: gives the raw texts of the root's members or elements, and turns raw texts
/// into values.
/// ```
/// Deserializer const in(json);
/// std::string name;
/// Deserializer::extractValue(in.getMember("name"), name, "");
/// Deserializer const list(in.getMember("list"));
/// for (std::string_view const element : list.getElements()) { ... }
/// ```
/// The text is read once, when the reader is made, and is not copied. Once made, a reader may be
/// used from any number of threads.
class ZYM_COMMON_EXPORT Deserializer {
public:
    /// Reads a text. A malformed one raises nothing here: it simply has no object or array as
    /// its root. Malformed is what breaks the grammar of JSON, has more bytes after its root, or
    /// is nested more than 64 deep.
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

    /// The raw texts of the elements of the root array, in order, each a part of the text read.
    /// @throws std::runtime_error "Cannot get elements from a scalar or object" when the root is
    ///         not an array
    std::vector<std::string_view> const& getElements() const;

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
    enum class Root : std::uint8_t { OTHER, OBJECT, ARRAY };
    struct Member {
        std::string_view key; ///< as it stands in the text, without the quotation marks
        std::string_view value;
    };
    class Outline;

    Root root_ = Root::OTHER;
    std::vector<Member> members_;
    std::vector<std::string_view> elements_;
};

} // namespace zym::common::lwjson
