// One network step: the broker library's own, or ours where its does not reach.
//
// The library waits with select(), which knows descriptors below FD_SETSIZE only. Beyond that, as
// its socket or its own socket pair may be in a process with many descriptors, its `loop` refuses
// at once. Then we wait with poll() and have the library read and write.

#include "mqtt/client.hpp"

#include <algorithm>

#include <poll.h>

namespace mqtt {

namespace {

constexpr int OK = static_cast<int>(MqttClient::Error::SUCCESS);
constexpr int REFUSED = static_cast<int>(MqttClient::Error::INVALID_PARAMETER);
constexpr int NO_CONN = static_cast<int>(MqttClient::Error::NO_CONN);

// Nothing that we know of becomes readable when another thread has a packet to be sent.
constexpr std::chrono::milliseconds LONGEST_BEYOND{10};

} // namespace

int MqttClient::step(std::chrono::milliseconds patience) {
    int const result = mosqpp::mosquittopp::loop(static_cast<int>(patience.count()), 1);
    if (result != REFUSED) {
        return result;
    }
    // With a socket there is no other reason to refuse, and without one nothing to wait for.
    return socket() < 0 ? NO_CONN : stepBeyondSelect(std::min(patience, LONGEST_BEYOND));
}

int MqttClient::stepBeyondSelect(std::chrono::milliseconds patience) {
    pollfd ready{socket(), POLLIN, 0};
    if (want_write()) {
        ready.events |= POLLOUT;
    }
    ::poll(&ready, 1, static_cast<int>(patience.count()));
    int result = OK;
    if ((ready.revents & ~POLLOUT) != 0) {
        result = loop_read(1);
    }
    if (result == OK && socket() >= 0 && want_write()) {
        result = loop_write(1);
    }
    // As in the library: the end of a connection that was told to end is no failure.
    return result == OK && socket() >= 0 ? loop_misc() : result;
}

} // namespace mqtt
