#pragma once

#include "chaos/dice.hpp"
#include "chaos/place.hpp"

#include <chrono>

namespace chaos {

/// Breaks things, at random, for a while.
class Storm {
public:
    explicit Storm(Place& place) : place_(place), dice_(place.seed, "storm") {}

    /// Cuts and delays connections, and stops the broker for moments. Nobody who stands straight
    /// at the broker loses his connection.
    void cut(std::chrono::milliseconds duration);
    /// The same, and kills the broker, again and again.
    void kill(std::chrono::milliseconds duration);

private:
    void breakSomething();
    void cutInPacket(support::CutProxy& line);
    void cutInHandshake(support::CutProxy& line);
    void hold(support::CutProxy& line, int fromMilliseconds, int toMilliseconds);
    void stopBroker();
    void killBroker();
    void wait(int fromMilliseconds, int toMilliseconds);
    support::CutProxy::Direction anyWay();

    Place& place_;
    Dice dice_;
};

} // namespace chaos
