#pragma once

#include <mqtt/payloads.hpp>
#include <mqtt/request_reply.hpp>

#include <string>

namespace bench {

conv::CommunicationStatus sampleCommunication();
conv::Identification sampleIdentification();

/// The typed values that are measured: the shortest document and the longest one.
enum class Document { COMMUNICATION, IDENTIFICATION };
/// The topic on which values of a type are published, and the text of the sample value.
std::string valueTopic(std::string const& topic, Document document);
std::string documentText(Document document);

/// The service that is requested: "ask" below this topic, with a nil server identifier.
constexpr char const* SERVICE_BASE = "bench/service";
constexpr char const* SERVICE_NAME = "ask";
constexpr unsigned long long REQUESTER = 4711;

/// What requests and replies carry: a text of 64 bytes.
class Text final : public mqtt::RequestReplyData {
public:
    void serialize(zym::common::lwjson::Serializer& out) const override;
    void deserialize(zym::common::lwjson::Deserializer& in) override;

    std::string text = std::string(64, 'x');
};

mqtt::RequestReply::Reply sampleReply();

/// A request and its reply on the wire.
struct ExchangeTexts {
    std::string requestTopic;
    std::string replyTopic;
    std::string request;
    std::string reply;
};

ExchangeTexts requestAndReply();

} // namespace bench
