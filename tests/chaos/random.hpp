#pragma once

#include <cstdint>
#include <functional>
#include <random>
#include <string>

namespace chaos {

/// Random numbers from the seed of the run and the name of the worker that draws them: they do not
/// depend on how fast other workers are.
class Random {
public:
    Random(std::uint64_t seed, std::string const& name)
        : engine_(seed * 0x9e3779b97f4a7c15ULL + std::hash<std::string>()(name)) {}

    /// From `low` to `high`, both included.
    int between(int low, int high) {
        return std::uniform_int_distribution<int>(low, high)(engine_);
    }
    /// True with this probability.
    bool percent(int probability) { return between(1, 100) <= probability; }

private:
    std::mt19937_64 engine_;
};

} // namespace chaos
