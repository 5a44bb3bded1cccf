// A tank and its display on one client, with a real broker: a value of the application's own type
// is published and read, and a request is answered. The exit code is 0 when both have succeeded.
//
// Usage: consumer HOST PORT

#include "fill_level.hpp"

#include <mqtt/client.hpp>
#include <mqtt/fields.hpp>
#include <mqtt/request_reply.hpp>
#include <zym/common/uuid.hpp>

#include <exception>
#include <future>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

using mqtt::MqttClient;
using mqtt::MqttData;
using mqtt::RequestReply;
using zym::common::Uuid;

Uuid const TANK_ID(1);
Uuid const DISPLAY_ID(2);
constexpr conv::SecondsDuration TIMEOUT(30);

struct Litres {
    unsigned int count = 0;
};
ZYM_MQTT_FIELDS(Litres, count)
using LitresPayload = mqtt::Payload<Litres>;

class Tank final : public mqtt::RequestReplyServer::Listener {
public:
    std::shared_ptr<mqtt::RequestReplyData>
    onRequest(std::string const& /*name*/, Uuid const& /*client*/, Uuid const& /*server*/,
              mqtt::RequestReplyData const& request, RequestReply::ErrorCode& /*error*/) override {
        auto const& wanted = dynamic_cast<LitresPayload const&>(request).value;
        return std::make_shared<LitresPayload>(Litres{100 - wanted.count});
    }
};

class Display final : public MqttData<FillLevel>::Subscriber {
public:
    void onMqttData(FillLevel const& level, bool empty, int /*id*/) override {
        if (!empty && !received_) {
            received_ = true;
            level_.set_value(level.litres);
        }
    }
    unsigned int wait() {
        auto level = level_.get_future();
        if (level.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
            throw std::runtime_error("no level was received");
        }
        return level.get();
    }

private:
    std::promise<unsigned int> level_;
    bool received_ = false; // used on the client's worker thread only
};

void require(bool condition, char const* what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

void connect(MqttClient& client) {
    auto const result = client.connect("", -1, TIMEOUT);
    std::cout << "connecting: " << result << '\n';
    require(result == MqttClient::Error::SUCCESS, "cannot connect");
}

void publishAndRead(MqttClient& client) {
    Display display;
    MqttData<FillLevel> level(client, "consumer/tank");
    require(level.subscribe(&display, 0) == MqttClient::Error::SUCCESS, "cannot subscribe");
    level.value.litres = 42;
    level.publishWait();
    require(display.wait() == 42, "another level was received");
    std::cout << "a value of our own type: received\n";
}

void ask(MqttClient& client) {
    Tank tank;
    mqtt::RequestReplyServer server(client, "consumer/tank", mqtt::Topic(), "draw");
    require(server.subscribe(&tank, TANK_ID, std::make_shared<LitresPayload>())
                == MqttClient::Error::SUCCESS,
            "cannot serve");
    mqtt::RequestReplyClient draw(client, "consumer/tank", mqtt::Topic(), "draw");
    auto const left = std::make_shared<LitresPayload>();
    auto const result = draw.requestWait(DISPLAY_ID, TANK_ID,
                                         std::make_shared<LitresPayload>(Litres{7}), left, TIMEOUT);
    require(result == RequestReply::ErrorCode::SUCCESS, "the request failed");
    require(left->value.count == 93, "another reply was received");
    std::cout << "a request: answered\n";
}

} // namespace

int main(int argc, char* argv[]) try {
    require(argc == 3, "Usage: consumer HOST PORT");
    MqttClient client(DISPLAY_ID, false, "consumer", argv[1], std::stoi(argv[2]), false);
    connect(client);
    publishAndRead(client);
    ask(client);
    return 0;
} catch (std::exception const& error) {
    std::cerr << "consumer: " << error.what() << '\n';
    return 1;
}
