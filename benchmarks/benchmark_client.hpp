#pragma once

#include "program.hpp"
#include "samples.hpp"

#include "mqtt/test/broker.hpp"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace bench {

/// A broker that logs no more than one without any configuration does. The tests' broker would log
/// every packet.
class BenchmarkBroker : public mqtt::test::Broker {
public:
    explicit BenchmarkBroker(char const* configuration, bool encrypted = false)
        : mqtt::test::Broker(options(std::string(configuration) == NODELAY, encrypted)),
          description(configuration) {
        if (int const code = ::clock_getcpuclockid(pid(), &clock_); code != 0) {
            throw std::system_error(code, std::generic_category(), "the broker's processor time");
        }
    }

    /// Processor time used so far, in seconds.
    double cpuSeconds() const { return bench::cpuSeconds(clock_); }

    char const* const description;

private:
    static mqtt::test::BrokerOptions options(bool nodelay, bool encrypted) {
        // `none` cancels what the tests' configuration says; the others are the broker's default.
        return {nodelay,
                false,
                false,
                {"log_type none", "log_type error", "log_type warning", "log_type notice",
                 "log_type information"},
                encrypted};
    }

    clockid_t clock_{};
};

/// Counts messages on a client's thread, and lets another thread wait for a count.
///
/// The waiting thread is woken only when the count is reached: a wake-up for every message would
/// be measured along with the clients.
class MessageCounter {
public:
    void add() {
        std::lock_guard<std::mutex> const lock(mutex_);
        ++count_;
        if (count_ == expected_) {
            reached_.notify_all();
        }
    }

    /// @throws std::runtime_error when the count is not reached within a minute
    void waitFor(std::uint64_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        expected_ = count;
        auto const reached = [this, count] { return count_ >= count; };
        if (!reached_.wait_for(lock, std::chrono::minutes(1), reached)) {
            throw std::runtime_error("only " + std::to_string(count_) + " of "
                                     + std::to_string(count) + " messages came");
        }
    }

    void reset() {
        std::lock_guard<std::mutex> const lock(mutex_);
        count_ = 0;
        expected_ = 0;
    }

private:
    std::mutex mutex_;
    std::condition_variable reached_;
    std::uint64_t count_ = 0;
    std::uint64_t expected_ = 0;
};

/// What a subscriber publishes on its own topic, to learn that its subscription is in force.
constexpr char const* PROBE = "probe";

/// One client of one library. All operations throw std::runtime_error when they fail: a comparison
/// in which one side failed shows nothing.
class BenchmarkClient {
public:
    using TopicId = std::size_t;

    BenchmarkClient() = default;
    virtual ~BenchmarkClient() = default;
    BenchmarkClient(BenchmarkClient const&) = delete;
    BenchmarkClient& operator=(BenchmarkClient const&) = delete;

    /// Returns when the broker has accepted the connection.
    virtual void connect() = 0;
    virtual void disconnect() = 0;

    /// Keeps a topic in the form that the library wants at every call.
    virtual TopicId addTopic(std::string const& text) = 0;
    /// Sends the subscription, at QoS 0, and does not wait.
    virtual void subscribe(TopicId topic) = 0;
    virtual void unsubscribe(TopicId topic) = 0;
    /// Queues a publication, and does not wait.
    virtual void publish(TopicId topic, std::string const& payload, int qos, bool retain) = 0;
    /// One of many publications in a row: waits where the library has to be slowed down.
    virtual void publishInStream(TopicId topic, std::string const& payload, int qos, bool retain) {
        publish(topic, payload, qos, retain);
    }
    /// Returns when the broker has acknowledged.
    virtual void publishAndWait(TopicId topic, std::string const& payload, int qos) = 0;

    /// Gets the payload of every message, on a thread of the library. Set it before `connect`.
    std::function<void(std::string_view payload)> onMessage;
};

/// @tparam Form of a topic, which the library wants
template <class Form>
class ClientWithTopics : public BenchmarkClient {
public:
    TopicId addTopic(std::string const& text) final {
        topics_.emplace_back(text);
        return topics_.size() - 1;
    }

protected:
    Form const& formOf(TopicId topic) const { return topics_[topic]; }

private:
    std::vector<Form> topics_;
};

using Action = std::function<void()>;

/// One of the libraries that are compared.
struct ClientLibrary {
    char const* name;
    /// Makes a client that is not connected yet.
    std::function<std::unique_ptr<BenchmarkClient>(BenchmarkBroker const&)> makeClient;
    /// Whether the next two use the library's own typed values and requests.
    bool hasTypes = false;

    /// Connects a subscriber that counts typed values, and a publisher of one, at QoS 2 and
    /// retained. Libraries without typed values send the text of the value, made once, and do not
    /// read what they get.
    /// @param topic what the value's topic begins with
    /// @return publishes the value once
    Action makeValueStream(BenchmarkBroker const& broker, std::string const& topic,
                           Document document, MessageCounter& received) const;
    /// Connects a service, and a client that requests it.
    /// @return makes one request: subscribes for the reply, sends the request at QoS 2, waits for
    ///         the reply at QoS 2, unsubscribes
    Action makeRequester(BenchmarkBroker const& broker) const;
};

/// Bare libmosquittopp, used as its manual suggests: a derived class and the library's thread.
ClientLibrary rawLibrary(char const* name = "raw");
/// The same with a thread of its own that acknowledges at once whatever it has read.
ClientLibrary rawLibraryWithPromptAcknowledgements();
/// mqtt::MqttClient.
ClientLibrary ourLibrary();
Action makeOurValueStream(BenchmarkBroker const& broker, std::string const& topic,
                          Document document, MessageCounter& received);
Action makeOurRequester(BenchmarkBroker const& broker);
/// Paho's mqtt::async_client; none when the build has not found it.
std::optional<ClientLibrary> pahoLibrary();

} // namespace bench
