#pragma once

#include "benchmark_broker.hpp"
#include "message_counter.hpp"
#include "samples.hpp"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

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

/// A connected client that counts the messages of one topic. The subscription is in force and the
/// count is 0 when this returns.
std::shared_ptr<BenchmarkClient> makeCountingSubscriber(ClientLibrary const& library,
                                                        BenchmarkBroker const& broker,
                                                        std::string const& topic,
                                                        MessageCounter& received);

/// Two connected clients: one asks on one topic, the other one answers each request on another
/// topic. Requests and replies are always the same text, at QoS 2.
class Dialogue {
public:
    /// The asking client is not subscribed to the replies yet.
    Dialogue(ClientLibrary const& library, BenchmarkBroker const& broker, ExchangeTexts texts);

    void subscribe() { requester_->subscribe(replyTopic_); }
    void unsubscribe() { requester_->unsubscribe(replyTopic_); }
    /// Sends so many requests in a row, and returns when all replies have come.
    void ask(unsigned count);

private:
    void answer(std::string_view request);

    ExchangeTexts const texts_;
    MessageCounter probes_;
    MessageCounter replies_;
    std::unique_ptr<BenchmarkClient> const responder_;
    std::unique_ptr<BenchmarkClient> const requester_;
    BenchmarkClient::TopicId const responderReplyTopic_;
    BenchmarkClient::TopicId const requestTopic_;
    BenchmarkClient::TopicId const replyTopic_;
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
