#pragma once

#include <cstddef>
#include <string_view>

namespace mqtt {

/// The elements of a JSON array, as text, one after the other.
///
/// Looks for their ends and for nothing else: whether one is good JSON says who reads it.
class ArrayElements {
public:
    /// @param text begins with the array, which ends at its bracket, whatever follows; outlives
    /// this
    /// @throws std::runtime_error it does not begin with an array
    explicit ArrayElements(std::string_view text);

    /// @param element the next one, without blanks around it
    /// @return false when there is none any more
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
