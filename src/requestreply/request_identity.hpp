#pragma once

#include "common/json_members.hpp"
#include "mqtt/request_reply.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <utility>

// How the reply to one request is distinguished from all others.

namespace mqtt {

inline std::int64_t steadyMilliseconds() {
    auto const now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

/// The clock, but never the same number twice in this process: the next client may have the reply
/// topic of one that is destroyed, and must not take a late reply for its own.
inline std::uint32_t nextRequestId() {
    static std::atomic<std::int64_t> last{0};
    auto before = last.load();
    std::int64_t next = 0;
    do {
        next = std::max(steadyMilliseconds(), before + 1);
    } while (!last.compare_exchange_weak(before, next));
    return static_cast<std::uint32_t>(next);
}

/// What the reply to one request is read into. It reads the payload of that reply only: a second
/// reply to the previous request must not leave its payload in the answer to this one.
class ExpectedReply final : public RequestReplyData {
public:
    ExpectedReply(std::uint32_t requestId, std::shared_ptr<RequestReplyData> payload)
        : requestId_(requestId), payload_(std::move(payload)) {}

    void deserialize(zym::common::lwjson::Deserializer& in) override {
        unsigned int requestId = 0;
        readMember(in, "$reqId", requestId);
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
