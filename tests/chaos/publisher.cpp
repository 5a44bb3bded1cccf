#include "chaos/publisher.hpp"

#include "chaos/text.hpp"

#include "support/test_client.hpp"

#include <algorithm>

namespace chaos {

namespace {

constexpr std::uint64_t AHEAD = 400;

} // namespace

Publisher::Publisher(Place& place, std::string const& name, bool persistent,
                     std::vector<Stream*> const& streams)
    : Party(name, place.seed), place_(place), streams_(streams) {
    auto const& line = place.newLine();
    for (Stream* const stream : streams) {
        stream->runsOver(line);
    }
    client_ = support::testClient(place.broker.host(), line.port(), {persistent});
    client_->registerListener(this);
}

Publisher::~Publisher() {
    client_->unregisterListener(this);
    client_->disconnect(5);
}

void Publisher::endPublishing() {
    end();
}

bool Publisher::connected() const {
    return client_->communicationState() == conv::ComState::CONNECTED;
}

void Publisher::step() {
    for (int n = dice().between(1, 8); n > 0 && !tooFarAhead(); --n) {
        auto const chosen = dice().between(0, static_cast<int>(streams_.size()) - 1);
        auto const i = static_cast<std::size_t>(chosen);
        publish(i, streams_[i]->next());
        place_.findings.count("values published");
    }
    pause(1, 20);
}

void Publisher::publishOnce() {
    for (std::size_t i = 0; i < streams_.size(); ++i) {
        publish(i, streams_[i]->next());
    }
}

bool Publisher::tooFarAhead() const {
    return std::any_of(streams_.begin(), streams_.end(),
                       [](Stream const* stream) { return stream->underWay() > AHEAD; });
}

void Publisher::onComStateChanged(conv::ComState state) {
    if (state != conv::ComState::CONNECTION_LOST) {
        return;
    }
    place_.findings.count("connections lost by publishers");
    for (Stream* const stream : streams_) {
        stream->broke();
    }
}

void TextPublisher::publish(std::size_t stream, std::uint64_t number) {
    auto const& to = *streams()[stream];
    client().publish(to.topic(), textOf(number, dice()), to.manner().qos, to.manner().retained);
}

ValuePublisher::ValuePublisher(Place& place, std::string const& name, bool persistent,
                               std::vector<Stream*> const& streams)
    : Publisher(place, name, persistent, streams) {
    for (Stream const* const stream : streams) {
        endpoints_.push_back(
            std::make_unique<mqtt::MqttData<conv::CommunicationStatus>>(client(), stream->topic()));
    }
}

ValuePublisher::~ValuePublisher() {
    endPublishing();
}

void ValuePublisher::publish(std::size_t stream, std::uint64_t number) {
    auto& endpoint = *endpoints_[stream];
    mqtt::MqttDataBase::Lock lock(endpoint.mutex());
    endpoint.value.state = conv::ComState::CONNECTED;
    endpoint.value.since = conv::UnixTime(static_cast<double>(number));
    endpoint.publish(lock);
}

} // namespace chaos
