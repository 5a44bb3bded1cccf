#pragma once

#include <cstddef>
#include <string_view>

namespace mqtt {

/// The elements of a JSON array, as text, one after the other.
///
/// Only finds where they end: it does not check that an element is valid JSON.
class ArrayElements {
public:
    /// @param text begins with the array; what follows its last bracket is ignored. Must outlive
    ///        this object
    /// @throws std::runtime_error the text does not begin with an array
    explicit ArrayElements(std::string_view text);

    /// @param element gets the next one, without blanks around it
    /// @return false when there are no more
    /// @throws std::runtime_error the array has no end
    bool next(std::string_view& element);

private:
    void skipBlanks();
    void skipValue();
    void skipString();
    [[nodiscard]] char at() const;

    std::string_view text_;
    std::size_t at_ = 0;
    bool hasNext_ = true;
};

} // namespace mqtt
