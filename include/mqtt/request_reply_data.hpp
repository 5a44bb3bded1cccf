#pragma once

#include "mqtt/export.hpp"

#include <zym/common/lwjson.hpp>

namespace mqtt {

/// The payload of a request or a reply: members of its own in the JSON object of the message.
///
/// Held by shared pointers. A server reads all requests into one object, a client reads each reply
/// into the object given to `request`; both on the MQTT client's worker thread. The members
/// "$reqId" and "$err" belong to the envelope; of a repeated key the first one counts, so a payload
/// cannot change them.
class ZYM_MQTT_EXPORT RequestReplyData {
public:
    RequestReplyData() = default;
    RequestReplyData(RequestReplyData const&) = default;
    RequestReplyData& operator=(RequestReplyData const&) = default;
    virtual ~RequestReplyData();
    /// Reads the payload's members.
    /// @throws std::exception a request is then dropped, a reply still delivered
    virtual void deserialize(zym::common::lwjson::Deserializer& in) = 0;
    /// Appends the payload's members, keys and values.
    virtual void serialize(zym::common::lwjson::Serializer& out) const = 0;
};

} // namespace mqtt
