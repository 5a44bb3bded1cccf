#pragma once

#include <mqtt/client.hpp>

#include <iostream>
#include <string>

/// Prints one line in one piece: the client's worker thread and `main` both print.
inline void say(std::string const& line) {
    std::cout << line + '\n' << std::flush;
}

inline std::string inWords(conv::ComState state) {
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
    void onComStateChanged(conv::ComState state) override { say(inWords(state)); }
};
