#include "client/socket/connect_break.hpp"

#include <array>
#include <cstdio>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace mqtt {

namespace {

/// Owns a descriptor.
class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;

    int get() const { return fd_; }

private:
    int fd_;
};

/// The descriptor of the connect() that blocks the thread; negative when there is none.
int connectingDescriptor(pid_t thread) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "/proc/self/task/%d/syscall", static_cast<int>(thread));
    Descriptor const file(::open(text.data(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0 || ::read(file.get(), text.data(), text.size() - 1) <= 0) {
        return -1;
    }
    long call = -1;
    unsigned long long fd = 0;
    bool const isConnect =
        std::sscanf(text.data(), "%ld %llx", &call, &fd) == 2 && call == SYS_connect;
    return isConnect ? static_cast<int>(fd) : -1;
}

using Name = std::array<char, 64>;

/// "socket:[number]" for a socket, with a number of its own.
Name fileBehind(int fd) {
    Name path{};
    Name name{};
    std::snprintf(path.data(), path.size(), "/proc/self/fd/%d", fd);
    return ::readlink(path.data(), name.data(), name.size() - 1) > 0 ? name : Name{};
}

} // namespace

void breakConnect(pid_t thread) {
    int const fd = connectingDescriptor(thread);
    if (fd < 0) {
        return;
    }
    Descriptor const same(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
    // The connect() may have ended, and another thread may have got the same descriptor number. So
    // the thread has to be found in the connect() again after the descriptor was duplicated, and
    // both descriptors have to mean the same socket.
    if (same.get() >= 0 && connectingDescriptor(thread) == fd
        && fileBehind(fd) == fileBehind(same.get())) {
        ::shutdown(same.get(), SHUT_RDWR);
    }
}

} // namespace mqtt
