#include "client/socket/send_pacing.hpp"

#include "client/socket/tcp_option.hpp"

#include <netinet/tcp.h>

namespace mqtt {

namespace {

/// More packets in a row, without a word from the broker, are a stream.
constexpr unsigned A_FEW = 8;
/// So many steps without a stream are a conversation again.
constexpr int CALM_STEPS = 16;

} // namespace

void SendPacing::begin(int fd) {
    gather(fd, false);
    answered();
}

void SendPacing::stepped(int fd) {
    auto const unanswered = unanswered_.load(std::memory_order_relaxed);
    bool const stream = unanswered > A_FEW;
    if (!gathers_) {
        if (stream) {
            gather(fd, true);
        }
        return;
    }
    calmSteps_ = stream ? 0 : calmSteps_ + 1;
    if (calmSteps_ == CALM_STEPS) {
        gather(fd, false);
    } else {
        releaseAfterPause(fd, unanswered);
    }
}

/// Switched off, it releases what was held back, too.
void SendPacing::gather(int fd, bool on) {
    gathers_ = on;
    holdsBack_ = on;
    calmSteps_ = 0;
    lastStep_ = Clock::now();
    setTcpOption(fd, TCP_NODELAY, on ? 0 : 1);
}

/// Goes on gathering: the stream may have run into a full window, or come in batches.
void SendPacing::releaseAfterPause(int fd, unsigned unanswered) {
    auto const now = Clock::now();
    if (unanswered != lastUnanswered_) {
        holdsBack_ = true;
    } else if (holdsBack_ && now - lastStep_ >= PAUSE) {
        setTcpOption(fd, TCP_NODELAY, 1);
        setTcpOption(fd, TCP_NODELAY, 0);
        holdsBack_ = false;
    }
    lastUnanswered_ = unanswered;
    lastStep_ = now;
}

} // namespace mqtt
