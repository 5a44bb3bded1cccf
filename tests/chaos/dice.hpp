#pragma once

#include <cstdint>
#include <functional>
#include <random>
#include <string>

namespace chaos {

/// Chance, drawn from the seed of the run and the name of the one who draws: what one draws does
/// not depend on how fast the others are.
class Dice {
public:
    Dice(std::uint64_t seed, std::string const& name)
        : engine_(seed * 0x9e3779b97f4a7c15ULL + std::hash<std::string>()(name)) {}

    /// From `low` to `high`, both included.
    int between(int low, int high) {
        return std::uniform_int_distribution<int>(low, high)(engine_);
    }
    /// True in so many of a hundred draws.
    bool percent(int chance) { return between(1, 100) <= chance; }

private:
    std::mt19937_64 engine_;
};

} // namespace chaos
