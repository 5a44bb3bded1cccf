#pragma once

#include "mqtt/export.hpp"

#include <zym/common/uuid.hpp>

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace mqtt {

class MqttClient;

/// A topic path: segments joined by "/", the key of every subscription and publication.
///
/// A plain value. It keeps the text, as the broker library takes it, and where each segment
/// starts, so that segments can be read and removed without parsing again. No operation checks for
/// wildcards or for the length limit of MQTT.
///
/// Parsing a path drops one leading and one trailing "/" and keeps empty segments:
///
/// | path    | text   | segments      |
/// |---------|--------|---------------|
/// | ""      | ""     | none          |
/// | "/"     | ""     | one, empty    |
/// | "/a/b/" | "a/b"  | a, b          |
/// | "a//b"  | "a//b" | a, (empty), b |
///
/// Comparison and ordering use the text alone. While a thread changes an object, no other thread
/// may use it.
class ZYM_MQTT_EXPORT Topic {
public:
    Topic() = default;
    /// Parses `path`.
    Topic(std::string const& path);
    /// Parses `path`.
    /// @throws std::logic_error "basic_string::_M_construct null not valid" for a null pointer
    Topic(char const* path);

    /// Appends the segments of `tail`; nothing when it has none. A "/" is put in between if this
    /// topic's text is not empty. Of the tail's text only the part before its first zero byte is
    /// taken.
    /// @throws std::length_error, std::bad_alloc a part of the tail may have been appended then
    Topic& operator+=(Topic const& tail);
    /// Parses `tail` as the constructors do and appends the result.
    Topic& operator+=(std::string const& tail);
    /// @copydoc operator+=(std::string const&)
    /// @throws std::logic_error "basic_string::_M_construct null not valid" for a null pointer
    Topic& operator+=(char const* tail);
    /// Appends one segment: the identifier's base64url text.
    Topic& operator+=(zym::common::Uuid const& id);

    /// The text of segment `i`, which must be below `size()`: this is not checked.
    /// @throws std::out_of_range when the segment starts after the end of the text, which
    ///         only `clear()`, or a tail that was cut at a zero byte, can cause
    std::string operator[](unsigned int i) const;

    /// Whether `topic` matches this topic, which is taken as a subscription pattern with the
    /// wildcards "+" and "#"; false for an invalid pattern.
    bool matches(Topic const& topic) const;

    /// The whole path.
    std::string const& text() const noexcept { return text_; }
    /// The number of segments.
    unsigned int size() const noexcept { return static_cast<unsigned int>(starts_.size()); }

    /// Keeps the first `n` segments, or all if there are fewer.
    void resize(unsigned int n);
    /// Empties the text and leaves the segments as they are. To make a topic empty, use
    /// `resize(0)`.
    void clear() noexcept { text_.clear(); }

private:
    friend class MqttClient;

    /// Parses a path, and uses the memory that this object has.
    ZYM_MQTT_LOCAL void assign(char const* path);
    ZYM_MQTT_LOCAL void parse();

    std::string text_;
    std::vector<std::uint32_t> starts_;
};

ZYM_MQTT_EXPORT Topic operator+(Topic const& head, Topic const& tail);
ZYM_MQTT_EXPORT Topic operator+(Topic const& head, std::string const& tail);
/// @throws std::logic_error "basic_string::_M_construct null not valid" for a null pointer
ZYM_MQTT_EXPORT Topic operator+(Topic const& head, char const* tail);
ZYM_MQTT_EXPORT Topic operator+(Topic const& head, zym::common::Uuid const& id);

inline bool operator==(Topic const& a, Topic const& b) noexcept {
    return a.text() == b.text();
}
inline bool operator!=(Topic const& a, Topic const& b) noexcept {
    return a.text() != b.text();
}
/// Byte-wise order of the texts, bytes taken as unsigned, a prefix first.
inline bool operator<(Topic const& a, Topic const& b) noexcept {
    return a.text() < b.text();
}
inline bool operator>(Topic const& a, Topic const& b) noexcept {
    return b.text() < a.text();
}

/// Writes the text and nothing else.
ZYM_MQTT_EXPORT std::ostream& operator<<(std::ostream& out, Topic const& topic);

} // namespace mqtt
