#include "mqtt/fields/text.hpp"

#include "data/array_elements.hpp"

#include <charconv>
#include <cmath>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>

namespace mqtt::fields {

namespace {

/// Why a field cannot be read, and where it is: "limits.high", "samples[3]".
class FieldError : public std::runtime_error {
public:
    FieldError(std::string const& path, std::string const& reason)
        : std::runtime_error("field \"" + path + "\": " + reason), path_(path), reason_(reason) {}

    std::string const& path() const { return path_; }
    std::string const& reason() const { return reason_; }

private:
    std::string path_;
    std::string reason_;
};

/// For a catch block.
/// @param place a key, or an index in brackets
[[noreturn]] void rethrowFor(std::string const& place) {
    try {
        throw;
    } catch (FieldError const& error) {
        char const* const separator = error.path().front() == '[' ? "" : ".";
        throw FieldError(place + separator + error.path(), error.reason());
    } catch (std::bad_alloc const&) {
        throw;
    } catch (std::exception const& error) {
        throw FieldError(place, error.what());
    }
}

template <class Integer>
[[noreturn]] void failInteger(Integer min, Integer max) {
    throw std::runtime_error("not a whole number from " + std::to_string(min) + " to "
                             + std::to_string(max));
}

} // namespace

template <class Integer>
Integer readInteger(std::string_view text, Integer min, Integer max) {
    Integer number = 0;
    auto const* const end = text.data() + text.size();
    auto const [behind, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || behind != end || number < min || number > max) {
        failInteger(min, max);
    }
    return number;
}

template int readInteger(std::string_view text, int min, int max);
template unsigned readInteger(std::string_view text, unsigned min, unsigned max);
template long long readInteger(std::string_view text, long long min, long long max);
template unsigned long long readInteger(std::string_view text, unsigned long long min,
                                        unsigned long long max);

void appendComma(std::string& json) {
    json.erase(json.find_last_not_of(", \n") + 1);
    json += ',';
}

void failMissing() {
    throw std::runtime_error("missing");
}

bool readBool(std::string_view text) {
    if (text != "true" && text != "false") {
        throw std::runtime_error("neither true nor false");
    }
    return text == "true";
}

float toFloat(double number) {
    if (std::abs(number) > std::numeric_limits<float>::max()) {
        throw std::runtime_error("too large for a float");
    }
    return static_cast<float>(number);
}

void readElements(std::string_view array, void* to,
                  void (*readElement)(void* to, std::string_view element)) {
    constexpr bool READER_TAKES_POINTERS =
        std::is_pointer_v<decltype(std::declval<Deserializer const&>().getMember(""))>;
    ArrayElements elements(array);
    std::string_view element;
    std::string terminated;
    for (std::size_t i = 0; elements.next(element); ++i) {
        if (READER_TAKES_POINTERS) {
            terminated = element;
            element = terminated;
        }
        try {
            readElement(to, element);
        } catch (std::exception const&) {
            rethrowFor("[" + std::to_string(i) + "]");
        }
    }
}

void rethrowForField(char const* key) {
    if (key == nullptr) {
        throw;
    }
    rethrowFor(key);
}

} // namespace mqtt::fields
