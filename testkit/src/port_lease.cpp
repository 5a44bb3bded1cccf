#include "mqtt/test/port_lease.hpp"

#include "net/socket.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <utility>

namespace mqtt::test {

namespace {

/// First and last: the ports below those that the kernel takes for outgoing connections or, when
/// these begin too low, above them. A connection of another test could take one in between.
std::pair<int, int> leasedRange() {
    int low = 32768;
    int high = 60999;
    std::ifstream("/proc/sys/net/ipv4/ip_local_port_range") >> low >> high;
    int const last = std::min(low - 1, 29999);
    return low > 12000 ? std::make_pair(last - 9999, last)
                       : std::make_pair(std::min(high + 1, 60000), 65535);
}

} // namespace

PortLease::PortLease() {
    auto const [first, last] = leasedRange();
    auto const size = static_cast<unsigned>(last - first + 1);
    unsigned const start = std::random_device()();
    for (unsigned i = 0; i < size; ++i) {
        if (take(first + static_cast<int>((start + i) % size))) {
            return;
        }
    }
    throw std::runtime_error("no free port on the loopback address");
}

PortLease::~PortLease() {
    ::close(lockedFile_);
}

bool PortLease::take(int port) {
    // Per user: a file made by another user in a shared directory often cannot be opened. Not in
    // $TMPDIR, which differs between processes: all of them must use the same files.
    std::string const directory = "/tmp/zym-test-ports-" + std::to_string(geteuid());
    std::filesystem::create_directories(directory);
    std::string const file = directory + "/" + std::to_string(port);
    FileDescriptor lock(::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666));
    if (!lock.valid() || flock(lock.get(), LOCK_EX | LOCK_NB) != 0 || !canBind(port)) {
        return false;
    }
    port_ = port;
    lockedFile_ = lock.release();
    return true;
}

} // namespace mqtt::test
