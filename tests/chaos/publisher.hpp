#pragma once

#include "chaos/number_sequence.hpp"
#include "chaos/worker.hpp"

#include <mqtt/client.hpp>

#include <memory>
#include <vector>

namespace chaos {

using Sequences = std::vector<NumberSequence*>;

/// Publishes the numbers of its sequences over one proxy.
class Publisher final : public Worker, private mqtt::MqttClient::Listener {
public:
    /// @param sequences all of them in sessions of the same kind
    Publisher(TestBed& testBed, std::string const& name, Sequences const& sequences);

    /// Publishes the next number of each sequence. Only while it is paused.
    void publishOnce();
    bool connected() const { return client_->communicationState() == conv::ComState::CONNECTED; }

private:
    bool step() override;
    void publishNext(NumberSequence& sequence);
    void onComStateChanged(conv::ComState state) override;

    Sequences const sequences_;
    std::unique_ptr<mqtt::MqttClient> client_;
};

/// The number in a payload that a publisher has sent; 0 in all others.
std::uint64_t numberIn(std::string const& payload);

} // namespace chaos
