#pragma once

#include "support/watched.hpp"

#include <conv/com_state.hpp>
#include <mqtt/client.hpp>

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace support {

/// One call of a subscriber.
struct Delivery {
    int tag;
    std::string topic;
    std::string payload;
};

bool operator==(Delivery const& a, Delivery const& b);
std::ostream& operator<<(std::ostream& out, Delivery const& delivery);

/// A subscriber that keeps what it gets. Like every subscriber it must be gone from the
/// client's registry before it dies: declare it before the client.
class MessageRecorder : public mqtt::MqttClient::Subscriber {
public:
    using Hook = std::function<void(int, mqtt::Topic const&, std::string const&)>;

    /// @param hook called within every delivery, after it was kept; it outlives the recorder
    explicit MessageRecorder(Hook hook = {});

    std::vector<Delivery> deliveries() const { return deliveries_.copy(); }
    std::vector<std::string> payloads() const;
    std::size_t count() const;
    void clear();

    /// Waits for that many deliveries, or more.
    bool waitForCount(std::size_t count, std::chrono::milliseconds deadline = DEADLINE) const;
    bool waitFor(std::function<bool(std::vector<Delivery> const&)> const& condition,
                 std::chrono::milliseconds deadline = DEADLINE) const;
    bool waitForPayload(std::string const& payload,
                        std::chrono::milliseconds deadline = DEADLINE) const;

    void onMqttMessage(int tag, mqtt::Topic const& topic, std::string const& payload) override;

private:
    Watched<std::vector<Delivery>> deliveries_;
    std::shared_ptr<Hook> const hook_;
};

/// A state listener that keeps what it sees. It must be unregistered before it dies, or die
/// after the client: declare it before the client.
class StateRecorder : public mqtt::MqttClient::Listener {
public:
    using Hook = std::function<void(conv::ComState)>;
    using History = std::vector<conv::ComState>;

    /// @param hook called within every change, after it was kept; it outlives the recorder
    explicit StateRecorder(Hook hook = {});
    virtual ~StateRecorder() = default;

    History history() const { return history_.copy(); }
    void clear();

    /// Waits until the latest state is this one.
    bool waitFor(conv::ComState state, std::chrono::milliseconds deadline = DEADLINE) const;
    /// Waits until exactly these changes were seen.
    bool waitForHistory(History const& history,
                        std::chrono::milliseconds deadline = DEADLINE) const;

    void onComStateChanged(conv::ComState state) override;

private:
    Watched<History> history_;
    std::shared_ptr<Hook> const hook_;
};

} // namespace support
