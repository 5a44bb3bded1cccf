#include "client/connection_losses.hpp"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace mqtt {

namespace {

/// Message ids begin again at 1 after 65,535.
bool isNotAfter(int messageId, int other) {
    return static_cast<std::int16_t>(messageId - other) <= 0;
}

} // namespace

void ConnectionLosses::connectionEnded(Clock::time_point now, bool isIntended) {
    auto const accepted = std::exchange(accepted_, std::nullopt);
    int const alone = std::exchange(alone_, 0);
    if (isIntended || !accepted) {
        return;
    }
    int const lastUnacknowledged = lastUnacknowledged_;
    if (lastUnacknowledged == 0) {
        count_ = 0;
        return;
    }
    constexpr int ENOUGH = 2;
    bool const isEarly = now - *accepted < EARLY;
    count_ = isEarly ? std::min(count_ + 1, ENOUGH) : 1;
    lastAt_ = {last_, lastAt_[0]};
    aloneAtTheLast_ = isOnlyOne_ ? lastUnacknowledged : alone;
}

bool ConnectionLosses::isCause(int messageId) const {
    return isPublicationSuspected() && isNotAfter(messageId, lastAt_[1])
           && messageId == aloneAtTheLast_;
}

} // namespace mqtt
