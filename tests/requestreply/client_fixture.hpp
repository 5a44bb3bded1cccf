#pragma once

#include "requestreply/sample_data.hpp"
#include "support/broker.hpp"
#include "support/raw_peer.hpp"
#include "support/recorder.hpp"
#include "support/test_client.hpp"
#include "support/watched.hpp"

#include <mqtt/request_reply.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <functional>
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

/// A listener that keeps its calls. Declare it before the client.
class ReplyRecorder : public mqtt::RequestReplyClient::Listener {
public:
    using Hook = std::function<void(ReplyCall const&)>;

    /// @param hook called within every call, after that was recorded; it may destroy the recorder
    explicit ReplyRecorder(Hook hook = {}) : hook_(std::make_shared<Hook>(std::move(hook))) {}
    virtual ~ReplyRecorder() = default;

    std::vector<ReplyCall> calls() const { return calls_.copy(); }
    std::size_t count() const { return calls().size(); }
    bool waitForCount(std::size_t count,
                      std::chrono::milliseconds deadline = support::DEADLINE) const {
        return calls_.waitFor([&](auto const& calls) { return calls.size() >= count; }, deadline);
    }
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
        ReplyCall const call{
            requestId, name, clientUuid, serverUuid, &data, error, std::this_thread::get_id()};
        // A thread that waits for this call may destroy the recorder once it is recorded.
        auto const hook = hook_;
        calls_.change([&](auto& calls) { calls.push_back(call); });
        if (*hook) {
            (*hook)(call);
        }
    }

private:
    support::Watched<std::vector<ReplyCall>> calls_;
    std::shared_ptr<Hook> const hook_;
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

/// Answers every request below svc/ without the library's code.
class RawServer {
public:
    /// From the payload of a request to the payloads of its replies.
    using Answer = std::function<std::vector<std::string>(std::string const& request)>;

    RawServer(support::Broker const& broker, Answer answer)
        : answer_(std::move(answer)),
          peer_(broker),
          end_("end-of-server/" + support::uniqueId().to_string()) {
        peer_.subscribe("svc/+/+/+");
        peer_.subscribe(end_);
        thread_ = std::thread([this] { run(); });
    }
    ~RawServer() {
        peer_.post(end_, "now");
        thread_.join();
    }
    RawServer(RawServer const&) = delete;
    RawServer& operator=(RawServer const&) = delete;

private:
    void run() {
        for (std::size_t next = 0;; ++next) {
            support::Message message;
            peer_.waitFor(
                [&](auto const& all) {
                    if (all.size() > next) {
                        message = all[next];
                    }
                    return all.size() > next;
                },
                std::chrono::hours(1));
            if (message.topic == end_) {
                return;
            }
            if (message.topic.find("?\?/") != std::string::npos) {
                for (auto const& reply : answer_(message.payload)) {
                    peer_.post(replyTopicFor(message.topic), reply);
                }
            }
        }
    }

    Answer answer_;
    support::RawPeer peer_;
    std::string end_;
    std::thread thread_;
};

/// An MQTT client on a broker, and a raw peer that receives all messages below svc/.
class SessionOnABroker : public testing::Test {
protected:
    using Uuid = zym::common::Uuid;

    SessionOnABroker() { peer.subscribe("svc/#"); }

    static support::BrokerOptions quick() {
        support::BrokerOptions options;
        options.nodelay = true;
        return options;
    }

    /// Returns when the broker knows all subscriptions of this client, which publishes nothing else
    /// meanwhile.
    static void settle(mqtt::MqttClient& through) {
        EXPECT_EQ(through.publishWait("settled", "", 1, false, 30),
                  mqtt::MqttClient::Error::SUCCESS);
    }

    /// All messages below svc/ so far, with those that our client has sent before.
    support::RawPeer::Messages seen() {
        auto const marker = "svc/marker/" + std::to_string(++markers);
        EXPECT_EQ(mqtt->publish(marker, "x", 2, false), mqtt::MqttClient::Error::SUCCESS);
        EXPECT_TRUE(peer.waitFor(
            [&](auto const& all) { return !all.empty() && all.back().topic == marker; }));
        support::RawPeer::Messages messages;
        for (auto const& message : peer.messages()) {
            if (message.topic.rfind("svc/marker/", 0) != 0) {
                messages.push_back(message);
            }
        }
        return messages;
    }

    /// Waits until our client has handled everything that was published before.
    void receiveAll() {
        support::MessageRecorder probe;
        ASSERT_EQ(mqtt->subscribe("probe", &probe, 0), mqtt::MqttClient::Error::SUCCESS);
        ASSERT_EQ(mqtt->publish("probe", "x", 2, false), mqtt::MqttClient::Error::SUCCESS);
        EXPECT_TRUE(probe.waitForCount(1));
        mqtt->release(&probe);
    }

    support::Broker broker{quick()};
    support::RawPeer peer{broker};
    std::unique_ptr<mqtt::MqttClient> mqtt = support::testClient(broker);
    Uuid id = support::uniqueId();
    int markers = 0;
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

    Code requestWait(conv::SecondsDuration const& timeout = LONG_TIMEOUT_S) {
        return client->requestWait(id, Uuid::NIL, std::make_shared<NumberData>(7), replyData,
                                   timeout);
    }

    std::string requestTopic() const { return "svc/time/sync?\?/" + id.base64URL(); }
    std::string replyTopic() const { return "svc/time/sync?=/" + id.base64URL(); }

    /// Returns when the broker has our last request, and the subscription before it.
    void awaitRequest() {
        EXPECT_TRUE(peer.waitFor([&](auto const& all) {
            return std::any_of(all.begin(), all.end(), [&](auto const& message) {
                return message.topic.find("?\?/") != std::string::npos
                       && idIn(message.payload) == requestId;
            });
        }));
    }

    void reply(std::string const& payload) {
        awaitRequest();
        peer.publish(replyTopic(), payload);
    }

    ReplyRecorder recorder;
    std::shared_ptr<NumberData> replyData = std::make_shared<NumberData>();
    unsigned int requestId = 0;
    std::unique_ptr<Client> client;
};
