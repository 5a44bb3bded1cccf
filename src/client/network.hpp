#pragma once

#include "client/one_by_one_relay.hpp"
#include "client/socket/socket_tuning.hpp"
#include "mqtt/mosquittopp.hpp"

#include <chrono>
#include <memory>

namespace mqtt {

/// The broker library's functions that use the network. Every operation is for the thread that has
/// the network turn; every result is the library's code.
class Network {
public:
    Network(mosqpp::mosquittopp& library, SocketTuning& tuning)
        : library_(library), tuning_(tuning) {}

    int connect(char const* host, int port);
    int reconnect();
    /// Right after `reconnect`: from here on the relay makes the network steps, until it gives the
    /// connection back or the connection ends.
    /// @return null if the system has no descriptor for it
    std::unique_ptr<OneByOneRelay> relay() { return OneByOneRelay::begin(library_); }

    /// Waits for input or output, at most a second, and handles one packet.
    int step();

    /// Writes the DISCONNECT packet before anything is read: a message that is read after
    /// `disconnect` is a protocol error to the library. It would drop the connection then, and the
    /// broker would publish the will.
    void writeDisconnect();
    /// Writes what the library has for the broker, and waits until the broker has read it.
    void writeLastPackets();

private:
    int stepWithPoll(std::chrono::milliseconds longestWait);
    void writeOutput(std::chrono::steady_clock::time_point deadline);

    mosqpp::mosquittopp& library_;
    SocketTuning& tuning_;
    bool isLeaving_ =
        false; ///< the broker has not read enough for a DISCONNECT packet to be written
};

} // namespace mqtt
