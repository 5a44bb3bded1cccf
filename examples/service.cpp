// A service from a function, and its calls: a tank of 100 litres hands out water. In an application
// the two sides are different programs, each with a client of its own.
//
// Usage: service [HOST [PORT]]

#include <mqtt/service.hpp>

#include <chrono>
#include <cstdint>
#include <iostream>
#include <string>

// What both sides share.
struct Litres {
    unsigned int litres = 0;
};
ZYM_MQTT_FIELDS(Litres, litres)
enum class DrawError : std::uint8_t { NOT_ENOUGH = 17 }; // own errors begin at 16

int main(int argc, char* argv[]) {
    std::string const host = argc > 1 ? argv[1] : "localhost";
    int const port = argc > 2 ? std::stoi(argv[2]) : 1883;
    zym::common::Uuid const tankId(12);
    zym::common::Uuid const panelId(13);
    mqtt::Service<Litres, Litres> const draw{"demo/tank", "draw"};
    mqtt::MqttClient client(tankId, false, "", host, port, true);

    unsigned int left = 100; // used on the client's own thread only, as the function is
    mqtt::Server const server(client, draw, mqtt::ServerId(tankId),
                              [&left](Litres const& wanted) -> mqtt::Result<Litres> {
                                  if (wanted.litres > left) {
                                      return DrawError::NOT_ENOUGH;
                                  }
                                  left -= wanted.litres;
                                  return Litres{left};
                              });

    mqtt::Caller caller(client, draw, mqtt::ClientId(panelId), mqtt::ServerId(tankId));
    for (unsigned int const litres : {60U, 60U}) {
        auto const reply = caller.callWait({litres}, std::chrono::seconds(5));
        if (reply) {
            std::cout << "drawn " << litres << " litres, " << reply->litres << " left" << std::endl;
        } else if (reply == DrawError::NOT_ENOUGH) {
            std::cout << "refused: not enough" << std::endl;
        } else {
            std::cout << "no answer, code " << static_cast<int>(reply.code()) << std::endl;
            return 1;
        }
    }
}
