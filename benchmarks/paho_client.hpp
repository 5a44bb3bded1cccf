#pragma once

#include "party.hpp"
#include "tally.hpp"

#include <mqtt/async_client.h>

#include <chrono>
#include <stdexcept>
#include <string>

namespace bench {

/// The least that every use of Paho needs: an asynchronous client, a callback for its messages,
/// and no persistence, which the others do not have either.
class PahoClient {
public:
    PahoClient(PahoClient const&) = delete;
    PahoClient& operator=(PahoClient const&) = delete;

protected:
    explicit PahoClient(int port)
        : client_("tcp://" + std::string(BROKER_HOST) + ':' + std::to_string(port), nextName(),
                  MANY, nullptr) {}
    ~PahoClient() { close(); }

    void open() {
        finish(client_.connect(mqtt::connect_options_builder()
                                   .clean_session(true)
                                   .keep_alive_interval(std::chrono::seconds(30))
                                   .max_inflight(MANY)
                                   .finalize()));
    }

    /// Its threads call nobody in this object any more when this returns.
    void close() {
        if (client_.is_connected()) {
            finish(client_.disconnect());
        }
        client_.set_message_callback([](mqtt::const_message_ptr const& /*message*/) {});
    }

    /// Subscribes, and returns when that stands: the tally counts what comes back.
    void listen(std::string const& topic, Tally& received) {
        received.reset();
        finish(client_.subscribe(topic, 0));
        send(topic, PROBE, 0);
        received.waitFor(1);
        received.reset();
    }

    mqtt::delivery_token_ptr send(mqtt::string_ref const& topic, std::string const& payload,
                                  int qos, bool retain = false) {
        return client_.publish(topic, payload.data(), payload.size(), qos, retain);
    }

    template <class Token>
    static void finish(Token const& token) {
        if (!token->wait_for(std::chrono::minutes(1))) {
            throw std::runtime_error("Paho does not come to an end");
        }
    }

    static bool isProbe(mqtt::message const& message) {
        return message.get_payload_ref().to_string() == PROBE;
    }

    mqtt::async_client& client() { return client_; }

private:
    /// Beyond the window of every measurement: Paho refuses what goes beyond its buffer, and takes
    /// up to a second to notice that there is room again in flight. PahoFlight sees to it that
    /// the broker is not asked too much.
    static constexpr int MANY = 65535;

    static std::string nextName() {
        static unsigned last = 0;
        return "paho-" + std::to_string(++last);
    }

    mqtt::async_client client_;
};

} // namespace bench
