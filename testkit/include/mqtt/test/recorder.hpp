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
    virtual ~Recording() = default;

    /// For the calls to come.
    void setHook(Hook hook) {
        hook_.change([&](auto& current) { current = std::make_shared<Hook>(std::move(hook)); });
    }
    Entries calls() const { return entries_.copy(); }
    std::size_t count() const { return calls().size(); }
    /// Waits for that many calls, or more. @return false after 30 seconds
    bool waitForCount(std::size_t count) const {
        return entries_.waitFor([&](Entries const& all) { return all.size() >= count; });
    }
    void clear() {
        entries_.change([](Entries& entries) { entries.clear(); });
    }

protected:
    void add(Entry const& entry, Arguments... arguments) {
        // A thread that waits for this entry may destroy this object as soon as it was kept.
        auto const hook = hook_.copy();
        entries_.change([&](Entries& entries) { entries.push_back(entry); });
        if (*hook) {
            (*hook)(arguments...);
        }
    }

    Watched<Entries> entries_;

private:
    Watched<std::shared_ptr<Hook>> hook_;
};

/// Records the calls of a listener, each as one value that its hook gets too.
template <class Call>
class CallRecorder : public Recording<Call, Call const&> {
public:
    using Recording<Call, Call const&>::Recording;

protected:
    void record(Call const& call) { this->add(call, call); }
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

    Entries deliveries() const { return calls(); }
    std::vector<std::string> payloads() const {
        std::vector<std::string> result;
        for (Delivery const& delivery : deliveries()) {
            result.push_back(delivery.payload);
        }
        return result;
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

    Entries history() const { return calls(); }
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
