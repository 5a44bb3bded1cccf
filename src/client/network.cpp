#include "client/network.hpp"

#include "client/socket/connect_error.hpp"
#include "client/socket/orderly_close.hpp"
#include "mqtt/client.hpp"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <poll.h>

namespace mqtt {

namespace {

constexpr int OK = static_cast<int>(MqttClient::Error::SUCCESS);
constexpr int REFUSED = static_cast<int>(MqttClient::Error::INVALID_PARAMETER);
constexpr int FAILED_CALL = static_cast<int>(MqttClient::Error::ERRNO);
constexpr int TLS = static_cast<int>(MqttClient::Error::TLS);
constexpr int AUTH = static_cast<int>(MqttClient::Error::AUTH);
constexpr int NO_CONN = static_cast<int>(MqttClient::Error::NO_CONN);

/// How long a host that could not be connected to may take to say why.
constexpr std::chrono::seconds PROBE_TIMEOUT{5};
/// How long a broker may take to read the last packets.
constexpr std::chrono::seconds CLOSE_TIMEOUT{1};

std::chrono::steady_clock::time_point closeDeadline() {
    return std::chrono::steady_clock::now() + CLOSE_TIMEOUT;
}

} // namespace

int Network::connect(std::string& host, int port) {
    isLeaving_ = false;
    report_.connectBegins(host.c_str(), port);
    nextHost_.clear();
    if (int const missing = prepare(); missing != OK) {
        nextHost_.swap(host); // takes no memory
        nextPort_ = port;
        return missing;
    }
    return connected(connectLibrary(host, port));
}

int Network::reconnect() {
    if (int const missing = prepare(); missing != OK) {
        return missing;
    }
    if (nextHost_.empty()) {
        return connected(library_.reconnect());
    }
    auto const host = std::exchange(nextHost_, {});
    return connected(connectLibrary(host, nextPort_));
}

int Network::connectLibrary(std::string const& host, int port) {
    int const result = library_.connect(host.c_str(), port, MqttClient::HEART_BEAT_RATE.toInt32());
    if (result == FAILED_CALL && errno == EBADF) {
        // Version 2.1 of the library asks for the peer of no socket before it returns.
        errno = connectError(host.c_str(), port, PROBE_TIMEOUT);
    }
    return result;
}

/// The relay reads the packets, so nothing may be encrypted.
std::unique_ptr<OneByOneRelay> Network::relay() {
    return settings_.isEncrypted() ? nullptr : OneByOneRelay::begin(library_);
}

/// @return why there cannot be an attempt
int Network::prepare() {
    report_.attemptBegins();
    auto const failure = settings_.prepare(library_);
    if (failure.reason == Failure::Reason::NONE) {
        return OK;
    }
    report_.failed(failure);
    return failure.reason == Failure::Reason::CREDENTIALS_FUNCTION ? AUTH : TLS;
}

/// @return the result, with the `errno` that belongs to it
int Network::connected(int result) {
    int const systemError = errno;
    if (result == OK) {
        tuning_.connected(library_.socket());
    } else {
        report_.failed(result, systemError);
    }
    errno = systemError;
    return result;
}

int Network::step() {
    auto const longestWait = tuning_.longestWait();
    int result = library_.loop(static_cast<int>(longestWait.count()), 1);
    if (result == REFUSED) {
        // With a socket there is no other reason than that select() does not reach it.
        result = library_.socket() < 0 ? NO_CONN : stepWithPoll(longestWait);
    }
    if (isLeaving_ && isShutDown(library_.socket())) {
        writeDisconnect();
    }
    if (result == OK) {
        tuning_.stepped(library_.socket(), library_.want_write());
    } else if (result == TLS) {
        report_.failed(result, 0); // no callback tells that the handshake has failed
    }
    return result;
}

/// The library waits with select(), which knows descriptors below FD_SETSIZE only. Where its socket
/// or its own socket pair is beyond, we wait with poll() and have the library read and write.
int Network::stepWithPoll(std::chrono::milliseconds longestWait) {
    // Nothing that we know of becomes readable when another thread has a packet to send.
    constexpr std::chrono::milliseconds untilNextLook{10};
    pollfd ready{library_.socket(), POLLIN, 0};
    if (library_.want_write()) {
        ready.events |= POLLOUT;
    }
    ::poll(&ready, 1, static_cast<int>(std::min(longestWait, untilNextLook).count()));
    int result = OK;
    if ((ready.revents & ~POLLOUT) != 0) {
        result = library_.loop_read(1);
    }
    if (result == OK && library_.socket() >= 0 && library_.want_write()) {
        result = library_.loop_write(1);
    }
    // As in the library: a connection that ends after `disconnect` is no failure.
    return result == OK && library_.socket() >= 0 ? library_.loop_misc() : result;
}

/// Behind a DISCONNECT packet version 2.0 of the library closes its socket. Version 2.1 only ends
/// our side of the connection, and reads on: a message would be a protocol error, and what follows
/// it in the library's buffer would be taken for the beginning of the next connection. So it gets
/// the end of input, and then closes its socket, too.
void Network::writeDisconnect() {
    auto const deadline = closeDeadline();
    OrderlyClose const close(library_.socket());
    writeOutput(deadline);
    if (isShutDown(library_.socket())) {
        replaceByEndOfInput(library_.socket());
        library_.loop_read(1);
    }
    isLeaving_ = library_.socket() >= 0;
    if (!isLeaving_) {
        close.waitForPeer(deadline);
    }
}

void Network::writeLastPackets() {
    auto const deadline = closeDeadline();
    writeOutput(deadline);
    OrderlyClose(library_.socket()).waitForPeer(deadline);
}

void Network::writeOutput(std::chrono::steady_clock::time_point deadline) {
    auto const hasOutput = [this] {
        int const fd = library_.socket();
        return fd >= 0 && library_.want_write() && !isShutDown(fd);
    };
    while (hasOutput() && library_.loop_write(1) == OK && hasOutput()
           && std::chrono::steady_clock::now() < deadline) {
        waitForOutput(library_.socket());
    }
}

} // namespace mqtt
