#include "client/socket/socket_tuning.hpp"

#include "client/socket/tcp_option.hpp"

#include <algorithm>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>

namespace mqtt {

namespace {

/// So many messages within a pause are a stream.
constexpr unsigned MANY = 16;

bool anythingToRead(int fd) {
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
    tcp_ = setTcpOption(fd, TCP_QUICKACK, 1);
    // For a unix socket too: nothing of the last connection may shorten its steps.
    pacing_.begin(fd);
    peer_.begin();
    flooded_ = false;
}

void SocketTuning::received(std::size_t bytes) {
    peer_.received(bytes);
    if (pacing_.answered()) {
        // We have our say, too: this is a conversation, however fast.
        messages_ = 0;
        flooded_ = false;
    }
    if (++messages_ % MANY != 0 && !flooded_) {
        return;
    }
    auto const now = Clock::now();
    flooded_ = now - lastMessages_ < SendPacing::PAUSE;
    lastMessages_ = now;
}

void SocketTuning::stepped(int fd, bool moreToWrite) {
    if (fd < 0 || !tcp_) {
        return;
    }
    pacing_.stepped(fd);
    bool const urgent = peer_.look(fd);
    if (!urgent) {
        flooded_ = false;
    } else if (!moreToWrite) {
        acknowledge(fd);
    }
}

/// At once in a conversation, and once a pause in a stream, whoever's it is: a peer that gathers
/// while it waits for us would otherwise send each message in a segment of its own.
void SocketTuning::acknowledge(int fd) {
    if (pacing_.holdsBack() || (flooded_ && !floodHasPaused())) {
        return;
    }
    // With more to read, the step that reads the last of it acknowledges it all. The kernel
    // forgets this option whenever it likes, hence once a step.
    if (!anythingToRead(fd)) {
        setTcpOption(fd, TCP_QUICKACK, 1);
    }
}

bool SocketTuning::floodHasPaused() {
    auto const now = Clock::now();
    if (now - lastMessages_ < SendPacing::PAUSE) {
        return false;
    }
    flooded_ = false;
    messages_ = 0;
    lastMessages_ = now;
    return true;
}

std::chrono::milliseconds SocketTuning::patience() const {
    auto patience = peer_.patience();
    if (pacing_.holdsBack()) {
        patience = std::min(patience, pacing_.patience());
    }
    if (flooded_) {
        patience = std::min(patience, SendPacing::PAUSE);
    }
    return patience;
}

void waitForOutput(int fd) {
    pollfd writable{fd, POLLOUT, 0};
    ::poll(&writable, 1, 100);
}

} // namespace mqtt
