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

/// Two connected clients: one asks on one topic, the other one answers each request on another
/// topic. Requests and replies are always the same text, at QoS 2.
class Dialogue {
public:
    struct Texts {
        std::string requestTopic;
        std::string replyTopic;
        std::string request;
        std::string reply;
    };

    /// The asking client is not subscribed to the replies yet.
    Dialogue(ClientLibrary const& library, int port, Texts texts);

    void subscribe() { requester_->subscribe(replyTopic_); }
    void unsubscribe() { requester_->unsubscribe(replyTopic_); }
    /// Sends so many requests in a row, and returns when all replies have come.
    void ask(unsigned count);

private:
    void answer(std::string_view request);

    Texts const texts_;
    MessageCounter probes_;
    MessageCounter replies_;
    std::unique_ptr<BenchmarkClient> const responder_;
    std::unique_ptr<BenchmarkClient> const requester_;
    BenchmarkClient::TopicId const responderReplyTopic_;
    BenchmarkClient::TopicId const requestTopic_;
    BenchmarkClient::TopicId const replyTopic_;
};

} // namespace bench
