// Watches the tank of the device and draws water from it: requests that are answered, refused,
// never answered, and called off. Then it waits until the device is gone.
//
// Usage: panel [HOST [PORT]]

#include "console.hpp"
#include "tank.hpp"

#include <mqtt/client.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/request_reply.hpp>

#include <condition_variable>
#include <exception>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>

using conv::ComState;
using mqtt::MqttClient;
using mqtt::MqttData;
using mqtt::RequestReplyClient;
using zym::common::Uuid;
using ErrorCode = mqtt::RequestReply::ErrorCode;

namespace {

Uuid const PANEL_ID(4);
Uuid const NOBODY_ID(99);

std::string outcome(ErrorCode code) {
    std::string const number = "code " + std::to_string(static_cast<int>(code));
    if (code == NOT_ENOUGH)
        return "refused with " + number + ", not enough";
    switch (code) {
    case ErrorCode::SUCCESS:
        return "done";
    case ErrorCode::TIMEOUT:
        return "no answer in time";
    case ErrorCode::PENDING:
        return "sent";
    case ErrorCode::BUSY:
        return "busy with another request";
    case ErrorCode::CANCELLED:
        return "called off";
    default:
        return "ended with " + number;
    }
}

/// Prints what the tank says of itself. Values come in on the client's worker thread, each as a
/// copy; the retained ones come right after the subscription.
class Watch final : private MqttData<conv::CommunicationStatus>::Subscriber,
                    private MqttData<conv::ServiceStatus>::Subscriber {
public:
    explicit Watch(MqttClient& client) : communication_(client, TANK), service_(client, TANK) {}

    MqttClient::Error start() {
        auto const result = communication_.subscribe(this, 0);
        return result == MqttClient::Error::SUCCESS ? service_.subscribe(this, 0) : result;
    }

    void waitUntilServing() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return state_ == ComState::CONNECTED && serving_; });
    }
    void waitUntilGone() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return state_ != ComState::CONNECTED; });
    }

private:
    void onMqttData(conv::CommunicationStatus const& status, bool /*empty*/, int /*id*/) override {
        say("the connection of the tank: " + inWords(status.state));
        std::lock_guard<std::mutex> const lock(mutex_);
        state_ = status.state;
        changed_.notify_all();
    }

    void onMqttData(conv::ServiceStatus const& status, bool /*empty*/, int /*id*/) override {
        bool const serving = status.operating == OPERATING;
        std::string const health = status.health == RUNNING_LOW ? ", and is running low" : "";
        say(serving ? "the tank hands out water" + health : "the tank is closed");
        std::lock_guard<std::mutex> const lock(mutex_);
        serving_ = serving;
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    ComState state_ = ComState::UNKNOWN;
    bool serving_ = false;
    // The last ones, and so the first to go: their destructors wait for a value coming in.
    MqttData<conv::CommunicationStatus> communication_;
    MqttData<conv::ServiceStatus> service_;
};

/// Told how a request ended that nobody waited for.
class Ending final : public RequestReplyClient::Listener {
public:
    void onReply(unsigned int /*requestId*/, std::string const& /*name*/, Uuid const& /*client*/,
                 Uuid const& /*server*/, mqtt::RequestReplyData const& /*data*/,
                 ErrorCode error) override {
        say("the request has ended: " + outcome(error));
    }
};

/// The simple way: wait for the reply. It is read into `left`, also when the code is an error.
void drawAndWait(RequestReplyClient& draw, Uuid const& from, unsigned int litres,
                 conv::SecondsDuration timeout) {
    auto const wanted = std::make_shared<Litres>(litres);
    auto const left = std::make_shared<Litres>();
    auto const code = draw.requestWait(PANEL_ID, from, wanted, left, timeout);
    bool const answered = code == ErrorCode::SUCCESS || code >= ErrorCode::APPLICATION;
    std::string const answer = ", " + std::to_string(left->count()) + " litres left";
    say("draw " + std::to_string(litres) + " litres: " + outcome(code) + (answered ? answer : ""));
}

/// Without waiting: a listener is told. One client has one request under way, another one is
/// refused at once.
void drawAndThinkBetterOfIt(RequestReplyClient& draw) {
    Ending ending;
    auto const wanted = std::make_shared<Litres>(5);
    auto const left = std::make_shared<Litres>();
    auto const forEver = conv::SecondsDuration::NO_TIMEOUT;
    for (auto const* attempt : {"first", "second"}) {
        auto const code =
            draw.request(&ending, PANEL_ID, NOBODY_ID, wanted, left, nullptr, forEver);
        say(std::string("draw 5 litres, ") + attempt + " request: " + outcome(code));
    }
    draw.cancel(); // the listener has been told when this returns
}

} // namespace

int main(int argc, char* argv[]) try {
    std::string const host = argc > 1 ? argv[1] : "localhost";
    int const port = argc > 2 ? std::stoi(argv[2]) : 1883;

    MqttClient client(PANEL_ID, false, "panel", host, port, false);
    Watch watch(client);
    RequestReplyClient draw(client, TANK, mqtt::Topic(), "draw");

    auto result = watch.start();
    if (result == MqttClient::Error::SUCCESS) {
        result = client.connect("", -1, MqttClient::COMMUNICATION_DELAY);
    }
    if (result != MqttClient::Error::SUCCESS) {
        std::cerr << "cannot watch at " << host << ':' << port << ": " << result << '\n';
        return 1;
    }

    watch.waitUntilServing();
    drawAndWait(draw, TANK_ID, 60, 5);
    drawAndWait(draw, TANK_ID, 60, 5);
    drawAndWait(draw, NOBODY_ID, 5, 1);
    drawAndThinkBetterOfIt(draw);
    watch.waitUntilGone();
    client.disconnect(MqttClient::COMMUNICATION_DELAY);
    return 0;
} catch (std::exception const& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
