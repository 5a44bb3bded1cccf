#include "mqtt/service.hpp"

#include "common/log.hpp"

#include <algorithm>
#include <cstdint>
#include <limits>

namespace mqtt {

conv::SecondsDuration timeoutOf(std::chrono::seconds timeout) {
    return static_cast<std::uint32_t>(
        std::clamp<std::int64_t>(timeout.count(), 0, std::numeric_limits<std::uint32_t>::max()));
}

void logFailureOf(std::string const& service, char const* what) noexcept {
    log(LogLevel::ERROR, "service ", service,
        ": no reply, because its function has thrown: ", what);
}

} // namespace mqtt
