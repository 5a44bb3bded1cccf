#include "chaos/storm.hpp"

#include "support/eventually.hpp"

namespace chaos {

using support::CutProxy;
using Clock = std::chrono::steady_clock;

void Storm::cut(std::chrono::milliseconds duration) {
    auto const end = Clock::now() + duration;
    while (Clock::now() < end) {
        breakSomething();
    }
}

void Storm::kill(std::chrono::milliseconds duration) {
    auto const end = Clock::now() + duration;
    place_.kills = true;
    while (Clock::now() < end) {
        killBroker();
        auto const next = Clock::now() + std::chrono::milliseconds(dice_.between(300, 3000));
        while (Clock::now() < next) {
            breakSomething();
        }
    }
}

void Storm::breakSomething() {
    auto& line = *place_.lines[static_cast<std::size_t>(
        dice_.between(0, static_cast<int>(place_.lines.size()) - 1))];
    int const what = dice_.between(1, 100);
    if (what <= 50) {
        cutInPacket(line);
    } else if (what <= 60) {
        cutInHandshake(line);
    } else if (what <= 70) {
        line.cutNow();
    } else if (what <= 85) {
        hold(line, 10, 300);
    } else if (what <= 87) {
        hold(line, 1000, 2500);
    } else if (what <= 94) {
        stopBroker();
    }
    wait(0, 60);
}

void Storm::cutInPacket(CutProxy& line) {
    line.cutCurrentAfter(anyWay(), static_cast<std::size_t>(dice_.between(1, 600)));
    place_.findings.count("storm: cuts in mid-packet ordered");
}

/// In CONNECT, CONNACK, or what is sent anew right after.
void Storm::cutInHandshake(CutProxy& line) {
    line.cutNextAfter(anyWay(), static_cast<std::size_t>(dice_.between(1, 120)));
    line.cutNow();
    place_.findings.count("storm: cuts in a handshake ordered");
}

void Storm::hold(CutProxy& line, int fromMilliseconds, int toMilliseconds) {
    line.freeze();
    wait(fromMilliseconds, toMilliseconds);
    line.thaw();
    place_.findings.count("storm: lines held");
}

void Storm::stopBroker() {
    place_.broker.suspend();
    wait(20, 400);
    place_.broker.resume();
    place_.findings.count("storm: broker stopped and continued");
}

void Storm::killBroker() {
    place_.broker.kill();
    wait(0, 800);
    place_.broker.start();
    place_.findings.count("storm: broker killed and restarted");
}

/// The one thing that is done by the clock: what happens meanwhile is up to the others.
void Storm::wait(int fromMilliseconds, int toMilliseconds) {
    support::eventually([] { return false; },
                        std::chrono::milliseconds(dice_.between(fromMilliseconds, toMilliseconds)));
}

CutProxy::Direction Storm::anyWay() {
    return dice_.percent(50) ? CutProxy::Direction::TO_SERVER : CutProxy::Direction::TO_CLIENT;
}

} // namespace chaos
