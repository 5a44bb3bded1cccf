#include "chaos/fault_injector.hpp"

#include "support/eventually.hpp"

namespace chaos {

using support::CutProxy;
using Clock = std::chrono::steady_clock;

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
        auto const next = Clock::now() + std::chrono::milliseconds(random_.between(300, 3000));
        while (Clock::now() < next) {
            injectFault();
        }
    }
}

void FaultInjector::injectFault() {
    auto& proxy = *testBed_.proxies[static_cast<std::size_t>(
        random_.between(0, static_cast<int>(testBed_.proxies.size()) - 1))];
    int const what = random_.between(1, 100);
    if (what <= 50) {
        cutWithinPacket(proxy);
    } else if (what <= 60) {
        cutWithinHandshake(proxy);
    } else if (what <= 70) {
        proxy.cutNow();
    } else if (what <= 85) {
        freeze(proxy, 10, 300);
    } else if (what <= 87) {
        freeze(proxy, 1000, 2500);
    } else if (what <= 94) {
        suspendBroker();
    }
    wait(0, 60);
}

void FaultInjector::cutWithinPacket(CutProxy& proxy) {
    proxy.cutCurrentAfter(randomDirection(), static_cast<std::size_t>(random_.between(1, 600)));
    testBed_.report.count("faults: cuts within a packet ordered");
}

/// In CONNECT, CONNACK, or the packets that follow at once.
void FaultInjector::cutWithinHandshake(CutProxy& proxy) {
    proxy.cutNextAfter(randomDirection(), static_cast<std::size_t>(random_.between(1, 120)));
    proxy.cutNow();
    testBed_.report.count("faults: cuts within a handshake ordered");
}

void FaultInjector::freeze(CutProxy& proxy, int fromMilliseconds, int toMilliseconds) {
    proxy.freeze();
    wait(fromMilliseconds, toMilliseconds);
    proxy.thaw();
    testBed_.report.count("faults: connections frozen");
}

void FaultInjector::suspendBroker() {
    testBed_.broker.suspend();
    wait(20, 400);
    testBed_.broker.resume();
    testBed_.report.count("faults: broker suspended and resumed");
}

void FaultInjector::killBroker() {
    testBed_.broker.kill();
    wait(0, 800);
    testBed_.broker.start();
    testBed_.report.count("faults: broker killed and restarted");
}

/// Only the length of a fault is a matter of time: the workers go on meanwhile.
void FaultInjector::wait(int fromMilliseconds, int toMilliseconds) {
    support::eventually([] { return false; }, std::chrono::milliseconds(random_.between(
                                                  fromMilliseconds, toMilliseconds)));
}

CutProxy::Direction FaultInjector::randomDirection() {
    return random_.percent(50) ? CutProxy::Direction::TO_SERVER : CutProxy::Direction::TO_CLIENT;
}

} // namespace chaos
