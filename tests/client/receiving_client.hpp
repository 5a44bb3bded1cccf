#pragma once

#include "client/client_on_a_script.hpp"
#include "support/allocations.hpp"

#include <cstddef>
#include <string>

/// A connected client that receives messages, for programs that count allocations.
class AReceivingClient : public AClientOnAScript {
protected:
    AReceivingClient() { connect(); }

    /// Counted on the worker, from the library's call until it returns. A first message, which
    /// makes buffers grow, is not counted.
    std::size_t allocationsToReceive(std::string topic, std::string payload) {
        std::size_t result = 0;
        script_->runInLoop([&](auto& object) {
            mosquitto_message message{};
            message.topic = topic.data();
            message.payload = payload.data();
            message.payloadlen = static_cast<int>(payload.size());
            object.on_message(&message);
            support::AllocationCount const count;
            object.on_message(&message);
            result = count.value();
        });
        return result;
    }
};
