// Publishes 1, 2, 3, ... on "demo/counter", told what to do by lines on its standard input:
//
//   publish 5    publish the next five numbers
//   pause        keep off the network, as if the cable were pulled
//   resume       back to the network
//   end          publish "end" and leave; the end of the input means the same
//
// Usage: publisher [HOST [PORT]]

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
            // Nothing to decide here: without a connection the client queues by itself.
            queued += client_.communicationState() == ComState::CONNECTED ? 0 : 1;
            send(std::to_string(++last_), true);
        }
        report("published", count - queued, first);
        report("queued", queued, last_ + 1 - queued);
    }

    void end() { send("end", false); }

private:
    /// The broker hands a retained value to everyone who subscribes later.
    void send(std::string const& value, bool retain) {
        auto const result =
            client_.publishWait(topic_, value, 2, retain, MqttClient::COMMUNICATION_DELAY);
        if (result != MqttClient::Error::SUCCESS) {
            std::ostringstream text;
            text << "publishing " << value << " ended with " << result;
            say(text.str());
        }
    }

    static void report(std::string const& what, int count, int first) {
        if (count > 0) {
            say(what + ' ' + std::to_string(count) + " values, " + std::to_string(first) + " to "
                + std::to_string(first + count - 1));
        }
    }

    MqttClient& client_;
    Topic const topic_ = "demo/counter";
    int last_ = 0;
};

void obeyCommands(std::istream& commands, MqttClient& client, Counter& counter) {
    std::string command;
    while (commands >> command && command != "end") {
        if (int count = 0; command == "publish" && commands >> count) {
            counter.publish(count);
        } else if (command == "pause") {
            client.pause();
            say("paused");
        } else if (command == "resume") {
            client.resume();
            say("resumed");
        } else {
            say("the commands are: publish COUNT, pause, resume, end");
        }
    }
}

} // namespace

int main(int argc, char* argv[]) try {
    std::string const host = argc > 1 ? argv[1] : "localhost";
    int const port = argc > 2 ? std::stoi(argv[2]) : 1883;

    // Declared before the client, and so there for as long as the client may call it.
    StatePrinter states;
    // A broker knows one client per identifier: in a device, each process has its own.
    MqttClient client(Uuid(1), false, "publisher", host, port, false);
    client.registerListener(&states);
    auto const result = client.connect("", -1, MqttClient::COMMUNICATION_DELAY);
    if (result != MqttClient::Error::SUCCESS) {
        std::cerr << "cannot connect to " << host << ':' << port << ": " << result << '\n';
        return 1;
    }

    Counter counter(client);
    obeyCommands(std::cin, client, counter);
    counter.end();
    client.disconnect(MqttClient::COMMUNICATION_DELAY);
    return 0;
} catch (std::exception const& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
