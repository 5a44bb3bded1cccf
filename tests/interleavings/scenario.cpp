#include "interleavings/scenario.hpp"

#include "support/allocations.hpp"

namespace interleavings {

void Scene::pause() const {
    if (pauses_) {
        pass(std::chrono::milliseconds(2));
    }
}

void Scene::pass(std::chrono::milliseconds time) {
    auto& scheduler = Scheduler::instance();
    static_cast<void>(scheduler.block(State::ASLEEP, nullptr,
                                      scheduler.now() + std::chrono::nanoseconds(time).count()));
}

void Scene::expect(bool holds, char const* what) {
    if (!holds) {
        Scheduler::instance().fail(what);
    }
}

bool Scene::maybe() {
    return Scheduler::instance().pick(2) != 0;
}

bool Scene::Shortage::refusesMemory() {
    support::UncountedAllocations const ours;
    return on && Scheduler::instance().refuses(NO_MEMORY);
}

std::vector<Scenario>& scenarios() {
    static std::vector<Scenario> all;
    return all;
}

} // namespace interleavings
