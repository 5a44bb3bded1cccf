#include "client/socket/send_pacing.hpp"

#include "client/socket/tcp_option.hpp"

#include <netinet/tcp.h>

namespace mqtt {

namespace {

/// Packets without an answer: an application that waits for answers does not get so far ahead.
constexpr unsigned STREAM_PACKETS = 8;
/// Network steps: a stream at QoS 1 or 2 gets answers too, and steps without a stream between
/// two bursts of it.
constexpr int CALM_STEPS = 16;

} // namespace

void SendPacing::begin(int fd) {
    startExchange(fd);
    answerArrived();
}

void SendPacing::stepped(int fd) {
    auto const unanswered = unanswered_.load(std::memory_order_relaxed);
    bool const isStream = unanswered > STREAM_PACKETS;
    if (mode_ == Mode::EXCHANGE) {
        if (isStream) {
            startStream(fd);
        }
        return;
    }
    calmSteps_ = isStream ? 0 : calmSteps_ + 1;
    if (calmSteps_ == CALM_STEPS) {
        startExchange(fd);
        return;
    }
    auto const now = Clock::now();
    if (unanswered != lastUnanswered_) {
        mode_ = Mode::STREAM;
    } else if (mode_ == Mode::STREAM && now - lastStep_ >= PAUSE) {
        setTcpOption(fd, TCP_NODELAY, 1); // releases what was held back
        setTcpOption(fd, TCP_NODELAY, 0);
        mode_ = Mode::PAUSED;
    }
    lastUnanswered_ = unanswered;
    lastStep_ = now;
}

void SendPacing::startStream(int fd) {
    mode_ = Mode::STREAM;
    calmSteps_ = 0;
    lastStep_ = Clock::now();
    setTcpOption(fd, TCP_NODELAY, 0);
}

void SendPacing::startExchange(int fd) {
    mode_ = Mode::EXCHANGE;
    setTcpOption(fd, TCP_NODELAY, 1); // releases what was held back, too
}

} // namespace mqtt
