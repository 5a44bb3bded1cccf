// Publishes 1, 2, 3, ... on "demo/counter". Reads commands from its standard input:
//
//   publish 5    publishes the next five numbers
//   pause        disconnects from the network, as if the cable were pulled
//   resume       connects again
//   end          publishes "end" and exits; the end of the input has the same effect
//
// Usage: publisher [HOST [PORT]]

#include "broker_address.hpp"
#include "console.hpp"

#include <mqtt/client.hpp>
#include <mqtt/topic.hpp>

#include <exception>
#include <iostream>
#include <sstream>
#include <string>

using conv::ComState;
using mqtt::MqttClient;
using mqtt::Topic;
using zym::common::Uuid;

namespace {

class Counter {
public:
    explicit Counter(MqttClient& client) : client_(client) {}

    void publish(int count) {
        int const first = last_ + 1;
        int queued = 0;
        for (int i = 0; i < count; ++i) {
            // The same call in both cases: without a connection the client queues the value.
            queued += client_.communicationState() == ComState::CONNECTED ? 0 : 1;
            send(std::to_string(++last_), true);
        }
        report("published", count - queued, first);
        report("queued", queued, last_ + 1 - queued);
    }

    void end() { send("end", false); }

private:
    /// The broker sends a retained value to everyone who subscribes later.
    void send(std::string const& value, bool retain) {
        auto const result =
            client_.publishWait(topic_, value, 2, retain, MqttClient::COMMUNICATION_DELAY);
        if (result != MqttClient::Error::SUCCESS) {
            std::ostringstream text;
            text << "publishing " << value << " ended with " << result;
            printLine(text.str());
        }
    }

    static void report(std::string const& what, int count, int first) {
        if (count > 0) {
            printLine(what + ' ' + std::to_string(count) + " values, " + std::to_string(first)
                      + " to " + std::to_string(first + count - 1));
        }
    }

    MqttClient& client_;
    Topic const topic_ = "demo/counter";
    int last_ = 0;
};

void executeCommands(std::istream& commands, MqttClient& client, Counter& counter) {
    std::string command;
    while (commands >> command && command != "end") {
        if (int count = 0; command == "publish" && commands >> count) {
            counter.publish(count);
        } else if (command == "pause") {
            client.pause();
            printLine("paused");
        } else if (command == "resume") {
            client.resume();
            printLine("resumed");
        } else {
            printLine("the commands are: publish COUNT, pause, resume, end");
        }
    }
}

} // namespace

int main(int argc, char* argv[]) try {
    auto const broker = brokerFrom(argc, argv, "publisher");

    // Declared before the client, so that it exists as long as the client may call it.
    StatePrinter states;
    // A broker accepts one client per identifier: each process of a device has its own.
    MqttClient client(Uuid(1), false, "publisher", broker.host, broker.port, false, broker.options);
    client.registerListener(&states);
    auto const result = client.connect("", -1, MqttClient::COMMUNICATION_DELAY);
    if (result != MqttClient::Error::SUCCESS) {
        std::cerr << "cannot connect to " << broker.host << ':' << broker.port << ": " << result
                  << '\n'
                  << client.lastFailure() << '\n';
        return 1;
    }

    Counter counter(client);
    executeCommands(std::cin, client, counter);
    counter.end();
    client.disconnect(MqttClient::COMMUNICATION_DELAY);
    return 0;
} catch (std::exception const& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
