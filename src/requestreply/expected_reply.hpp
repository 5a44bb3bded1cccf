#pragma once

#include "mqtt/request_reply.hpp"

#include <cstdint>
#include <memory>
#include <utility>

namespace mqtt {

/// What the reply to one request is read into. It reads the payload of that reply only: a second
/// reply to the previous request must not leave its payload in the answer to this one.
class ExpectedReply final : public RequestReplyData {
public:
    ExpectedReply(std::uint32_t requestId, std::shared_ptr<RequestReplyData> payload)
        : requestId_(requestId), payload_(std::move(payload)) {}

    void deserialize(zym::common::lwjson::Deserializer& in) override {
        unsigned int requestId = 0;
        zym::common::lwjson::Deserializer::extractValue(in.getMember("$reqId"), requestId, "");
        if (requestId == requestId_ && payload_) {
            payload_->deserialize(in);
        }
    }
    void serialize(zym::common::lwjson::Serializer& /*out*/) const override {}

private:
    std::uint32_t const requestId_;
    std::shared_ptr<RequestReplyData> const payload_;
};

} // namespace mqtt
