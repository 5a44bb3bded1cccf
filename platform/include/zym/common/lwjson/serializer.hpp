#pragma once

#include <conv/unix_time.hpp>
#include <zym/common/export.hpp>

#include <limits>
#include <string>
#include <type_traits>
#include <vector>

namespace zym::common::lwjson {

/// Writes one JSON object into a string, member by member:
/// ```
/// std::string json;
/// Serializer out(json);
/// out.appendKey("name");
/// out.addValue("pump");
/// out.finalize(); // {\n  "name": "pump"\n}
/// ```
/// or wraps a finished JSON text, to be added as a value to another object.
///
/// In texts `"`, `\` and control bytes are escaped; all other bytes stay as they are, whether UTF-8
/// or not. Not for several threads at once.
class ZYM_COMMON_EXPORT Serializer {
public:
    /// Starts an object in the string, and drops what was in it.
    /// @param json not owned; must outlive all writing
    explicit Serializer(std::string& json);

    /// Wraps a finished JSON text as a value, on one line. The result may only be passed to
    /// `addValue`.
    ///
    /// Beware: a string that is not const selects the other constructor, which drops its content.
    explicit Serializer(std::string const& finishedText);

    /// Begins a member. Exactly one value must follow.
    void appendKey(char const* key);

    /// Adds finished JSON text, such as the digits of a number.
    void appendValue(char const* rawText);

    void addValue(std::string const& text);
    /// The shortest text that reads back as the same number, whatever the locale; `null` for
    /// what is not a finite number.
    void addValue(double number);
    /// A bare number of seconds, or `null` for an invalid time.
    void addValue(conv::UnixTime const& time);
    /// A finished or wrapped object, on one line.
    void addValue(Serializer const& object);
    /// An array of finished or wrapped objects, each on a line of its own.
    void addValue(std::vector<Serializer> const& objects);
    /// Neither a `bool`, which would be written as 1 or 0, nor an integer that a double cannot
    /// hold: pass their text to `appendValue`.
    template <class Integer,
              class = std::enable_if_t<std::is_integral_v<Integer>
                                       && (std::is_same_v<Integer, bool>
                                           || std::numeric_limits<Integer>::digits
                                                  > std::numeric_limits<double>::digits)>>
    void addValue(Integer) = delete;

    /// The text written so far. The caller answers for changes to it.
    std::string& mutableJson() noexcept { return target_ == nullptr ? wrapped_ : *target_; }

    /// Closes the object. Nothing may be added after that.
    void finalize();

private:
    std::string* target_; ///< null when wrapping
    std::string wrapped_;
};

} // namespace zym::common::lwjson
