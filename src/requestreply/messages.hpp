#pragma once

#include "mqtt/request_reply.hpp"

namespace mqtt {

/// The common beginning of the topics of all requests: base, server, sub-path and the name's
/// segment. The client's segment follows, or a wildcard.
Topic requestPrefix(Topic const& base, RequestReply::Request const& request);

} // namespace mqtt
