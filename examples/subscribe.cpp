// Prints each message on the topics below "demo", until its standard input has a line or ends.
//
// Usage: subscribe [HOST [PORT]]

#include <mqtt/client.hpp>
#include <mqtt/topic.hpp>

#include <iostream>
#include <string>

using conv::ComState;
using mqtt::MqttClient;

struct Printer final : MqttClient::Listener, MqttClient::Subscriber {
    void onComStateChanged(ComState state) override {
        std::cout << (state == ComState::CONNECTED ? "connected" : "not connected") << std::endl;
    }
    /// Called on the client's own thread, one message after the other.
    void onMqttMessage(int /*tag*/, mqtt::Topic const& topic, std::string const& payload) override {
        std::cout << topic << ": " << payload << std::endl;
    }
};

int main(int argc, char* argv[]) {
    std::string const host = argc > 1 ? argv[1] : "localhost";
    int const port = argc > 2 ? std::stoi(argv[2]) : 1883;

    Printer printer; // before the client, so that it outlives it
    MqttClient client(zym::common::Uuid(2), false, "", host, port, false);
    client.registerListener(&printer);
    // The client keeps the subscription and sends it to the broker with every connection.
    auto result = client.subscribe("demo/#", &printer, 0);
    if (result == MqttClient::Error::SUCCESS) {
        result = client.connect("", -1, MqttClient::COMMUNICATION_DELAY);
    }
    if (result != MqttClient::Error::SUCCESS) {
        std::cerr << "cannot subscribe: " << result << '\n' << client.lastFailure() << '\n';
        return 1;
    }
    std::cin.get();
    client.disconnect(MqttClient::COMMUNICATION_DELAY);
}
