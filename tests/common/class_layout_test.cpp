// The virtual tables of all public classes of libzym-mqtt.

#include "mqtt/mosquittopp.hpp"

#include "common/class_layouts.hpp"

#include <gtest/gtest.h>

namespace {

char const* const ENDPOINT_OVERRIDES = R"(
    using Base::Base;
    ~Derived() override;
    void getPublishTopic(mqtt::Topic&) override;
    void getSubscribeTopic(mqtt::Topic&) override;
    void deserialize(mqtt::Topic const&, std::string const&, bool) override;
    void serialize(mqtt::Topic const&, std::string&) const override;
    void notify(bool, int, Lock&) override;
)";

VirtualTable const ENDPOINT{"mqtt::MqttDataBase::onMqttMessage",
                            "~",
                            "~",
                            "getPublishTopic",
                            "getSubscribeTopic",
                            "deserialize",
                            "serialize",
                            "notify"};

std::string const OF_THE_BASE = "mqtt::MqttDataBase::";
std::string const OF_A_LINK = "mqtt::MqttData<mqtt::Link>::";
std::string const OF_LINKS = "mqtt::MqttData<std::vector<mqtt::Link> >::";

std::string const OF_MOSQUITTOPP = "mosqpp::mosquittopp::";

// The broker library determines the slots: 2.1 has more functions between those of 2.0.
#if LIBMOSQUITTO_MINOR == 0
VirtualTable const CLIENT{"~",
                          "~",
                          "on_connect",
                          OF_MOSQUITTOPP + "on_connect_with_flags",
                          "on_disconnect",
                          "on_publish",
                          "on_message",
                          "on_subscribe",
                          "on_unsubscribe",
                          "on_log",
                          OF_MOSQUITTOPP + "on_error"};
#else
VirtualTable const CLIENT{"~",
                          "~",
                          OF_MOSQUITTOPP + "on_pre_connect",
                          "on_connect",
                          OF_MOSQUITTOPP + "on_connect_with_flags",
                          OF_MOSQUITTOPP + "on_connect_v5",
                          "on_disconnect",
                          OF_MOSQUITTOPP + "on_disconnect_v5",
                          "on_publish",
                          OF_MOSQUITTOPP + "on_publish_v5",
                          "on_message",
                          OF_MOSQUITTOPP + "on_message_v5",
                          "on_subscribe",
                          OF_MOSQUITTOPP + "on_subscribe_v5",
                          "on_unsubscribe",
                          OF_MOSQUITTOPP + "on_unsubscribe_v5",
                          "on_log",
                          OF_MOSQUITTOPP + "on_error",
                          OF_MOSQUITTOPP + "on_ext_auth"};
#endif

ClassLayout endpoint(std::string const& header, std::string const& className) {
    return {header, className, ENDPOINT_OVERRIDES, {ENDPOINT}};
}

ClassLayout subscriberOf(std::string const& header, std::string const& type) {
    return {header,
            "mqtt::MqttData<" + type + ">::Subscriber",
            "void onMqttData(" + type + " const&, bool, int) override;\n",
            {{"onMqttData"}}};
}

ClassLayout payload(std::string const& header, std::string const& className) {
    return {header, className, "", {{"~", "~", "deserialize", "serialize"}}};
}

ClassLayout destructorOnly(std::string const& header, std::string const& className) {
    return {header, className, "", {{"~", "~"}}};
}

TEST(TheSlots, KeepTheirOrder) {
    expectLayouts({
        {"mqtt/client.hpp", "mqtt::MqttClient", "", {CLIENT}},
        {"mqtt/client.hpp",
         "mqtt::MqttClient::Listener",
         "void onComStateChanged(conv::ComState) override;\n",
         {{"onComStateChanged"}}},
        {"mqtt/client.hpp",
         "mqtt::MqttClient::Subscriber",
         "~Derived() override;\n"
         "void onMqttMessage(int, mqtt::Topic const&, std::string const&) override;\n",
         {{"onMqttMessage", "~", "~"}}},

        {"mqtt/data.hpp",
         "mqtt::MqttDataBase",
         "Derived(mqtt::MqttClient& c) : MqttDataBase(c, mqtt::Topic()) {}\n"
         "~Derived() override;\n"
         "void deserialize(mqtt::Topic const&, std::string const&, bool) override;\n"
         "void serialize(mqtt::Topic const&, std::string&) const override;\n"
         "void notify(bool, int, Lock&) override;\n",
         {{OF_THE_BASE + "onMqttMessage", "~", "~", OF_THE_BASE + "getPublishTopic",
           OF_THE_BASE + "getSubscribeTopic", "deserialize", "serialize", "notify"}}},
        {"mqtt/link.hpp",
         "mqtt::MqttData<mqtt::Link>",
         "using Base::Base;\n~Derived() override;\n",
         {{OF_THE_BASE + "onMqttMessage", "~", "~", OF_A_LINK + "getPublishTopic",
           OF_A_LINK + "getSubscribeTopic", OF_A_LINK + "deserialize", OF_A_LINK + "serialize",
           OF_A_LINK + "notify"}}},
        {"mqtt/link.hpp",
         "mqtt::MqttDataCollection<mqtt::Link>",
         "",
         {{OF_THE_BASE + "onMqttMessage", "~", "~", OF_LINKS + "getPublishTopic",
           OF_LINKS + "getSubscribeTopic", OF_LINKS + "deserialize", OF_LINKS + "serialize",
           OF_LINKS + "notify"}}},
        subscriberOf("mqtt/link.hpp", "mqtt::Link"),

        {"mqtt/request_reply.hpp",
         "mqtt::RequestReplyData",
         "~Derived() override;\n"
         "void deserialize(zym::common::lwjson::Deserializer&) override;\n"
         "void serialize(zym::common::lwjson::Serializer&) const override;\n",
         {{"~", "~", "deserialize", "serialize"}}},
        payload("mqtt/request_reply.hpp", "mqtt::RequestReplyNoData"),
        destructorOnly("mqtt/request_reply.hpp", "mqtt::RequestReply"),
        destructorOnly("mqtt/request_reply.hpp", "mqtt::RequestReply::Request"),
        destructorOnly("mqtt/request_reply.hpp", "mqtt::RequestReply::Reply"),
        endpoint("mqtt/request_reply.hpp", "mqtt::MqttData<mqtt::RequestReply::Request>"),
        endpoint("mqtt/request_reply.hpp", "mqtt::MqttData<mqtt::RequestReply::Reply>"),
        subscriberOf("mqtt/request_reply.hpp", "mqtt::RequestReply::Request"),
        subscriberOf("mqtt/request_reply.hpp", "mqtt::RequestReply::Reply"),
        {"mqtt/request_reply.hpp",
         "mqtt::RequestReplyServer",
         "",
         {{"~", "~", "onMqttData"}, {"onMqttData"}}},
        {"mqtt/request_reply.hpp",
         "mqtt::RequestReplyServer::Listener",
         "std::shared_ptr<mqtt::RequestReplyData> onRequest(std::string const&,\n"
         "    zym::common::Uuid const&, zym::common::Uuid const&, mqtt::RequestReplyData const&,\n"
         "    mqtt::RequestReply::ErrorCode&) override;\n",
         {{"onRequest"}}},
        {"mqtt/request_reply.hpp",
         "mqtt::RequestReplyClient",
         "",
         {{"~", "~", "onMqttData"}, {"onMqttData"}}},
        {"mqtt/request_reply.hpp",
         "mqtt::RequestReplyClient::Listener",
         "void onReply(unsigned int, std::string const&, zym::common::Uuid const&,\n"
         "    zym::common::Uuid const&, mqtt::RequestReplyData const&,\n"
         "    mqtt::RequestReply::ErrorCode) override;\n",
         {{"onReply"}}},

        {"mqtt/time_base.hpp",
         "mqtt::SynchronizedTimeBaseMqttProxy",
         "",
         {{"onReply", "terminate", "~", "~", "startSync", "synchronize", "stop", "forceSync",
           "timeBase", "localTimeBase"},
          {"timeBase", "~", "~", "terminate",
           "zym::common::SynchronizedTimeBaseProxy::registerListener", "startSync", "synchronize",
           "stop", "forceSync", "localTimeBase",
           "zym::common::SynchronizedTimeBaseProxy::notifyListener"}}},
        {"mqtt/time_base.hpp",
         "mqtt::SynchronizedTimeBaseMqttAdaptor",
         "",
         {{"onRequest", "~", "~", "timeBase", "localTimeBase"},
          {"timeBase", "~", "~", "localTimeBase"}}},
        payload("mqtt/time_base.hpp", "mqtt::TimeSyncRequestData"),
        payload("mqtt/time_base.hpp", "mqtt::TimeSyncReplyData"),

        {"mqtt/binder_proxy.hpp",
         "mqtt::BinderMqttProxy",
         "",
         {{"onReply", "terminate", "~", "~", "bindSync", "bind", "unbindSync", "unbind",
           "forceTimeBaseSync", "isTimeBaseSynchronized", "timeBase", "onTimeSynchronized"},
          {"onTimeSynchronized"},
          {"~", "~", "timeBase", "terminate", "bindSync", "bind", "unbindSync", "unbind",
           "forceTimeBaseSync", "isTimeBaseSynchronized"}}},
        payload("mqtt/binder_proxy.hpp", "mqtt::BindRequestData"),

        {"mqtt/service_discoverer.hpp",
         "mqtt::ServiceDiscovererMqtt",
         "",
         {{"onMqttData", "onMqttData"}, {"onMqttData"}}},

        {"mqtt/topic_cleaner.hpp", "mqtt::TopicCleaner", "", {{"onMqttMessage", "~", "~"}}},
        destructorOnly("mqtt/topic_cleaner.hpp", "mqtt::TopicCleaner::Task"),
        {"mqtt/topic_cleaner.hpp",
         "mqtt::TopicCleaner::Listener",
         "void onAllTopicsCleaned() override;\nvoid onTopicCleaned(mqtt::Topic const&) override;\n",
         {{"onTopicCleaned", "onAllTopicsCleaned"}}},
    });
}

} // namespace
