#pragma once

#include "client/socket/socket_tuning.hpp"
#include "mqtt/mosquittopp.hpp"

#include <chrono>

namespace mqtt {

/// The broker library's functions that use the network. Every operation is for the thread that has
/// the network turn; every result is the library's code.
class Network {
public:
    Network(mosqpp::mosquittopp& library, SocketTuning& tuning)
        : library_(library), tuning_(tuning) {}

    int connect(char const* host, int port);
    int reconnect();

    /// Waits for input or output, at most a second, and handles one packet, or with version 2.1 of
    /// the library all that it has read.
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
    bool isLeaving_ = false; ///< a DISCONNECT packet could not be written yet
};

} // namespace mqtt
