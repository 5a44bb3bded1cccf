#include "client/socket/socket_tuning.hpp"

#include "client/socket/tcp_option.hpp"

#include <algorithm>

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>

namespace mqtt {

namespace {

/// The longest wait of a network step when nothing is due earlier.
constexpr std::chrono::milliseconds LONGEST_WAIT{1000};
/// Messages within `SendPacing::PAUSE`, without a packet of ours in between, that are a stream.
constexpr unsigned STREAM_MESSAGES = 16;

bool hasInput(int fd) {
    int bytes = 0;
    return ::ioctl(fd, FIONREAD, &bytes) == 0 && bytes > 0;
}

} // namespace

void SocketTuning::connected(int fd) {
    if (fd < 0) {
        return;
    }
    // A child process must not keep the connection open.
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    isTcp_ = setTcpOption(fd, TCP_QUICKACK, 1);
    acknowledgesAtOnce_ = isTcp_;
    // For a unix socket too: a stream of the last connection must not shorten its steps.
    sending_.begin(fd);
    receiving_ = Receiving::EXCHANGE;
}

void SocketTuning::messageReceived() {
    if (sending_.answerArrived()) {
        // We send in between: this is an exchange, however fast.
        received_ = 0;
        receiving_ = Receiving::EXCHANGE;
    }
    if (++received_ % STREAM_MESSAGES != 0 && receiving_ == Receiving::EXCHANGE) {
        return;
    }
    auto const now = Clock::now();
    if (receiving_ == Receiving::PAUSED || now - lastReceived_ < SendPacing::PAUSE) {
        receiving_ = Receiving::STREAM;
    }
    lastReceived_ = now;
}

void SocketTuning::stepped(int fd, bool moreToWrite) {
    if (fd < 0 || !isTcp_) {
        return;
    }
    sending_.stepped(fd);
    if (sending_.holdsBack() || isInStream()) {
        delayAcknowledgements(fd);
    } else if (!moreToWrite && !hasInput(fd)) {
        acknowledge(fd);
    }
}

/// After every such step, as the kernel takes the option back at any time.
void SocketTuning::acknowledge(int fd) {
    setTcpOption(fd, TCP_QUICKACK, 1);
    acknowledgesAtOnce_ = true;
}

/// Once set, the option makes the kernel acknowledge whenever all input has been read, until we
/// send something: the broker would then send each message of a stream in a segment of its own.
void SocketTuning::delayAcknowledgements(int fd) {
    if (acknowledgesAtOnce_) {
        setTcpOption(fd, TCP_QUICKACK, 0);
        acknowledgesAtOnce_ = false;
    }
}

bool SocketTuning::isInStream() {
    if (receiving_ != Receiving::STREAM) {
        return false;
    }
    auto const now = Clock::now();
    if (now - lastReceived_ < SendPacing::PAUSE) {
        return true;
    }
    receiving_ = received_ >= STREAM_MESSAGES ? Receiving::PAUSED : Receiving::EXCHANGE;
    received_ = 0;
    lastReceived_ = now;
    return false;
}

std::chrono::milliseconds SocketTuning::longestWait() const {
    auto wait = LONGEST_WAIT;
    if (sending_.holdsBack()) {
        wait = std::min(wait, sending_.longestWait());
    }
    if (receiving_ == Receiving::STREAM) {
        wait = std::min(wait, SendPacing::PAUSE);
    }
    return wait;
}

} // namespace mqtt
