#pragma once

#include "interleavings/scheduler.hpp"

#include <chrono>
#include <vector>

namespace interleavings {

/// What a scenario has in its hands.
class Scene {
public:
    Scene(bool pauses, bool mistaken) : pauses_(pauses), mistaken_(mistaken) {}

    /// Whether the scenario is to make its mistake, which the explorer then has to find.
    bool mistaken() const { return mistaken_; }

    /// Two milliseconds in some runs, nothing in others.
    void pause() const;
    /// Lets time pass, and all others go on.
    static void pass(std::chrono::milliseconds time);
    /// Ends the run as a failed one, unless that holds.
    static void expect(bool holds, char const* what);
    /// One of two ways, both of which are explored; false unless exploring.
    static bool maybe();
    /// Another thread may go first.
    static void stop() { Scheduler::instance().point(); }

    /// Choices are made while one of these is there: not in what comes before and after.
    class Exploration {
    public:
        Exploration() { Scheduler::instance().explore(true); }
        ~Exploration() { Scheduler::instance().explore(false); }
        Exploration(Exploration const&) = delete;
        Exploration& operator=(Exploration const&) = delete;
    };

    /// While one of these is there, its thread may get no memory, in a scenario that explores that;
    /// nor may those that it begins, from then on.
    class Shortage {
    public:
        Shortage() { on = true; }
        ~Shortage() { on = false; }
        Shortage(Shortage const&) = delete;
        Shortage& operator=(Shortage const&) = delete;

        static bool refusesMemory();

        static inline thread_local bool on = false;
    };

private:
    bool pauses_;
    bool mistaken_;
};

struct Scenario {
    char const* name;
    void (*run)(Scene const& scene);
    unsigned explored;
};

std::vector<Scenario>& scenarios();

struct Registration {
    explicit Registration(Scenario const& scenario) { scenarios().push_back(scenario); }
};

} // namespace interleavings

/// Begins a scenario, whose function gets `Scene const& scene`. CMakeLists.txt finds the name.
/// @param explored of the values of `Explored`
#define SCENARIO(name, explored)                                                                   \
    static void name(::interleavings::Scene const& scene);                                         \
    static ::interleavings::Registration const registrationOf##name(                               \
        ::interleavings::Scenario{#name, &name, (explored)});                                      \
    static void name([[maybe_unused]] ::interleavings::Scene const& scene)
