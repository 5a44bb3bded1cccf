#pragma once

#include "benchmark_client.hpp"
#include "message_counter.hpp"

#include <memory>
#include <string>

namespace bench {

/// What a subscriber publishes on its own topic, to learn that its subscription is in force.
constexpr char const* PROBE = "probe";

/// A connected client that counts the messages of one topic. The subscription is in force and the
/// count is 0 when this returns.
std::shared_ptr<BenchmarkClient> makeCountingSubscriber(ClientLibrary const& library, int port,
                                                        std::string const& topic,
                                                        MessageCounter& received);

/// Answers each message of one topic with a text on another topic, at QoS 2.
class Responder {
public:
    Responder(ClientLibrary const& library, int port, std::string const& requestTopic,
              std::string const& replyTopic, std::string reply);

private:
    MessageCounter probes_;
    std::string const reply_;
    std::unique_ptr<BenchmarkClient> const client_;
    BenchmarkClient::TopicId const replyTopic_;
};

/// A client that asks, and a Responder that answers.
class Dialogue {
public:
    /// @param staysSubscribed whether the subscription for the answers is made now
    Dialogue(ClientLibrary const& library, int port, std::string const& requestTopic,
             std::string const& replyTopic, std::string request, std::string reply,
             bool staysSubscribed);

    /// Sends so many requests in a row, at QoS 2, and returns when all replies have come.
    void ask(unsigned count);
    void subscribe() { client_->subscribe(replyTopic_); }
    void unsubscribe() { client_->unsubscribe(replyTopic_); }

private:
    MessageCounter replies_;
    std::string const request_;
    Responder const responder_;
    std::unique_ptr<BenchmarkClient> const client_;
    BenchmarkClient::TopicId const requestTopic_;
    BenchmarkClient::TopicId const replyTopic_;
};

} // namespace bench
