#pragma once

#include "mqtt/test/watched.hpp"

#include <conv/com_state.hpp>
#include <mqtt/client.hpp>

#include <algorithm>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

namespace mqtt::test {

/// Records the calls of a listener, in order, for other threads to wait for.
template <class Entry, class... Arguments>
class Recording {
public:
    using Entries = std::vector<Entry>;
    using Hook = std::function<void(Arguments...)>;

    /// @param hook called within every call, after it was recorded; may outlive the recorder
    explicit Recording(Hook hook = {}) { setHook(std::move(hook)); }

    /// To be set before the first call.
    void setHook(Hook hook) { hook_ = std::make_shared<Hook>(std::move(hook)); }
    void clear() {
        entries_.change([](Entries& entries) { entries.clear(); });
    }

protected:
    void add(Entry const& entry, Arguments... arguments) {
        // A thread that waits for this entry may destroy this object as soon as it was kept.
        auto const hook = hook_;
        entries_.change([&](Entries& entries) { entries.push_back(entry); });
        if (*hook) {
            (*hook)(arguments...);
        }
    }

    Watched<Entries> entries_;

private:
    std::shared_ptr<Hook> hook_;
};

/// One call of a subscriber.
struct Delivery {
    int tag;
    std::string topic;
    std::string payload;
};

inline bool operator==(Delivery const& a, Delivery const& b) {
    return std::tie(a.tag, a.topic, a.payload) == std::tie(b.tag, b.topic, b.payload);
}

inline std::ostream& operator<<(std::ostream& out, Delivery const& delivery) {
    return out << "{" << delivery.tag << ", \"" << delivery.topic << "\", \"" << delivery.payload
               << "\"}";
}

/// A subscriber that records what it gets. Like every subscriber it must have left the client's
/// registry before it is destroyed: declare it before the client.
class MessageRecorder : public Recording<Delivery, int, mqtt::Topic const&, std::string const&>,
                        public mqtt::MqttClient::Subscriber {
public:
    using Recording::Recording;

    Entries deliveries() const { return entries_.copy(); }
    std::size_t count() const { return deliveries().size(); }
    std::vector<std::string> payloads() const {
        std::vector<std::string> result;
        for (Delivery const& delivery : deliveries()) {
            result.push_back(delivery.payload);
        }
        return result;
    }

    /// Waits for that many deliveries, or more.
    bool waitForCount(std::size_t count) const {
        return entries_.waitFor([&](Entries const& all) { return all.size() >= count; });
    }
    bool waitForPayload(std::string const& payload) const {
        auto const matches = [&](Delivery const& one) { return one.payload == payload; };
        return entries_.waitFor(
            [&](Entries const& all) { return std::any_of(all.begin(), all.end(), matches); });
    }

    void onMqttMessage(int tag, mqtt::Topic const& topic, std::string const& payload) override {
        add({tag, topic.text(), payload}, tag, topic, payload);
    }
};

/// A state listener that records what it is told. It must be unregistered before it is destroyed,
/// or destroyed after the client: declare it before the client.
class StateRecorder : public Recording<conv::ComState, conv::ComState>,
                      public mqtt::MqttClient::Listener {
public:
    using Recording::Recording;
    virtual ~StateRecorder() = default;

    Entries history() const { return entries_.copy(); }
    /// Waits until the latest state is this one.
    bool waitFor(conv::ComState state) const {
        return entries_.waitFor(
            [&](Entries const& all) { return !all.empty() && all.back() == state; });
    }
    /// Waits until exactly these changes were seen.
    bool waitForHistory(Entries const& history) const {
        return entries_.waitFor([&](Entries const& all) { return all == history; });
    }

    void onComStateChanged(conv::ComState state) override { add(state, state); }
};

} // namespace mqtt::test
