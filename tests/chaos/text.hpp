#pragma once

#include "chaos/dice.hpp"

#include <cstdint>
#include <optional>
#include <string>

namespace chaos {

/// A payload that says a number, of any length: some fit one segment, some do not. Its end tells
/// that all of it has come.
std::string textOf(std::uint64_t number, Dice& dice);
/// Nothing when it is not whole.
std::optional<std::uint64_t> numberIn(std::string const& text);

} // namespace chaos
