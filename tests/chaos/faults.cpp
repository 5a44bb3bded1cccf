#include "chaos/faults.hpp"

#include "mqtt/test/eventually.hpp"

namespace chaos {

namespace {

using mqtt::test::CutProxy;
using Clock = std::chrono::steady_clock;

/// Only the length of a fault is a matter of time: the workers go on meanwhile.
void wait(Random& random, int fromMs, int toMs) {
    mqtt::test::eventually([] { return false; },
                           std::chrono::milliseconds(random.between(fromMs, toMs)));
}

CutProxy::Direction anyDirection(Random& random) {
    return random.percent(50) ? CutProxy::Direction::TO_SERVER : CutProxy::Direction::TO_CLIENT;
}

void cutWithinPacket(TestBed& /*testBed*/, Random& random, CutProxy& proxy) {
    auto const direction = anyDirection(random);
    proxy.cutCurrentAfter(direction, static_cast<std::size_t>(random.between(1, 600)));
}

/// In CONNECT, CONNACK, or the packets that follow at once.
void cutWithinHandshake(TestBed& /*testBed*/, Random& random, CutProxy& proxy) {
    auto const direction = anyDirection(random);
    proxy.cutNextAfter(direction, static_cast<std::size_t>(random.between(1, 120)));
    proxy.cutNow();
}

void cutNow(TestBed& /*testBed*/, Random& /*random*/, CutProxy& proxy) {
    proxy.cutNow();
}

template <int FROM_MS, int TO_MS>
void freeze(TestBed& /*testBed*/, Random& random, CutProxy& proxy) {
    proxy.freeze();
    wait(random, FROM_MS, TO_MS);
    proxy.thaw();
}

void suspendBroker(TestBed& testBed, Random& random, CutProxy& /*proxy*/) {
    testBed.broker.suspend();
    wait(random, 20, 400);
    testBed.broker.resume();
}

struct Fault {
    int percent; ///< how often it is chosen; otherwise there is no fault
    char const* name;
    void (*inject)(TestBed&, Random&, CutProxy&);
};

constexpr Fault FAULTS[] = {
    {50, "cuts within a packet ordered", cutWithinPacket},
    {10, "cuts within a handshake ordered", cutWithinHandshake},
    {10, "connections cut at once", cutNow},
    {15, "connections frozen", freeze<10, 300>},
    {2, "connections frozen for seconds", freeze<1000, 2500>}, // beyond time-outs
    {7, "broker suspended and resumed", suspendBroker},
};

void injectFault(TestBed& testBed, Random& random) {
    auto& proxy = *random.oneOf(testBed.proxies);
    int chosen = random.between(1, 100);
    for (Fault const& fault : FAULTS) {
        if (chosen > 0 && chosen <= fault.percent) {
            fault.inject(testBed, random, proxy);
            testBed.report.count(std::string("faults: ") + fault.name);
        }
        chosen -= fault.percent;
    }
    wait(random, 0, 60);
}

} // namespace

void injectCuts(TestBed& testBed, Random& random, std::chrono::milliseconds duration) {
    auto const end = Clock::now() + duration;
    while (Clock::now() < end) {
        injectFault(testBed, random);
    }
}

void injectKills(TestBed& testBed, Random& random, std::chrono::milliseconds duration) {
    auto const end = Clock::now() + duration;
    testBed.brokerIsKilled = true;
    while (Clock::now() < end) {
        testBed.broker.kill();
        wait(random, 0, 800);
        testBed.broker.start();
        testBed.report.count("faults: broker killed and restarted");
        injectCuts(testBed, random, std::chrono::milliseconds(random.between(300, 3000)));
    }
}

} // namespace chaos
