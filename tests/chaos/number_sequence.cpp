// What may happen to the numbers of one topic, and why it is no violation: docs/chaos.md.

#include "chaos/number_sequence.hpp"

#include <algorithm>

namespace chaos {

namespace {

/// What libmosquitto sends without waiting for acknowledgements.
constexpr std::uint64_t WINDOW = 20;

/// The gaps of a subscriber with a session, for each loss of its connection: two, and as many again
/// when the next connection was lost before anything arrived.
constexpr unsigned GAPS = 4;

} // namespace

void SequenceChecker::check(std::uint64_t number, unsigned losses) {
    report_.count("values received");
    auto const last = last_.load();
    if (number == 0 || number > sequence_.published()) {
        violation("was not published", number);
    } else if (number == last + 1)
        ; // in order
    else if (number > last) {
        checkGap(number, losses);
    } else {
        checkRepetition(number, losses);
    }
    lossesAtLast_ = losses;
    last_ = number;
    highest_ = std::max(highest_, number);
}

/// To a session that it keeps the broker first sends what it could not write to the lost
/// connection: one gap is before that, of what that connection has swallowed, and another one after
/// it.
bool SequenceChecker::wasDisconnected(unsigned losses) {
    if (losses != lossesAtGap_) {
        lossesAtGap_ = losses;
        gaps_ = 0;
    }
    return last_ == 0 || losses != lossesAtLast_ || (session_ && losses != 0 && ++gaps_ <= GAPS);
}

void SequenceChecker::checkGap(std::uint64_t number, unsigned losses) {
    auto const missing = number - last_ - 1;
    bool const publisherLost = sequence_.publishedAtLoss() >= number - 1;
    if (wasDisconnected(losses)) {
        report_.count("lost: sent while the subscriber was disconnected", missing);
    } else if (sequence_.delivery().qos == 0 && publisherLost) {
        report_.count("lost: QoS 0, with the publisher's connection", missing);
    } else if (sequence_.delivery().qos == 2 && !sequence_.delivery().persistent && publisherLost) {
        report_.count("lost: QoS 2 past PUBREC in a clean session", missing);
        dropped_ += missing;
        if (dropped_ > WINDOW * sequence_.reconnections()) {
            violation("more lost than was not acknowledged", number);
        }
    } else {
        violation(std::to_string(missing) + " lost before", number);
    }
}

void SequenceChecker::checkRepetition(std::uint64_t number, unsigned losses) {
    if (number == last_ && sequence_.delivery().retained && losses != lossesAtRepetition_) {
        lossesAtRepetition_ = losses;
        report_.count("again: the retained value, after a reconnection");
    } else if (sequence_.delivery().qos == 1 && sequence_.publishedAtLoss() >= number
               && number + WINDOW > highest_ && ++runs_ <= sequence_.reconnections()) {
        report_.count("again: QoS 1, without PUBACK at the loss of the connection",
                      last_ - number + 1);
    } else {
        violation("came again or too late", number);
    }
}

void SequenceChecker::violation(std::string const& what, std::uint64_t number) {
    report_.check(false, subscriber_ + ", " + sequence_.topic() + ": " + what + ": "
                             + std::to_string(number) + " (after " + std::to_string(last_)
                             + ", highest " + std::to_string(highest_) + ", published "
                             + std::to_string(sequence_.published()) + ", publisher reconnected "
                             + std::to_string(sequence_.reconnections())
                             + " times, last loss of its connection at "
                             + std::to_string(sequence_.publishedAtLoss()) + ")");
}

} // namespace chaos
