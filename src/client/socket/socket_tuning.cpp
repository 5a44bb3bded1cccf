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
    // For a unix socket too: a stream of the last connection must not shorten its steps.
    sending_.begin(fd);
    receivesStream_ = false;
}

void SocketTuning::messageReceived() {
    if (sending_.answerArrived()) {
        // We send in between: this is an exchange, however fast.
        received_ = 0;
        receivesStream_ = false;
    }
    if (++received_ % STREAM_MESSAGES != 0 && !receivesStream_) {
        return;
    }
    auto const now = Clock::now();
    receivesStream_ = now - lastReceived_ < SendPacing::PAUSE;
    lastReceived_ = now;
}

void SocketTuning::stepped(int fd, bool moreToWrite) {
    if (fd < 0 || !isTcp_) {
        return;
    }
    sending_.stepped(fd);
    bool const inStream = sending_.holdsBack() || (receivesStream_ && !streamHasPaused());
    if (!moreToWrite && !inStream && !hasInput(fd)) {
        acknowledge(fd);
    }
}

/// After every such step, as the kernel takes the option back at any time.
void SocketTuning::acknowledge(int fd) {
    setTcpOption(fd, TCP_QUICKACK, 1);
}

bool SocketTuning::streamHasPaused() {
    auto const now = Clock::now();
    if (now - lastReceived_ < SendPacing::PAUSE) {
        return false;
    }
    receivesStream_ = false;
    received_ = 0;
    lastReceived_ = now;
    return true;
}

std::chrono::milliseconds SocketTuning::longestWait() const {
    auto wait = LONGEST_WAIT;
    if (sending_.holdsBack()) {
        wait = std::min(wait, sending_.longestWait());
    }
    if (receivesStream_) {
        wait = std::min(wait, SendPacing::PAUSE);
    }
    return wait;
}

} // namespace mqtt
