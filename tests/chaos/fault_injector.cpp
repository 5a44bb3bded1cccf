#include "chaos/fault_injector.hpp"

#include "support/eventually.hpp"

namespace chaos {

using support::CutProxy;
using Clock = std::chrono::steady_clock;

struct FaultInjector::Fault {
    int percent; ///< how often it is chosen; otherwise there is no fault
    char const* name;
    void (FaultInjector::*inject)(CutProxy&);
};

void FaultInjector::injectFault() {
    static constexpr Fault FAULTS[] = {
        {50, "cuts within a packet ordered", &FaultInjector::cutWithinPacket},
        {10, "cuts within a handshake ordered", &FaultInjector::cutWithinHandshake},
        {10, "connections cut at once", &FaultInjector::cutNow},
        {15, "connections frozen", &FaultInjector::freezeShortly},
        {2, "connections frozen for seconds", &FaultInjector::freezeBeyondTimeouts},
        {7, "broker suspended and resumed", &FaultInjector::suspendBroker},
    };
    auto const last = static_cast<int>(testBed_.proxies.size()) - 1;
    auto& proxy = *testBed_.proxies[static_cast<std::size_t>(random_.between(0, last))];
    int chosen = random_.between(1, 100);
    for (Fault const& fault : FAULTS) {
        if (chosen > 0 && chosen <= fault.percent) {
            (this->*fault.inject)(proxy);
            testBed_.report.count(std::string("faults: ") + fault.name);
        }
        chosen -= fault.percent;
    }
    wait(0, 60);
}

void FaultInjector::injectCuts(std::chrono::milliseconds duration) {
    auto const end = Clock::now() + duration;
    while (Clock::now() < end) {
        injectFault();
    }
}

void FaultInjector::injectKills(std::chrono::milliseconds duration) {
    auto const end = Clock::now() + duration;
    testBed_.brokerIsKilled = true;
    while (Clock::now() < end) {
        killBroker();
        injectCuts(std::chrono::milliseconds(random_.between(300, 3000)));
    }
}

void FaultInjector::cutWithinPacket(CutProxy& proxy) {
    proxy.cutCurrentAfter(randomDirection(), static_cast<std::size_t>(random_.between(1, 600)));
}

/// In CONNECT, CONNACK, or the packets that follow at once.
void FaultInjector::cutWithinHandshake(CutProxy& proxy) {
    proxy.cutNextAfter(randomDirection(), static_cast<std::size_t>(random_.between(1, 120)));
    proxy.cutNow();
}

void FaultInjector::freezeShortly(CutProxy& proxy) {
    proxy.freeze();
    wait(10, 300);
    proxy.thaw();
}

void FaultInjector::freezeBeyondTimeouts(CutProxy& proxy) {
    proxy.freeze();
    wait(1000, 2500);
    proxy.thaw();
}

void FaultInjector::suspendBroker(CutProxy& /*proxy*/) {
    testBed_.broker.suspend();
    wait(20, 400);
    testBed_.broker.resume();
}

void FaultInjector::killBroker() {
    testBed_.broker.kill();
    wait(0, 800);
    testBed_.broker.start();
    testBed_.report.count("faults: broker killed and restarted");
}

/// Only the length of a fault is a matter of time: the workers go on meanwhile.
void FaultInjector::wait(int fromMs, int toMs) {
    support::eventually([] { return false; },
                        std::chrono::milliseconds(random_.between(fromMs, toMs)));
}

CutProxy::Direction FaultInjector::randomDirection() {
    return random_.percent(50) ? CutProxy::Direction::TO_SERVER : CutProxy::Direction::TO_CLIENT;
}

} // namespace chaos
