#pragma once

#include <mqtt/delivery_token.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <stdexcept>
#include <utility>

namespace bench {

/// Publications at QoS 2 whose handshake is not over, at most as many as the broker keeps of one
/// client by its own settings: of what goes beyond that, messages of Paho do not arrive.
class PahoFlight {
public:
    void add(mqtt::delivery_token_ptr token, int qos) {
        if (qos < 2) {
            return;
        }
        tokens_.push_back(std::move(token));
        if (tokens_.size() == MOST) {
            land();
        }
    }

private:
    static constexpr std::size_t MOST = 20;

    /// Half of them, lest everything come to a stop and be woken up again all the time.
    void land() {
        while (tokens_.size() > MOST / 2) {
            if (!tokens_.front()->wait_for(std::chrono::minutes(1))) {
                throw std::runtime_error("Paho does not come to an end");
            }
            tokens_.pop_front();
        }
    }

    std::deque<mqtt::delivery_token_ptr> tokens_;
};

} // namespace bench
