#include "chaos/watcher.hpp"

#include "chaos/text.hpp"

#include "support/test_client.hpp"

namespace chaos {

Watcher::Watcher(Place& place, std::string const& name, Post const& post,
                 std::vector<Stream*> const& texts, std::vector<Stream*> const& values)
    : place_(place), name_(name), post_(post), texts_(texts.size()) {
    for (auto const& all : {texts, values}) {
        for (Stream* const stream : all) {
            followed_.push_back(std::make_unique<Followed>(*stream, place.findings, name,
                                                           post.persistent && !post.steady));
        }
    }
    client_ = support::testClient(place.broker.host(), post.port, {post.persistent, false});
    client_->registerListener(this);
    subscribe(texts);
    subscribeValues(values);
    client_->connect(place.broker.host(), post.port, 5);
}

Watcher::~Watcher() {
    endpoints_.clear();
    client_->release(this);
    client_->unregisterListener(this);
    client_->disconnect(5);
    client_.reset();
}

void Watcher::subscribe(std::vector<Stream*> const& texts) {
    if (post_.byPattern) {
        static_cast<void>(client_->subscribe("chaos/text/+", this, 0));
        return;
    }
    for (Stream const* const stream : texts) {
        static_cast<void>(client_->subscribe(stream->topic(), this, 0));
    }
}

void Watcher::subscribeValues(std::vector<Stream*> const& values) {
    int id = static_cast<int>(texts_);
    for (Stream const* const stream : values) {
        endpoints_.push_back(std::make_unique<Endpoint>(*client_, stream->topic()));
        endpoints_.back()->subscribe(this, id++);
    }
}

bool Watcher::connected() const {
    return client_->communicationState() == conv::ComState::CONNECTED;
}

bool Watcher::hasSeen(Stream const& stream, std::uint64_t number) const {
    for (auto const& followed : followed_) {
        if (followed->stream == &stream) {
            return followed->follower.last() >= number;
        }
    }
    return false;
}

Watcher::Followed* Watcher::find(std::string const& topic) {
    for (auto const& followed : followed_) {
        if (followed->stream->topic() == topic) {
            return followed.get();
        }
    }
    return nullptr;
}

void Watcher::see(Followed& followed, std::uint64_t number) {
    followed.follower.see(number, away_);
    if (post_.steady) {
        followed.stream->arrived(number);
    }
}

void Watcher::onMqttMessage(int /*tag*/, mqtt::Topic const& topic, std::string const& payload) {
    auto* const followed = find(topic.text());
    auto const number = numberIn(payload);
    if (followed != nullptr && number) {
        see(*followed, *number);
    } else {
        place_.findings.breach(name_ + ": on " + topic.text() + " came what nobody has sent");
    }
}

void Watcher::onMqttData(conv::CommunicationStatus const& value, bool empty, int id) {
    if (empty || value.since.valid == 0) {
        place_.findings.breach(name_ + ": an empty value, which nobody has sent");
    } else {
        see(*followed_.at(static_cast<std::size_t>(id)),
            static_cast<std::uint64_t>(value.since.seconds));
    }
}

void Watcher::onComStateChanged(conv::ComState state) {
    if (state != conv::ComState::CONNECTION_LOST) {
        return;
    }
    ++away_;
    place_.findings.count(post_.steady ? "connections lost by steady subscribers"
                                       : "connections lost by other subscribers");
    if (post_.steady && !place_.kills) {
        place_.findings.breach(name_ + " lost its connection, which nobody has touched");
    }
}

} // namespace chaos
