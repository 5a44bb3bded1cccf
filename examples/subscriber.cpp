// Receives the numbers on "demo/counter" until "end" arrives, and checks that each arrives once and
// in order. Counting begins with the first number that arrives: a subscriber that starts late
// receives the last one, which the broker retains.
//
// Usage: subscriber [HOST [PORT]]

#include "broker_address.hpp"
#include "console.hpp"

#include <mqtt/client.hpp>
#include <mqtt/topic.hpp>

#include <exception>
#include <future>
#include <iostream>
#include <string>

using mqtt::MqttClient;
using mqtt::Topic;
using zym::common::Uuid;

namespace {

class SequenceCheck final : public MqttClient::Subscriber {
public:
    /// Called on the client's worker thread, one message after the other. If the text is no number,
    /// std::stoi throws; the client then continues with the next message.
    void onMqttMessage(int /*tag*/, Topic const& /*topic*/, std::string const& payload) override {
        if (payload == "end") {
            ended_.set_value();
        } else {
            count(std::stoi(payload));
        }
    }

    void waitForEnd() { ended_.get_future().wait(); }

    /// Call it when no more messages can arrive.
    bool report() const {
        std::string const range =
            "received from " + std::to_string(first_) + " to " + std::to_string(last_);
        printLine(faults_ == 0 ? range + ": all, in order, each once"
                               : range + " with " + std::to_string(faults_) + " faults");
        return faults_ == 0;
    }

private:
    void count(int number) {
        bool const isFirst = first_ == 0;
        if (isFirst || number == last_ + 1) {
            printLine("received " + std::to_string(number));
        } else {
            ++faults_;
            printLine("received " + std::to_string(number) + " where " + std::to_string(last_ + 1)
                      + " was due");
        }
        first_ = isFirst ? number : first_;
        last_ = number;
    }

    int first_ = 0;
    int last_ = 0;
    int faults_ = 0;
    std::promise<void> ended_;
};

} // namespace

int main(int argc, char* argv[]) try {
    auto const broker = brokerFrom(argc, argv, "subscriber");

    StatePrinter states;
    SequenceCheck check;
    MqttClient client(Uuid(2), false, "subscriber", broker.host, broker.port, false,
                      broker.options);
    client.registerListener(&states);

    // The client keeps the subscription and sends it to the broker with every connection.
    auto result = client.subscribe("demo/counter", &check, 0);
    if (result == MqttClient::Error::SUCCESS) {
        result = client.connect("", -1, MqttClient::COMMUNICATION_DELAY);
    }
    if (result != MqttClient::Error::SUCCESS) {
        std::cerr << "cannot subscribe at " << broker.host << ':' << broker.port << ": " << result
                  << '\n'
                  << client.lastFailure() << '\n';
        return 1;
    }

    check.waitForEnd();
    client.release(&check);
    client.disconnect(MqttClient::COMMUNICATION_DELAY);
    return check.report() ? 0 : 1;
} catch (std::exception const& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
