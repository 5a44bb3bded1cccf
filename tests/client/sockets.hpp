#pragma once

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

/// The sockets of this process that are connected to a port of the loopback address.
inline std::vector<int> socketsConnectedTo(int port) {
    std::vector<int> found;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        int const fd = std::stoi(entry.path().filename().string());
        sockaddr_storage peer{};
        socklen_t length = sizeof peer;
        if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0
            || peer.ss_family != AF_INET) {
            continue;
        }
        sockaddr_in internet{};
        std::memcpy(&internet, &peer, sizeof internet);
        if (ntohs(internet.sin_port) == port) {
            found.push_back(fd);
        }
    }
    return found;
}

/// An option of TCP, such as TCP_NODELAY.
inline bool isOn(int socket, int option) {
    int value = -1;
    socklen_t length = sizeof value;
    ::getsockopt(socket, IPPROTO_TCP, option, &value, &length);
    return value == 1;
}

inline void switchOff(int socket, int option) {
    int const off = 0;
    ::setsockopt(socket, IPPROTO_TCP, option, &off, sizeof off);
}
