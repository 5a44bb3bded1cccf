// A service that systemd restarts when a subscriber blocks its client. For a unit with
//
//   [Service]
//   Type=notify
//   WatchdogSec=10
//   Restart=on-watchdog
//   ExecStart=/usr/bin/supervised localhost 1883
//
// Usage: supervised [HOST [PORT]]

#include <mqtt/client.hpp>

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <string>
#include <thread>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using mqtt::MqttClient;

namespace {

/// Tells systemd a state, as sd_notify() does; does nothing if systemd has not started the program.
void notify(std::string const& state) {
    char const* const path = std::getenv("NOTIFY_SOCKET"); // NOLINT(concurrency-mt-unsafe)
    sockaddr_un address{};
    std::string const name = path == nullptr ? "" : path;
    if (name.empty() || name.size() >= sizeof(address.sun_path)) {
        return;
    }
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, name.size());
    if (name[0] == '@') {
        address.sun_path[0] = '\0'; // an address that is not in the file system
    }
    auto const size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    int const fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ::sendto(fd, state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&address),
             size);
    ::close(fd);
}

/// With a connection the worker makes a network step each second, unless a callback blocks it.
/// Without one it may wait for the host, and a restart does not help.
bool isAlive(MqttClient const& client) {
    auto const age = std::chrono::steady_clock::now() - client.statistics().lastNetworkStep;
    return client.communicationState() != conv::ComState::CONNECTED
           || age < std::chrono::seconds(5);
}

} // namespace

int main(int argc, char* argv[]) {
    std::string const host = argc > 1 ? argv[1] : "localhost";
    int const port = argc > 2 ? std::stoi(argv[2]) : 1883;
    MqttClient const client(zym::common::Uuid(6), false, "", host, port, true);
    notify("READY=1");
    for (;;) { // until a signal ends the program
        if (isAlive(client)) {
            notify("WATCHDOG=1");
        }
        std::this_thread::sleep_for(std::chrono::seconds(2));
    }
}
