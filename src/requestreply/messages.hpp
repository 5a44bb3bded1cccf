#pragma once

#include "mqtt/request_reply.hpp"

namespace mqtt {

/// What the topics of all requests begin with: base, server, sub-path and the name's segment. The
/// client's segment follows, or a wildcard in its place.
Topic requestPrefix(Topic const& base, RequestReply::Request const& request);

} // namespace mqtt
