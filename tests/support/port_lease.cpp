#include "support/port_lease.hpp"

#include "support/socket.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>

namespace support {

namespace {

/// First and last: the ports below those of outgoing connections or, when these begin too low,
/// above them.
std::pair<int, int> leasedRange() {
    int low = 32768;
    int high = 60999;
    std::ifstream("/proc/sys/net/ipv4/ip_local_port_range") >> low >> high;
    if (low > 12000) {
        int const last = std::min(low - 1, 29999);
        return {std::max(last - 9999, 2000), last};
    }
    return {std::min(high + 1, 60000), 65535};
}

std::filesystem::path lockFile(int port) {
    // Per user: a file made by another user in a shared directory often cannot be opened. Not in
    // $TMPDIR, which differs between processes: all of them must use the same files.
    std::filesystem::path const directory = "/tmp/zym-test-ports-" + std::to_string(geteuid());
    std::filesystem::create_directories(directory);
    return directory / std::to_string(port);
}

} // namespace

PortLease::PortLease() {
    auto const [first, last] = leasedRange();
    int const size = last - first + 1;
    std::random_device random;
    auto const start = static_cast<int>(random() % static_cast<unsigned>(size));
    for (int i = 0; i < size; ++i) {
        if (take(first + (start + i) % size, LOCK_EX | LOCK_NB)) {
            return;
        }
    }
    throw std::runtime_error("no free port on the loopback address");
}

PortLease::PortLease(int port) {
    if (!take(port, LOCK_EX)) {
        throw std::runtime_error("Port " + std::to_string(port)
                                 + " of the loopback address is taken by another program. This"
                                   " test needs that very port: stop the program, or what it"
                                   " belongs to, and try again.");
    }
}

/// @param how of flock(2)
bool PortLease::take(int port, int how) {
    FileDescriptor lock(open(lockFile(port).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666));
    if (!lock.valid() || flock(lock.get(), how) != 0 || !canBind(port)) {
        return false;
    }
    port_ = port;
    lock_ = std::move(lock);
    return true;
}

} // namespace support
