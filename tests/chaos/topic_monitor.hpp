#pragma once

#include "chaos/number_sequence.hpp"
#include "chaos/test_bed.hpp"

#include <mqtt/client.hpp>
#include <mqtt/payloads.hpp>

#include <memory>
#include <string>
#include <vector>

namespace chaos {

struct MonitorOptions {
    bool direct; ///< no proxy before the broker: only a kill of the broker ends its connection
    bool persistent;
    bool byPattern; ///< one subscription for all texts
};

/// Subscribes to all sequences of a run over one connection, and checks what arrives.
class TopicMonitor final : private mqtt::MqttClient::Subscriber,
                           private mqtt::MqttClient::Listener,
                           private mqtt::MqttData<conv::CommunicationStatus>::Subscriber {
public:
    using Sequences = std::vector<NumberSequence*>;

    TopicMonitor(TestBed& testBed, std::string const& name, MonitorOptions const& options,
                 Sequences const& texts, Sequences const& values);
    ~TopicMonitor() override;

    std::string const& name() const { return name_; }
    bool connected() const { return client_->communicationState() == conv::ComState::CONNECTED; }
    /// The sequences of which it has not received the last number, one topic each.
    std::string missingTopics() const;

private:
    using Endpoint = mqtt::MqttData<conv::CommunicationStatus>;
    struct Topic {
        NumberSequence* sequence;
        std::unique_ptr<SequenceChecker> checker;
    };

    void receive(Topic const* topic, std::uint64_t number);
    void onMqttMessage(int tag, mqtt::Topic const& topic, std::string const& payload) override;
    void onMqttData(conv::CommunicationStatus const& value, bool empty, int id) override;
    void onComStateChanged(conv::ComState state) override;

    TestBed& testBed_;
    std::string const name_;
    MonitorOptions const options_;
    std::vector<Topic> topics_; ///< texts, then values
    unsigned losses_ = 0;       ///< of the connection; used on the client's thread
    std::unique_ptr<mqtt::MqttClient> client_;
    std::vector<std::unique_ptr<Endpoint>> endpoints_;
};

} // namespace chaos
