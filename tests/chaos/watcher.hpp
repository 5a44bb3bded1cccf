#pragma once

#include "chaos/place.hpp"
#include "chaos/stream.hpp"

#include <mqtt/client.hpp>
#include <mqtt/payloads.hpp>

#include <memory>
#include <string>
#include <vector>

namespace chaos {

/// How a watcher stands to the broker.
struct Post {
    int port;
    bool steady; ///< straight at the broker: only a killed one makes it lose its connection
    bool persistent;
    bool byPattern; ///< one subscription for all texts
};

/// Subscribes to all streams of a run over one connection, and judges what comes.
class Watcher final : private mqtt::MqttClient::Subscriber,
                      private mqtt::MqttClient::Listener,
                      private mqtt::MqttData<conv::CommunicationStatus>::Subscriber {
public:
    Watcher(Place& place, std::string const& name, Post const& post,
            std::vector<Stream*> const& texts, std::vector<Stream*> const& values);
    ~Watcher() override;

    std::string const& name() const { return name_; }
    bool connected() const;
    /// Whether it has seen at least this number on a stream.
    bool hasSeen(Stream const& stream, std::uint64_t number) const;

private:
    using Endpoint = mqtt::MqttData<conv::CommunicationStatus>;
    struct Followed {
        Followed(Stream& followed, Findings& findings, std::string const& who, bool session)
            : stream(&followed), follower(followed, findings, who, session) {}

        Stream* stream;
        Follower follower;
    };

    void subscribe(std::vector<Stream*> const& texts);
    void subscribeValues(std::vector<Stream*> const& values);
    Followed* find(std::string const& topic);
    void see(Followed& followed, std::uint64_t number);
    void onMqttMessage(int tag, mqtt::Topic const& topic, std::string const& payload) override;
    void onMqttData(conv::CommunicationStatus const& value, bool empty, int id) override;
    void onComStateChanged(conv::ComState state) override;

    Place& place_;
    std::string const name_;
    Post const post_;
    std::vector<std::unique_ptr<Followed>> followed_; ///< texts, then values
    std::size_t texts_;
    unsigned away_ = 0; ///< on the client's thread
    std::unique_ptr<mqtt::MqttClient> client_;
    std::vector<std::unique_ptr<Endpoint>> endpoints_;
};

} // namespace chaos
