#pragma once

#include "tally.hpp"

#include <memory>
#include <string>

namespace bench {

/// One connection that publishes on one topic.
class Publisher {
public:
    virtual ~Publisher() = default;
    virtual void publish(std::string const& payload, int qos) = 0;
    /// Returns when the broker has acknowledged.
    virtual void publishAndWait(std::string const& payload, int qos) = 0;
};

/// One connection that counts the messages of one topic for as long as it lives.
class Subscriber {
public:
    virtual ~Subscriber() = default;
};

/// Two connections: one asks, the other answers every question. Both speak at QoS 2.
class Dialogue {
public:
    virtual ~Dialogue() = default;
    /// Asks so many questions in a row and returns when all the answers have come.
    virtual void ask(std::string const& payload, unsigned count) = 0;
    /// Asks once, after having given up the subscription for the answers and made it anew:
    /// so do requests that subscribe for their reply.
    virtual void askAnew(std::string const& payload) = 0;
};

/// One client that comes and goes.
class Caller {
public:
    virtual ~Caller() = default;
    /// Returns when the broker has consented.
    virtual void connect() = 0;
    virtual void disconnect() = 0;
};

/// The typed values that throughput is measured with: a short one, and the longest of all. Their
/// readers take every text, so that a probe gets through.
enum class Document { COMMUNICATION, IDENTIFICATION };

/// One connection that publishes values of one type on one topic, at QoS 2 and retained.
class ValuePublisher {
public:
    virtual ~ValuePublisher() = default;
    virtual void publish() = 0;
};

/// Two connections: one makes requests of a service, the other one answers them.
class Requester {
public:
    virtual ~Requester() = default;
    /// One exchange: subscribes for the reply, sends the request, waits for the reply and gives
    /// the subscription up.
    virtual void request() = 0;
};

/// One of the clients that are compared. Everything it makes is connected to the broker on
/// the given port of the loopback interface, and raises std::runtime_error when an operation
/// fails: a comparison of which one side failed shows nothing.
class Party {
public:
    virtual ~Party() = default;
    virtual char const* name() const = 0;
    /// Whether what a client's threads use is used for this client.
    virtual bool hasThreadsOfItsOwn() const { return true; }
    virtual std::unique_ptr<Publisher> makePublisher(int port, std::string const& topic) = 0;
    /// The subscription stands when this returns; the tally is then at 0.
    virtual std::unique_ptr<Subscriber> makeSubscriber(int port, std::string const& topic,
                                                       Tally& received) = 0;
    virtual std::unique_ptr<Dialogue> makeDialogue(int port, std::string const& question,
                                                   std::string const& answer) = 0;
    virtual std::unique_ptr<Caller> makeCaller(int port) = 0;
    /// @param topic what the topic of the values begins with
    virtual std::unique_ptr<ValuePublisher> makeValuePublisher(int port, std::string const& topic,
                                                               Document document) = 0;
    /// The subscription stands when this returns; the tally is then at 0.
    virtual std::unique_ptr<Subscriber> makeValueSubscriber(int port, std::string const& topic,
                                                            Document document, Tally& received) = 0;
    virtual std::unique_ptr<Requester> makeRequester(int port) = 0;
};

/// Bare libmosquittopp, used as its manual suggests: a derived class and its own thread.
std::unique_ptr<Party> makeRawParty();
/// mqtt::MqttClient.
std::unique_ptr<Party> makeOurParty();
/// Paho's C++ library, used as its manual suggests: mqtt::async_client with a callback for
/// messages.
/// @return nullptr when it was not there to build with
std::unique_ptr<Party> makePahoParty();

constexpr char const* BROKER_HOST = "127.0.0.1";
/// What the subscribers send themselves to learn that their subscription stands. Not answered:
/// a late answer would be taken for that to the first question.
constexpr char const* PROBE = "probe";

} // namespace bench
