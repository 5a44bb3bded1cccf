#include "client/socket_tuning.hpp"

#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace mqtt {

namespace {

bool setTcpOption(int fd, int option, int value) {
    return ::setsockopt(fd, IPPROTO_TCP, option, &value, sizeof value) == 0;
}

bool anyBytes(int fd, unsigned long which) {
    int bytes = 0;
    return ::ioctl(fd, which, &bytes) == 0 && bytes > 0;
}

} // namespace

void SocketTuning::connected(int fd) {
    if (fd < 0)
        return;
    // A child process must not keep the connection open.
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    tcp_ = setTcpOption(fd, TCP_QUICKACK, 1);
    peer_.begin();
}

void SocketTuning::stepped(int fd, bool moreToWrite) {
    if (fd < 0 || !tcp_)
        return;
    bool const urgent = peer_.look(fd);
    if (moreToWrite)
        return;
    if (anyBytes(fd, SIOCOUTQNSD)) {
        // Lets go what Nagle holds back. Switched off for good, he would cost a publisher a third
        // of its processor time, as no two packets would ever share a segment.
        setTcpOption(fd, TCP_NODELAY, 1);
        setTcpOption(fd, TCP_NODELAY, 0);
    } else if (urgent && !anyBytes(fd, FIONREAD)) {
        // With more to read, the step that reads the last of it acknowledges it all. The kernel
        // forgets this option whenever it likes, hence once a step.
        setTcpOption(fd, TCP_QUICKACK, 1);
    }
}

void abortConnect(int fd) {
    tcp_info info{};
    socklen_t length = sizeof info;
    // The library may have closed the descriptor meanwhile and somebody else opened it.
    if (fd >= 0 && ::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) == 0
        && info.tcpi_state == TCP_SYN_SENT)
        ::shutdown(fd, SHUT_RDWR);
}

void waitForOutput(int fd) {
    pollfd writable{fd, POLLOUT, 0};
    ::poll(&writable, 1, 100);
}

} // namespace mqtt
