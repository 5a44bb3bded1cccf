#pragma once

#include "chaos/party.hpp"
#include "chaos/place.hpp"
#include "chaos/stream.hpp"

#include <mqtt/client.hpp>
#include <mqtt/payloads.hpp>

#include <memory>
#include <string>
#include <vector>

namespace chaos {

/// Publishes the numbers of its streams over one connection, which gets cut.
class Publisher : public Party, private mqtt::MqttClient::Listener {
public:
    Publisher(Place& place, std::string const& name, bool persistent,
              std::vector<Stream*> const& streams);
    ~Publisher() override;

    std::vector<Stream*> const& streams() const { return streams_; }
    /// The next number of each stream, now. At rest.
    void publishOnce();
    bool connected() const;

protected:
    mqtt::MqttClient& client() { return *client_; }
    virtual void publish(std::size_t stream, std::uint64_t number) = 0;
    /// A derived class calls it in its destructor.
    void endPublishing();

private:
    void step() override;
    bool tooFarAhead() const;
    void onComStateChanged(conv::ComState state) override;

    Place& place_;
    std::vector<Stream*> const streams_;
    std::unique_ptr<mqtt::MqttClient> client_;
};

/// Publishes texts.
class TextPublisher final : public Publisher {
public:
    using Publisher::Publisher;
    ~TextPublisher() override { endPublishing(); }

private:
    void publish(std::size_t stream, std::uint64_t number) override;
};

/// Publishes typed values.
class ValuePublisher final : public Publisher {
public:
    ValuePublisher(Place& place, std::string const& name, bool persistent,
                   std::vector<Stream*> const& streams);
    ~ValuePublisher() override;

private:
    void publish(std::size_t stream, std::uint64_t number) override;

    std::vector<std::unique_ptr<mqtt::MqttData<conv::CommunicationStatus>>> endpoints_;
};

} // namespace chaos
