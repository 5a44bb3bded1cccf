#pragma once

#include <mqtt/client.hpp>

#include <iostream>
#include <string>

/// Writes a line with one call, since the client's worker thread and `main` both print.
inline void printLine(std::string const& line) {
    std::cout << line + '\n' << std::flush;
}

inline std::string textOf(conv::ComState state) {
    switch (state) {
    case conv::ComState::DISCONNECTED:
        return "disconnected";
    case conv::ComState::CONNECTED:
        return "connected";
    case conv::ComState::CONNECTION_LOST:
        return "connection lost";
    case conv::ComState::CONNECTING:
        return "connecting";
    default:
        return "in a state without a name";
    }
}

/// Prints every change of a connection's state.
class StatePrinter final : public mqtt::MqttClient::Listener {
public:
    void onComStateChanged(conv::ComState state) override { printLine(textOf(state)); }
};
