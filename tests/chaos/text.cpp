#include "chaos/text.hpp"

#include <cstdlib>

namespace chaos {

std::string textOf(std::uint64_t number, Dice& dice) {
    int const length = dice.percent(2) ? dice.between(2000, 20000) : dice.between(0, 120);
    return std::to_string(number) + ' ' + std::string(static_cast<std::size_t>(length), '.') + ' '
           + std::to_string(length);
}

std::optional<std::uint64_t> numberIn(std::string const& text) {
    auto const first = text.find(' ');
    auto const last = text.rfind(' ');
    if (first == std::string::npos || last == first) {
        return std::nullopt;
    }
    auto const length = std::strtoull(text.c_str() + last + 1, nullptr, 10);
    if (last - first - 1 != length) {
        return std::nullopt;
    }
    return std::strtoull(text.c_str(), nullptr, 10);
}

} // namespace chaos
