#pragma once

#include "support/watched.hpp"

#include <conv/com_state.hpp>
#include <mqtt/client.hpp>

#include <algorithm>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

namespace support {

/// The entries that a listener has recorded, in order, for other threads to wait for.
template <class Entry, class... Arguments>
class Recording {
public:
    using Entries = std::vector<Entry>;
    using Hook = std::function<void(Arguments...)>;

    explicit Recording(Hook hook) : hook_(std::make_shared<Hook>(std::move(hook))) {}

    /// Keeps the entry, and then calls the hook.
    void add(Entry const& entry, Arguments... arguments) {
        // A thread that waits for this entry may destroy this object as soon as it was kept.
        auto const hook = hook_;
        entries_.change([&](Entries& entries) { entries.push_back(entry); });
        if (*hook) {
            (*hook)(arguments...);
        }
    }
    void clear() {
        entries_.change([](Entries& entries) { entries.clear(); });
    }
    Entries entries() const { return entries_.copy(); }
    template <class Condition>
    bool waitFor(Condition const& condition, std::chrono::milliseconds deadline) const {
        return entries_.waitFor(condition, deadline);
    }

private:
    Watched<Entries> entries_;
    std::shared_ptr<Hook> const hook_;
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
class MessageRecorder : public mqtt::MqttClient::Subscriber {
public:
    using Record = Recording<Delivery, int, mqtt::Topic const&, std::string const&>;

    /// @param hook called within every delivery, after it was recorded; may outlive the recorder
    explicit MessageRecorder(Record::Hook hook = {}) : record_(std::move(hook)) {}

    std::vector<Delivery> deliveries() const { return record_.entries(); }
    std::size_t count() const { return deliveries().size(); }
    std::vector<std::string> payloads() const {
        std::vector<std::string> result;
        for (Delivery const& delivery : deliveries()) {
            result.push_back(delivery.payload);
        }
        return result;
    }
    void clear() { record_.clear(); }

    bool waitFor(std::function<bool(std::vector<Delivery> const&)> const& condition,
                 std::chrono::milliseconds deadline = DEADLINE) const {
        return record_.waitFor(condition, deadline);
    }
    /// Waits for that many deliveries, or more.
    bool waitForCount(std::size_t count, std::chrono::milliseconds deadline = DEADLINE) const {
        return waitFor([&](auto const& all) { return all.size() >= count; }, deadline);
    }
    bool waitForPayload(std::string const& payload,
                        std::chrono::milliseconds deadline = DEADLINE) const {
        auto const matches = [&](Delivery const& one) { return one.payload == payload; };
        return waitFor(
            [&](auto const& all) { return std::any_of(all.begin(), all.end(), matches); },
            deadline);
    }

    void onMqttMessage(int tag, mqtt::Topic const& topic, std::string const& payload) override {
        record_.add({tag, topic.text(), payload}, tag, topic, payload);
    }

private:
    Record record_;
};

/// A state listener that records what it is told. It must be unregistered before it is destroyed,
/// or destroyed after the client: declare it before the client.
class StateRecorder : public mqtt::MqttClient::Listener {
public:
    using Record = Recording<conv::ComState, conv::ComState>;
    using History = Record::Entries;

    /// @param hook called within every change, after it was recorded; may outlive the recorder
    explicit StateRecorder(Record::Hook hook = {}) : record_(std::move(hook)) {}
    virtual ~StateRecorder() = default;

    History history() const { return record_.entries(); }
    void clear() { record_.clear(); }

    /// Waits until the latest state is this one.
    bool waitFor(conv::ComState state, std::chrono::milliseconds deadline = DEADLINE) const {
        return record_.waitFor(
            [&](History const& all) { return !all.empty() && all.back() == state; }, deadline);
    }
    /// Waits until exactly these changes were seen.
    bool waitForHistory(History const& history,
                        std::chrono::milliseconds deadline = DEADLINE) const {
        return record_.waitFor([&](History const& all) { return all == history; }, deadline);
    }

    void onComStateChanged(conv::ComState state) override { record_.add(state, state); }

private:
    Record record_;
};

} // namespace support
