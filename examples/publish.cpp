// Publishes the lines of its standard input, up to an empty one, on the topic "demo/line".
//
// Usage: publish [HOST [PORT]]

#include <mqtt/client.hpp>

#include <iostream>
#include <string>

using conv::ComState;
using mqtt::MqttClient;

struct StatePrinter final : MqttClient::Listener {
    void onComStateChanged(ComState state) override {
        std::cout << (state == ComState::CONNECTED ? "connected" : "not connected") << std::endl;
    }
};

int main(int argc, char* argv[]) {
    std::string const host = argc > 1 ? argv[1] : "localhost";
    int const port = argc > 2 ? std::stoi(argv[2]) : 1883;

    StatePrinter printer; // before the client, so that it outlives it
    // A broker accepts one client per identifier: each program has its own.
    MqttClient client(zym::common::Uuid(1), false, "", host, port, false);
    client.registerListener(&printer);
    auto result = client.connect("", -1, MqttClient::COMMUNICATION_DELAY);
    if (result != MqttClient::Error::SUCCESS) {
        std::cerr << "cannot connect: " << result << '\n' << client.lastFailure() << '\n';
        return 1;
    }

    for (std::string line; std::getline(std::cin, line) && !line.empty();) {
        bool const connected = client.communicationState() == ComState::CONNECTED;
        // QoS 2, retained: the broker sends the last line to everyone who subscribes later. The
        // same call in both cases: without a connection the client queues the line.
        result = client.publishWait("demo/line", line, 2, true, MqttClient::COMMUNICATION_DELAY);
        std::cout << (connected ? "published " : "queued ") << line << ": " << result << std::endl;
    }
    client.disconnect(MqttClient::COMMUNICATION_DELAY);
}
