#pragma once

#include "message_counter.hpp"

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace bench {

constexpr char const* BROKER_HOST = "127.0.0.1";

/// One client of one library. All operations throw std::runtime_error when they fail: a comparison
/// in which one side failed shows nothing.
class BenchmarkClient {
public:
    using TopicId = std::size_t;
    using Handler = std::function<void(std::string_view payload)>;

    virtual ~BenchmarkClient() = default;

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
    Handler onMessage;
};

/// The typed values that are measured: the shortest document and the longest one.
enum class Document { COMMUNICATION, IDENTIFICATION };

using Action = std::function<void()>;

/// One of the libraries that are compared.
class ClientLibrary {
public:
    /// Makes a client that is not connected yet, for the broker on a port of the loopback address.
    using MakeClient = std::function<std::unique_ptr<BenchmarkClient>(int port)>;

    ClientLibrary(char const* libraryName, MakeClient makeOne)
        : name(libraryName), makeClient(std::move(makeOne)) {}
    virtual ~ClientLibrary() = default;

    char const* const name;
    MakeClient const makeClient;

    /// Connects a publisher of one typed value, at QoS 2 and retained. Libraries without typed
    /// values send the text of the value, made once, and do not read what they get.
    /// @param topic what the value's topic begins with
    /// @return publishes the value once
    virtual Action makeValuePublisher(int port, std::string const& topic, Document document) const;
    /// Connects a subscriber that counts such values until the returned object goes.
    virtual std::shared_ptr<void> makeValueSubscriber(int port, std::string const& topic,
                                                      Document document,
                                                      MessageCounter& received) const;
    /// Connects a service, and a client that requests it.
    /// @return makes one request: subscribes for the reply, sends the request at QoS 2, waits for
    ///         the reply at QoS 2, unsubscribes
    virtual Action makeRequester(int port) const;
};

/// Bare libmosquittopp, used as its manual suggests: a derived class and the library's thread.
std::unique_ptr<ClientLibrary> rawLibrary(char const* name = "raw");
/// The same with a thread of its own that acknowledges at once whatever it has read.
std::unique_ptr<ClientLibrary> rawLibraryWithPromptAcknowledgements();
/// mqtt::MqttClient.
std::unique_ptr<ClientLibrary> ourLibrary();
/// Paho's mqtt::async_client. @return nullptr when the build has not found it
std::unique_ptr<ClientLibrary> pahoLibrary();

} // namespace bench
