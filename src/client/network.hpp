#pragma once

#include "client/connection_report.hpp"
#include "client/connection_settings.hpp"
#include "client/one_by_one_relay.hpp"
#include "client/socket/socket_tuning.hpp"
#include "mqtt/mosquittopp.hpp"

#include <chrono>
#include <memory>
#include <string>

namespace mqtt {

/// The broker library's functions that use the network. Every operation is for the thread that has
/// the network turn; every result is the library's code.
class Network {
public:
    Network(mosqpp::mosquittopp& library, SocketTuning& tuning, ConnectionSettings& settings,
            ConnectionReport& report)
        : library_(library), tuning_(tuning), settings_(settings), report_(report) {}

    /// @param host may be changed if this fails
    int connect(std::string& host, int port);
    int reconnect();
    /// Right after `reconnect`: from here on the relay makes the network steps, until it gives the
    /// connection back or the connection ends.
    /// @return null if the system has no descriptor for it, and if the connection is encrypted
    std::unique_ptr<OneByOneRelay> relay();

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
    int prepare();
    int connectLibrary(std::string const& host, int port);
    int connected(int result);
    int stepWithPoll(std::chrono::milliseconds longestWait);
    void writeOutput(std::chrono::steady_clock::time_point deadline);

    mosqpp::mosquittopp& library_;
    SocketTuning& tuning_;
    ConnectionSettings& settings_;
    ConnectionReport& report_;
    /// Of a `connect` that failed before the library got the address; empty if there is none.
    std::string nextHost_;
    int nextPort_ = 0;
    bool isLeaving_ = false; ///< a DISCONNECT packet could not be written yet
};

} // namespace mqtt
