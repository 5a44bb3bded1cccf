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
    if (isIntended || !accepted) {
        return;
    }
    if (lastUnacknowledged_ == 0) {
        count_ = 0;
        return;
    }
    constexpr int ENOUGH = 2;
    bool const isEarly = now - *accepted < EARLY;
    count_ = isEarly ? std::min(count_ + 1, ENOUGH) : 1;
    lastAtTheLosses_ = {lastMessageId_, lastAtTheLosses_[0]};
}

bool ConnectionLosses::isThirdLossOf(int messageId) const {
    return isPublicationSuspected() && isNotAfter(messageId, lastAtTheLosses_[1]);
}

} // namespace mqtt
