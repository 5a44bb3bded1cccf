#pragma once

#include "settings.hpp"

#include <cstddef>
#include <string>

// What a broker does, tried with the broker library alone. Each probe has connections of its own
// and uses topics below `base`; each answers within some time-outs. Without an answer the result is
// that the broker does not support it.

/// Whether messages travel at this QoS, to the broker and back.
bool supportsQos(Context& context, std::string const& base, int qos);
bool keepsRetained(Context& context, std::string const& base);
/// @param wildcard + or #
bool supportsWildcard(Context& context, std::string const& base, char wildcard);
/// The largest payload that comes back, of those with 1024, 2048, 4096 ... bytes.
std::size_t largestPayload(Context& context, std::string const& base, std::size_t limit);
/// How long an exchange takes in which the broker sends two packets: some 40 ms if it waits with
/// the second one for the acknowledgement of the first.
double exchangeMs(Context& context, std::string const& base, int qos);
/// Whether it answers an UNSUBSCRIBE before a SUBSCRIBE that follows it, and the subscription
/// holds.
bool keepsOrderOfUnsubscribe(Context& context, std::string const& base);
/// Whether it publishes the will of a client whose connection breaks.
bool publishesWill(Context& context, std::string const& base);
/// Whether nothing is retained below `base`.
bool hasNothingRetained(Context& context, std::string const& base);
