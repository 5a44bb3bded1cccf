#pragma once

#include <mqtt/client.hpp>
#include <mqtt/request_reply.hpp>

#include <functional>
#include <string>

/// The members of any JSON object as the payload of a request or a reply. Reads nothing: the whole
/// message is in `RecordedMessages`.
class RawPayload final : public mqtt::RequestReplyData {
public:
    /// @param json an object, or empty for no members
    /// @throws CommandFailed it is no object
    explicit RawPayload(std::string const& json);

    void serialize(zym::common::lwjson::Serializer& out) const override;
    void deserialize(zym::common::lwjson::Deserializer& /*in*/) override {}

private:
    std::string firstKey_;
    std::string rest_; ///< the first value and all further members, as JSON text; empty: none
};

/// Gets the messages of a topic beside those that the library itself reads there. Make it before
/// the object that reads them: it is called first.
class TopicReader final : private mqtt::MqttClient::Subscriber {
public:
    using Function = std::function<void(mqtt::Topic const& topic, std::string const& payload)>;

    /// @param function called on the worker thread
    TopicReader(mqtt::MqttClient& client, mqtt::Topic const& topic, Function function);
    ~TopicReader() override { client_.release(this); }
    TopicReader(TopicReader const&) = delete;
    TopicReader& operator=(TopicReader const&) = delete;

private:
    void onMqttMessage(int /*tag*/, mqtt::Topic const& topic, std::string const& payload) override {
        function_(topic, payload);
    }

    mqtt::MqttClient& client_;
    Function const function_;
};

/// The topic of the replies of a service to a client.
mqtt::Topic replyTopic(mqtt::Topic const& base, zym::common::Uuid const& server,
                       mqtt::Topic const& subPath, std::string const& service,
                       zym::common::Uuid const& client);
