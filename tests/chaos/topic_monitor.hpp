#pragma once

#include "chaos/publisher.hpp"

#include <deque>

namespace chaos {

struct MonitorOptions {
    bool direct; ///< no proxy before the broker: only a kill of the broker ends its connection
    bool persistent;
    bool byPattern; ///< one subscription for all sequences
};

/// Subscribes to all sequences of a run over one connection, and checks what arrives.
class TopicMonitor final : private mqtt::MqttClient::Subscriber,
                           private mqtt::MqttClient::Listener {
public:
    TopicMonitor(TestBed& testBed, std::string const& name, MonitorOptions const& options,
                 Sequences const& sequences);

    std::string const& name() const { return name_; }
    bool connected() const { return client_->communicationState() == conv::ComState::CONNECTED; }
    /// The sequences of which it has not received the last number.
    std::string missingTopics() const;

private:
    void onMqttMessage(int tag, mqtt::Topic const& topic, std::string const& payload) override;
    void onComStateChanged(conv::ComState state) override;

    TestBed& testBed_;
    std::string const name_;
    MonitorOptions const options_;
    std::deque<SequenceChecker> checkers_;
    unsigned losses_ = 0; ///< of the connection; used on the client's thread
    std::unique_ptr<mqtt::MqttClient> client_;
};

} // namespace chaos
