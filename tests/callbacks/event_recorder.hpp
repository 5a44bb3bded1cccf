#pragma once

#include "mqtt/test/recorder.hpp"
#include "requestreply/sample_data.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/link.hpp>
#include <mqtt/request_reply.hpp>
#include <mqtt/time_base.hpp>
#include <mqtt/topic_cleaner.hpp>

#include <algorithm>
#include <memory>
#include <string>

/// A listener of every kind that records its calls as short texts: "message a/b", "value x",
/// "state 2", "request", "reply 1", "synchronized", "bound 0", "unbound 0", "cleaned a/b",
/// "all cleaned", "timer". Declare it before the clients.
class EventRecorder final : public mqtt::test::CallRecorder<std::string>,
                            public mqtt::MqttClient::Subscriber,
                            public mqtt::MqttClient::Listener,
                            public mqtt::MqttData<mqtt::Link>::Subscriber,
                            public mqtt::RequestReplyClient::Listener,
                            public mqtt::RequestReplyServer::Listener,
                            public zym::common::SynchronizedTimeBaseProxy::Listener,
                            public zym::common::BinderProxy::Listener,
                            public mqtt::TopicCleaner::Listener {
public:
    using Uuid = zym::common::Uuid;

    using CallRecorder::record;
    void record(std::string const& event, int code) { record(event + " " + std::to_string(code)); }

    std::size_t count(std::string const& event) const {
        return entries_.read([&](Entries const& events) { return countIn(events, event); });
    }
    bool waitFor(std::string const& event, std::size_t times = 1) const {
        return entries_.waitFor([&](Entries const& all) { return countIn(all, event) >= times; });
    }

    void onMqttMessage(int, mqtt::Topic const& topic, std::string const&) override {
        record("message " + topic.text());
    }
    void onComStateChanged(conv::ComState state) override {
        record("state", static_cast<int>(state));
    }
    void onMqttData(mqtt::Link const& link, bool, int) override { record("value " + link.id); }
    void onReply(unsigned int, std::string const&, Uuid const&, Uuid const&,
                 mqtt::RequestReplyData const&, mqtt::RequestReply::ErrorCode error) override {
        record("reply", static_cast<int>(error));
    }
    std::shared_ptr<mqtt::RequestReplyData> onRequest(std::string const&, Uuid const&, Uuid const&,
                                                      mqtt::RequestReplyData const&,
                                                      mqtt::RequestReply::ErrorCode&) override {
        record("request");
        return std::make_shared<NumberData>(7);
    }
    void onTimeSynchronized() override { record("synchronized"); }
    void onBound(zym::common::Binder::Error error) override {
        record("bound", static_cast<int>(error));
    }
    void onUnbound(zym::common::Binder::Error error) override {
        record("unbound", static_cast<int>(error));
    }
    void onTopicCleaned(mqtt::Topic const& topic) override { record("cleaned " + topic.text()); }
    void onAllTopicsCleaned() override { record("all cleaned"); }

private:
    static std::size_t countIn(Entries const& events, std::string const& event) {
        return static_cast<std::size_t>(std::count(events.begin(), events.end(), event));
    }
};
