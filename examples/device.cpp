// A tank of 100 litres. It publishes how its connection and its service are doing, and hands out
// water on request until its standard input ends. When it vanishes without a good-bye, the broker
// publishes in its place that the connection is lost.
//
// Usage: device [HOST [PORT]]

#include "console.hpp"
#include "tank.hpp"

#include <mqtt/client.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/request_reply.hpp>

#include <chrono>
#include <exception>
#include <iostream>
#include <limits>
#include <memory>
#include <string>

using conv::ComState;
using mqtt::MqttClient;
using mqtt::MqttData;
using zym::common::Uuid;

namespace {

conv::UnixTime now() {
    auto const sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return conv::UnixTime(std::chrono::duration<double>(sinceEpoch).count());
}

/// The mutex of an endpoint guards its value.
template <class T>
void set(MqttData<T>& endpoint, T const& value) {
    mqtt::MqttDataBase::Lock const lock(endpoint.mutex());
    endpoint.value = value;
}

class Tank final : public MqttClient::Listener, public mqtt::RequestReplyServer::Listener {
public:
    /// To be made before the client is connected: a will is set while it is not.
    explicit Tank(MqttClient& client)
        : client_(client),
          communication_(client, TANK),
          service_(client, TANK),
          draw_(client, TANK, mqtt::Topic(), "draw") {
        set(communication_, {ComState::CONNECTION_LOST, conv::UnixTime()});
        set(service_, {OPERATING, HEALTHY});
        communication_.setCurrentValueAsWill();
        client_.registerListener(this);
    }
    ~Tank() { client_.unregisterListener(this); }
    Tank(Tank const&) = delete;
    Tank& operator=(Tank const&) = delete;

    /// Every request is read into the one payload given here.
    MqttClient::Error serve() { return draw_.subscribe(this, TANK_ID, std::make_shared<Litres>()); }

    void sayGoodbye() {
        draw_.unsubscribe();
        set(service_, {NOT_OPERATING, HEALTHY});
        service_.publishWait();
        set(communication_, {ComState::DISCONNECTED, now()});
        communication_.publishWait();
    }

    /// With every connection the status is published anew: the will may stand in its place.
    void onComStateChanged(ComState state) override {
        if (state == ComState::CONNECTED) {
            set(communication_, {state, now()});
            communication_.publish();
            service_.publish();
        }
        say(inWords(state));
    }

    /// Called on the client's worker thread, one request after the other. What is returned here
    /// becomes the reply, whatever the code.
    std::shared_ptr<mqtt::RequestReplyData>
    onRequest(std::string const& /*name*/, Uuid const& /*clientUuid*/, Uuid const& /*serverUuid*/,
              mqtt::RequestReplyData const& requestData,
              mqtt::RequestReply::ErrorCode& error) override {
        auto const wanted = dynamic_cast<Litres const&>(requestData).count();
        if (wanted > left_) {
            error = NOT_ENOUGH;
            say("refused " + std::to_string(wanted) + " litres");
        } else {
            handOut(wanted);
        }
        return std::make_shared<Litres>(left_);
    }

private:
    void handOut(unsigned int litres) {
        left_ -= litres;
        say("handed out " + std::to_string(litres) + " litres");
        if (left_ < 50) {
            set(service_, {OPERATING, RUNNING_LOW});
            service_.publish();
        }
    }

    MqttClient& client_;
    unsigned int left_ = 100; // used on the worker thread only
    MqttData<conv::CommunicationStatus> communication_;
    MqttData<conv::ServiceStatus> service_;
    // The last one, and so the first to go: its destructor waits for a request being handled.
    mqtt::RequestReplyServer draw_;
};

void waitForTheEndOf(std::istream& input) {
    input.ignore(std::numeric_limits<std::streamsize>::max());
}

} // namespace

int main(int argc, char* argv[]) try {
    std::string const host = argc > 1 ? argv[1] : "localhost";
    int const port = argc > 2 ? std::stoi(argv[2]) : 1883;

    MqttClient client(TANK_ID, false, "device", host, port, false);
    Tank tank(client);

    // The service is there before anybody can read that it is.
    auto result = tank.serve();
    if (result == MqttClient::Error::SUCCESS) {
        result = client.connect("", -1, MqttClient::COMMUNICATION_DELAY);
    }
    if (result != MqttClient::Error::SUCCESS) {
        std::cerr << "cannot serve at " << host << ':' << port << ": " << result << '\n';
        return 1;
    }

    waitForTheEndOf(std::cin);
    tank.sayGoodbye();
    client.disconnect(MqttClient::COMMUNICATION_DELAY);
    return 0;
} catch (std::exception const& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
