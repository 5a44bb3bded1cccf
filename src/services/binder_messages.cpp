// The payload of a request for a binding, and what the codes of replies mean for it.

#include "common/json_members.hpp"
#include "mqtt/binder_proxy.hpp"

namespace mqtt {

namespace {

using zym::common::Binder;
using ErrorCode = RequestReply::ErrorCode;

constexpr char TOPIC[] = "topic";

} // namespace

BindRequestData::~BindRequestData() = default;

void BindRequestData::deserialize(zym::common::lwjson::Deserializer& in) {
    std::string text;
    readMember(in, TOPIC, text);
    topic = Topic(text);
}

void BindRequestData::serialize(zym::common::lwjson::Serializer& out) const {
    appendMember(out, TOPIC, topic.text());
}

Binder::Error BinderMqttProxy::requestReplyToBinderError(ErrorCode code) {
    switch (code) {
    case ErrorCode::SUCCESS:
        return Binder::Error::SUCCESS;
    case ErrorCode::NO_SERVER:
    case ErrorCode::NO_LISTENER:
        return Binder::Error::NO_SERVER;
    case ErrorCode::TIMEOUT:
        return Binder::Error::TIMEOUT;
    case ErrorCode::BUSY:
        return Binder::Error::BUSY;
    case ErrorCode::CANCELLED:
        return Binder::Error::CANCELLED;
    default:
        break;
    }
    if (code < ErrorCode::APPLICATION) {
        return Binder::Error::FAILED;
    }
    auto const offset = static_cast<std::uint8_t>(ErrorCode::APPLICATION);
    return static_cast<Binder::Error>(static_cast<std::uint8_t>(code) - offset);
}

} // namespace mqtt
