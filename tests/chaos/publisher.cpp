#include "chaos/publisher.hpp"

#include <algorithm>
#include <cstdlib>

namespace chaos {

namespace {

/// How far a publisher may be ahead of the direct subscribers.
constexpr std::uint64_t MAX_AHEAD = 400;

/// A payload with a number, of any length: some need several TCP segments. Its end shows whether it
/// is complete.
std::string payloadWith(std::uint64_t number, Random& random) {
    int const length = random.percent(2) ? random.between(2000, 20000) : random.between(0, 120);
    return std::to_string(number) + ' ' + std::string(static_cast<std::size_t>(length), '.') + ' '
           + std::to_string(length);
}

} // namespace

std::uint64_t numberIn(std::string const& payload) {
    auto const first = payload.find(' ');
    auto const last = payload.rfind(' ');
    bool const complete =
        first != last && last - first - 1 == std::strtoull(payload.c_str() + last + 1, nullptr, 10);
    return complete ? std::strtoull(payload.c_str(), nullptr, 10) : 0;
}

Publisher::Publisher(TestBed& on, std::string const& name, Sequences const& sequences)
    : Worker(on, name, 20),
      sequences_(sequences),
      client_(testBed.newClient({sequences.front()->delivery().persistent})) {
    for (NumberSequence* const sequence : sequences_) {
        sequence->usesProxy(*testBed.proxies.back());
    }
    client_->registerListener(this);
}

bool Publisher::step() {
    auto const tooFarAhead = [](NumberSequence const* sequence) {
        return sequence->notArrived() > MAX_AHEAD;
    };
    for (int n = random.between(1, 8); n > 0; --n) {
        if (std::any_of(sequences_.begin(), sequences_.end(), tooFarAhead)) {
            break;
        }
        auto const last = static_cast<int>(sequences_.size()) - 1;
        publishNext(*sequences_[static_cast<std::size_t>(random.between(0, last))]);
        count("values published");
    }
    return true;
}

void Publisher::publishOnce() {
    for (NumberSequence* const sequence : sequences_) {
        publishNext(*sequence);
    }
}

void Publisher::publishNext(NumberSequence& sequence) {
    client_->publish(sequence.topic(), payloadWith(sequence.next(), random),
                     sequence.delivery().qos, sequence.delivery().retained);
}

void Publisher::onComStateChanged(conv::ComState state) {
    if (state == conv::ComState::CONNECTION_LOST) {
        count("connections lost by publishers");
        for (NumberSequence* const sequence : sequences_) {
            sequence->publisherLostConnection();
        }
    }
}

} // namespace chaos
