#pragma once

#include "chaos/random.hpp"
#include "chaos/test_bed.hpp"

#include <chrono>

namespace chaos {

/// Injects random faults for some time.
class FaultInjector {
public:
    explicit FaultInjector(TestBed& testBed) : testBed_(testBed), random_(testBed.seed, "faults") {}

    /// Cuts and delays connections of the proxies, and suspends the broker for moments. Direct
    /// connections to the broker stay.
    void injectCuts(std::chrono::milliseconds duration);
    /// The same, and kills and restarts the broker again and again.
    void injectKills(std::chrono::milliseconds duration);

private:
    struct Fault;

    void injectFault();
    void cutWithinPacket(support::CutProxy& proxy);
    void cutWithinHandshake(support::CutProxy& proxy);
    void cutNow(support::CutProxy& proxy) { proxy.cutNow(); }
    void freezeShortly(support::CutProxy& proxy);
    void freezeBeyondTimeouts(support::CutProxy& proxy);
    void suspendBroker(support::CutProxy& proxy);
    void killBroker();
    void wait(int fromMs, int toMs);
    support::CutProxy::Direction randomDirection();

    TestBed& testBed_;
    Random random_;
};

} // namespace chaos
