#pragma once

#include "party.hpp"
#include "tally.hpp"

#include <mosquittopp.h>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace bench {

constexpr int KEEP_ALIVE = 30;

inline void require(int result, char const* what) {
    if (result != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error(std::string("raw ") + what + ": " + mosqpp::strerror(result));
    }
}

/// The least that every use of the library needs: connect with the library's own thread and
/// wait for the broker's consent.
class RawClient : protected mosqpp::mosquittopp {
public:
    RawClient(RawClient const&) = delete;
    RawClient& operator=(RawClient const&) = delete;

protected:
    RawClient() : mosqpp::mosquittopp(nullptr, true) {}
    ~RawClient() override { close(); }

    /// Subscribes, and returns when that stands: the tally counts what comes back.
    void listen(std::string const& topic, Tally& received) {
        received.reset();
        require(subscribe(nullptr, topic.c_str(), 0), "subscribe");
        send(topic, PROBE, 0);
        received.waitFor(1);
        received.reset();
    }

    void send(std::string const& topic, std::string const& payload, int qos, bool retain = false) {
        require(publish(nullptr, topic.c_str(), static_cast<int>(payload.size()), payload.data(),
                        qos, retain),
                "publish");
    }

    static bool isProbe(mosquitto_message const& message) {
        std::string_view const payload(static_cast<char const*>(message.payload),
                                       static_cast<std::size_t>(message.payloadlen));
        return payload == PROBE;
    }

    void open(int port) {
        accepted_.reset();
        require(mosqpp::mosquittopp::connect(BROKER_HOST, port, KEEP_ALIVE), "connect");
        require(loop_start(), "loop_start");
        running_ = true;
        accepted_.waitFor(1);
    }

    /// The library's thread must be gone before the callbacks of a derived class are.
    void close() {
        if (running_) {
            mosqpp::mosquittopp::disconnect();
            loop_stop();
            running_ = false;
        }
    }

private:
    void on_connect(int code) override {
        if (code == 0) {
            accepted_.add();
        }
    }

    Tally accepted_;
    bool running_ = false;
};

} // namespace bench
