#pragma once

#include "settings.hpp"

#include <cstddef>
#include <string>
#include <vector>

// What `zymctl doctor` tries at a broker, on topics below `base`.

/// One thing that a broker does or does not, or one feature of the library on it.
struct Probe {
    char const* object; ///< the member of the result, with a member for each of its probes; or null
    char const* member;
    char const* text; ///< what it is, for people
    bool needsQos2;
    bool needsRetained;
    /// With connections of its own, within some time-outs. Throws or returns false if it does not
    /// work.
    bool (*works)(Context& context, std::string const& base);
};

/// The broker's first, tried with the broker library alone.
std::vector<Probe> const& probes();

/// The largest payload that comes back, of those with 1024, 2048, 4096 ... bytes.
std::size_t largestPayload(Context& context, std::string const& base);

/// How long an exchange takes in which the broker sends two packets: some 40 ms if it waits with
/// the second one for the acknowledgement of the first. Negative: not measured.
double exchangeMs(Context& context, std::string const& base, int qos);

/// Erases what is retained below `base`, also after an interruption.
void erase(Settings const& settings, std::string const& base);
