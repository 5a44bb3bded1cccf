#pragma once

#include <chrono>
#include <cstdint>

namespace conv {

class SecondsDuration {
public:
    SecondsDuration(std::uint32_t seconds);

    std::int32_t toInt32() const;
    std::chrono::steady_clock::time_point
    toTimepoint(std::chrono::steady_clock::time_point now) const;
};

} // namespace conv
