// What may happen to the numbers of one topic, by MQTT and by the limits of the library; all else
// is a breach.
//
// A gap:
// - the subscriber was away itself: subscriptions are made at QoS 0;
// - at QoS 0, where the publisher's connection broke;
// - at QoS 2 in a clean session, the same, 20 for each connection: lost past PUBREC.
//
// The same number again:
// - on a retained topic, once after the subscriber was away.
//
// Earlier numbers again:
// - at QoS 1, the up to 20 that had no PUBACK, in order, once for each connection.

#include "chaos/stream.hpp"

#include <algorithm>

namespace chaos {

namespace {

/// What libmosquitto has on its way without acknowledgement at most.
constexpr std::uint64_t WINDOW = 20;

/// Of a subscriber with a session that was away, for each time; two, and as many again if a further
/// connection broke before anything came of it.
constexpr unsigned GAPS = 4;

} // namespace

void Follower::see(std::uint64_t number, unsigned away) {
    findings_.count("values received");
    auto const last = last_.load();
    if (number == 0 || number > stream_.published()) {
        breach("came, which nobody has published", number);
    } else if (number == last + 1)
        ; // As it should be.
    else if (number > last) {
        seeAhead(number, away);
    } else {
        seeAgain(number, away);
    }
    awayAtLast_ = away;
    last_ = number;
    highest_ = std::max(highest_, number);
}

/// To a session that it keeps the broker sends first what it could not write to the connection
/// before: a gap comes in front of that, for what that connection has swallowed, and another one
/// behind it.
bool Follower::wasAway(unsigned away) {
    if (away != awayAtGap_) {
        awayAtGap_ = away;
        gaps_ = 0;
    }
    return last_ == 0 || away != awayAtLast_ || (session_ && away != 0 && ++gaps_ <= GAPS);
}

void Follower::seeAhead(std::uint64_t number, unsigned away) {
    auto const missing = number - last_ - 1;
    bool const publisherBroke = stream_.brokenAt() >= number - 1;
    if (wasAway(away)) {
        findings_.count("lost: sent while the subscriber was away", missing);
    } else if (stream_.manner().qos == 0 && publisherBroke) {
        findings_.count("lost: QoS 0, with the publisher's connection", missing);
    } else if (stream_.manner().qos == 2 && !stream_.manner().persistent && publisherBroke) {
        findings_.count("lost: QoS 2 past PUBREC in a clean session", missing);
        dropped_ += missing;
        if (dropped_ > WINDOW * stream_.reconnections()) {
            breach("more lost than was under way", number);
        }
    } else {
        breach(std::to_string(missing) + " lost before", number);
    }
}

void Follower::seeAgain(std::uint64_t number, unsigned away) {
    if (number == last_ && stream_.manner().retained && away != awayAtRepeat_) {
        awayAtRepeat_ = away;
        findings_.count("again: the retained value, for a subscriber that was away");
    } else if (stream_.manner().qos == 1 && stream_.brokenAt() >= number
               && number + WINDOW > highest_ && ++runs_ <= stream_.reconnections()) {
        findings_.count("again: QoS 1, without PUBACK when the connection broke",
                        last_ - number + 1);
    } else {
        breach("came again or late", number);
    }
}

void Follower::breach(std::string const& what, std::uint64_t number) {
    findings_.breach(who_ + ", " + stream_.topic() + ": " + what + ": " + std::to_string(number)
                     + " (after " + std::to_string(last_) + ", highest " + std::to_string(highest_)
                     + ", published " + std::to_string(stream_.published())
                     + ", publisher came anew " + std::to_string(stream_.reconnections())
                     + " times, lost its connection at " + std::to_string(stream_.brokenAt())
                     + ")");
}

} // namespace chaos
