// A service that systemd restarts when a subscriber blocks its client. For a unit with
//
//   [Service]
//   Type=notify
//   WatchdogSec=10
//   Restart=on-watchdog
//   ExecStart=/usr/bin/supervised localhost 1883
//
// Usage: supervised [HOST [PORT]]

#include "broker_address.hpp"

#include <mqtt/client.hpp>

#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>
#include <thread>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using mqtt::MqttClient;
using std::chrono::microseconds;
using std::chrono::steady_clock;

namespace {

volatile std::sig_atomic_t isEndWanted = 0;

/// Null if there is no such variable.
char const* environment(char const* name) {
    return std::getenv(name); // NOLINT(concurrency-mt-unsafe): nothing changes the environment
}

/// Tells systemd a state, as sd_notify() does; does nothing if systemd has not started the program.
void notify(std::string const& state) {
    char const* const path = environment("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (path == nullptr || std::strlen(path) >= sizeof(address.sun_path)) {
        return;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path, std::strlen(path));
    if (address.sun_path[0] == '@') {
        address.sun_path[0] = '\0'; // an address that is not in the file system
    }
    auto const size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path));
    int const fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ::sendto(fd, state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&address),
             size);
    ::close(fd);
}

/// How often systemd wants to hear of this program, or ten seconds.
microseconds watchdogInterval() {
    char const* const text = environment("WATCHDOG_USEC");
    return text == nullptr ? std::chrono::seconds(10) : microseconds(std::stoll(text));
}

/// With a connection the worker makes a network step each second, unless a callback blocks it.
/// Without one it may wait for the host, and a restart does not help.
bool isAlive(MqttClient const& client, microseconds interval) {
    auto const age = steady_clock::now() - client.statistics().lastNetworkStep;
    return client.communicationState() != conv::ComState::CONNECTED || age < interval;
}

} // namespace

int main(int argc, char* argv[]) try {
    std::signal(SIGTERM, [](int) { isEndWanted = 1; });
    auto const interval = watchdogInterval();
    auto const broker = brokerFrom(argc, argv, "supervised");
    MqttClient client(zym::common::Uuid(6), false, "", broker.host, broker.port, true,
                      broker.options);
    notify("READY=1");
    while (isEndWanted == 0) {
        if (isAlive(client, interval)) {
            notify("WATCHDOG=1");
        }
        std::this_thread::sleep_for(interval / 4);
    }
    client.disconnect(MqttClient::COMMUNICATION_DELAY);
    return 0;
} catch (std::exception const& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
