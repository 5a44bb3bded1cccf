#include "mqtt/service.hpp"

#include <algorithm>
#include <cstdint>
#include <limits>

namespace mqtt {

conv::SecondsDuration timeoutOf(std::chrono::seconds timeout) {
    return static_cast<std::uint32_t>(
        std::clamp<std::int64_t>(timeout.count(), 0, std::numeric_limits<std::uint32_t>::max()));
}

} // namespace mqtt
