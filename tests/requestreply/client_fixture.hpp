#pragma once

#include "mqtt/test/broker.hpp"
#include "mqtt/test/raw_peer.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"
#include "requestreply/blocking_thread.hpp"
#include "requestreply/sample_data.hpp"

#include <mqtt/request_reply.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using Code = mqtt::RequestReply::ErrorCode;

/// An error code that a service defines itself.
constexpr Code SERVICE_ERROR{17};
/// Longer than any test takes, in seconds.
constexpr std::uint32_t LONG_TIMEOUT_S = 3600;
constexpr std::uint32_t NO_TIME_LIMIT = UINT32_MAX;
/// How long a test watches that something does not happen. A correct client never fails by it.
constexpr std::chrono::milliseconds OBSERVATION_TIME{300};

inline std::ostream& operator<<(std::ostream& out, zym::common::Uuid const& id) {
    return out << id.to_string();
}

/// One call of a reply listener.
struct ReplyCall {
    unsigned int requestId;
    std::string name;
    zym::common::Uuid clientUuid;
    zym::common::Uuid serverUuid;
    mqtt::RequestReplyData const* data;
    Code error;
    std::thread::id thread;
};

class ReplyRecorder : public mqtt::RequestReplyClient::Listener,
                      public mqtt::test::CallRecorder<ReplyCall> {
public:
    using CallRecorder::CallRecorder;

    std::vector<Code> errors() const {
        std::vector<Code> errors;
        for (auto const& call : calls()) {
            errors.push_back(call.error);
        }
        return errors;
    }

    void onReply(unsigned int requestId, std::string const& name,
                 zym::common::Uuid const& clientUuid, zym::common::Uuid const& serverUuid,
                 mqtt::RequestReplyData const& data, Code error) override {
        record({requestId, name, clientUuid, serverUuid, &data, error, std::this_thread::get_id()});
    }
};

// Topics and documents of replies, made without the library's code.

/// The topic of the reply to a request on this topic.
inline std::string replyTopicFor(std::string topic) {
    auto const suffix = topic.rfind("?\?/");
    return topic.replace(suffix, 2, "?=");
}

/// The identifier in a message.
inline unsigned int idIn(std::string const& payload) {
    std::string const key = "\"$reqId\": ";
    return static_cast<unsigned int>(std::stoul(payload.substr(payload.find(key) + key.size())));
}

inline std::string replyText(unsigned int requestId, int error, std::string const& members = "") {
    return "{\"$reqId\": " + std::to_string(requestId) + ", \"$err\": " + std::to_string(error)
           + (members.empty() ? "" : ", ") + members + "}";
}

/// Waits until this client has handled everything that was published before, and the broker its
/// subscriptions.
inline void receiveAll(mqtt::MqttClient& client) {
    mqtt::test::MessageRecorder probe;
    auto const topic = "probe/" + mqtt::test::uniqueId().base64URL();
    ASSERT_EQ(client.subscribe(topic, &probe, 0), mqtt::MqttClient::Error::SUCCESS);
    ASSERT_EQ(client.publish(topic, "x", 2, false), mqtt::MqttClient::Error::SUCCESS);
    EXPECT_TRUE(probe.waitForCount(1));
    client.release(&probe);
}

/// An MQTT client on a broker, and a raw peer that receives all messages below svc/.
class SessionOnABroker : public testing::Test {
protected:
    using Uuid = zym::common::Uuid;
    using Messages = mqtt::test::RawPeer::Messages;

    SessionOnABroker() { peer.subscribe("svc/#"); }

    static mqtt::test::BrokerOptions quick() {
        mqtt::test::BrokerOptions options;
        options.nodelay = true;
        return options;
    }

    /// Those with this text in their topic.
    static Messages messagesWith(Messages const& all, std::string const& text) {
        Messages found;
        std::copy_if(all.begin(), all.end(), std::back_inserter(found), [&](auto const& message) {
            return message.topic.find(text) != std::string::npos;
        });
        return found;
    }

    /// All messages below svc/ so far, with those that our client has sent before.
    Messages seen() {
        auto const marker = "svc/marker/" + std::to_string(++markers);
        EXPECT_EQ(mqtt->publish(marker, "x", 2, false), mqtt::MqttClient::Error::SUCCESS);
        EXPECT_TRUE(
            peer.waitFor([&](auto const& all) { return !messagesWith(all, marker).empty(); }));
        Messages messages;
        for (auto const& message : peer.messages()) {
            if (message.topic.rfind("svc/marker/", 0) != 0) {
                messages.push_back(message);
            }
        }
        return messages;
    }

    /// The n-th message with this text in its topic, counted from 1, waiting for it.
    mqtt::test::Message awaitMessage(std::string const& text, std::size_t n) const {
        Messages found;
        EXPECT_TRUE(peer.waitFor([&](auto const& all) {
            found = messagesWith(all, text);
            return found.size() >= n;
        })) << "message "
            << n << " on " << text;
        return found.size() < n ? mqtt::test::Message{"none?\?/", "\"$reqId\": 0"} : found[n - 1];
    }

    /// Replies to a request in place of a server.
    void replyTo(mqtt::test::Message const& request, int code, std::string const& members = "") {
        peer.publish(replyTopicFor(request.topic), replyText(idIn(request.payload), code, members));
    }

    void receiveAll() { ::receiveAll(*mqtt); }

    mqtt::test::Broker broker{quick()};
    mqtt::test::RawPeer peer{broker};
    std::unique_ptr<mqtt::MqttClient> mqtt = mqtt::test::testClient(broker);
    Uuid id = mqtt::test::uniqueId();
    int markers = 0;
};

/// Threads that wait for the end of a client's request.
class WaitingThreads {
public:
    WaitingThreads(mqtt::RequestReplyClient& client, std::uint32_t timeout, std::size_t count = 1)
        : results_(count) {
        for (auto& result : results_) {
            threads_.emplace_back(
                [&client, &result, timeout] { result = client.waitEndOfRequest(timeout); });
        }
        for (auto const& thread : threads_) {
            EXPECT_TRUE(thread.isBlocked());
        }
    }

    /// When all have returned.
    std::vector<Code> const& results() {
        threads_.clear();
        return results_;
    }

private:
    std::vector<Code> results_;
    std::deque<BlockingThread> threads_;
};

/// A client of the service "sync" below svc/time.
class ClientOnABroker : public SessionOnABroker {
protected:
    using Client = mqtt::RequestReplyClient;

    ClientOnABroker() { client = makeClient(); }

    std::unique_ptr<Client> makeClient(std::string const& name = "sync") {
        return std::make_unique<Client>(*mqtt, "svc", "time", name);
    }

    /// Sends a request with the number 7, for a reply that goes to `replyData`.
    Code request(conv::SecondsDuration const& timeout = LONG_TIMEOUT_S) {
        return client->request(&recorder, id, Uuid::NIL, std::make_shared<NumberData>(7), replyData,
                               &requestId, timeout);
    }
    /// Sends a request without a payload.
    Code requestFor(ReplyRecorder* listener,
                    conv::SecondsDuration const& timeout = LONG_TIMEOUT_S) {
        return client->request(listener, id, Uuid::NIL, nullptr, replyData, &requestId, timeout);
    }
    Code requestWait(conv::SecondsDuration const& timeout = LONG_TIMEOUT_S) {
        return client->requestWait(id, Uuid::NIL, std::make_shared<NumberData>(7), replyData,
                                   timeout);
    }
    void expectStillPending() {
        EXPECT_EQ(client->request(nullptr, id, Uuid::NIL, nullptr, nullptr, nullptr, 0),
                  Code::BUSY);
    }

    std::string requestTopic() const { return "svc/time/sync?\?/" + id.base64URL(); }
    std::string replyTopic() const { return "svc/time/sync?=/" + id.base64URL(); }

    /// Returns when the broker has our last request, and the subscription before it.
    void awaitRequest() {
        EXPECT_TRUE(peer.waitFor([&](auto const& all) {
            auto const requests = messagesWith(all, "?\?/");
            return std::any_of(requests.begin(), requests.end(), [&](auto const& message) {
                return idIn(message.payload) == requestId;
            });
        }));
    }

    void reply(std::string const& payload) {
        awaitRequest();
        peer.publish(replyTopic(), payload);
    }
    /// To our last request.
    void reply(int code, std::string const& members = "") {
        reply(replyText(requestId, code, members));
    }

    ReplyRecorder recorder;
    std::shared_ptr<NumberData> replyData = std::make_shared<NumberData>();
    unsigned int requestId = 0;
    std::unique_ptr<Client> client;
};
