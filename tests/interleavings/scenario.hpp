#pragma once

#include "interleavings/scheduler.hpp"
#include "support/allocations.hpp"

#include <chrono>
#include <functional>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

// What scenarios use. No lock guards the state of fixtures and listeners: one thread runs at a
// time, and a switch to another one happens only at the calls that the explorer intercepts.
namespace interleavings {

/// A virtual time after which everything that a scenario starts has ended.
inline constexpr std::chrono::seconds SETTLING_TIME{70};

/// Whether the scenario has to make its mistake, which the explorer then has to find.
inline bool makesMistake() {
    return Scheduler::instance().plan().mistaken;
}

template <class Action>
void ifMistaken(Action const& action) {
    if (makesMistake()) {
        action();
    }
}
template <class Action>
void unlessMistaken(Action const& action) {
    if (!makesMistake()) {
        action();
    }
}
/// Ends the run as failed unless `holds`.
inline void expect(bool holds, char const* requirement) {
    if (!holds) {
        Scheduler::instance().fail(requirement);
    }
}

/// Lets virtual time pass while the other threads continue.
inline void pass(std::chrono::nanoseconds time) {
    auto& scheduler = Scheduler::instance();
    static_cast<void>(scheduler.block("sleeps", nullptr, scheduler.now() + time.count()));
}

/// True in some schedules; outside `explore` it is false.
inline bool maybe() {
    return Scheduler::instance().choose(2) != 0;
}

/// Lets 2 ms pass in some schedules.
inline void maybePause() {
    if (maybe()) {
        pass(std::chrono::milliseconds(2));
    }
}

/// Throws in some schedules, as a callback of a user may do.
inline void maybeThrow() {
    if (maybe()) {
        throw std::runtime_error("thrown by a callback");
    }
}

/// Runs an action, in which the explorer makes choices, and then lets `SETTLING_TIME` pass.
template <class Action>
void explore(Action const& action) {
    Scheduler::instance().setExploring(true);
    action();
    Scheduler::instance().setExploring(false);
    pass(SETTLING_TIME);
}

/// During its lifetime an allocation of this thread may fail, if the scenario explores RESOURCES;
/// so may those of the threads that it creates, until these end.
class MemoryMayFail {
public:
    MemoryMayFail() { onThisThread = true; }
    ~MemoryMayFail() { onThisThread = false; }
    MemoryMayFail(MemoryMayFail const&) = delete;
    MemoryMayFail& operator=(MemoryMayFail const&) = delete;

    static bool refuses() {
        support::UncountedAllocations const uncounted;
        bool const refuses = onThisThread && Scheduler::instance().refuses();
        hasFailed = hasFailed || refuses;
        return refuses;
    }

    static inline thread_local bool onThisThread = false;
    static inline bool hasFailed = false; ///< in this run
};

/// @return false when memory or a thread was lacking
template <class Action>
bool attempt(Action const& action) {
    try {
        action();
        return true;
    } catch (std::bad_alloc const&) {
    } catch (std::system_error const&) {
    }
    return false;
}

/// Base of listeners: checks that no callback comes, or still runs, after the end of the calling
/// object. During a callback other threads may run.
class CallbackCheck {
public:
    /// Called by each callback.
    void onCallback() {
        expect(!closed_, "a callback comes after the end of its object");
        ++count_;
        ++running_;
        Scheduler::instance().maySwitch();
        --running_;
        if (action_) {
            action_(); // may throw, or end the calling object
        }
    }
    /// The action runs in each callback.
    void setAction(std::function<void()> action) { action_ = std::move(action); }
    /// The calling object has ended: no callback may run or come.
    void close() {
        expect(running_ == 0, "an object ends during its callback");
        closed_ = true;
    }
    int count() const { return count_; }

private:
    std::function<void()> action_;
    bool closed_ = false;
    int count_ = 0;
    int running_ = 0;
};

struct Scenario {
    char const* name;
    void (*run)();
    unsigned explored;
};

inline std::vector<Scenario>& scenarios() {
    static std::vector<Scenario> all;
    return all;
}

struct Registration {
    explicit Registration(Scenario const& scenario) { scenarios().push_back(scenario); }
};

} // namespace interleavings

/// Begins a scenario, a member function of a class derived from its fixture. CMakeLists.txt reads
/// the name.
/// @param explored values of `Explored`
#define SCENARIO(name, Fixture, explored)                                                          \
    namespace {                                                                                    \
    struct name final : Fixture {                                                                  \
        void run();                                                                                \
    };                                                                                             \
    Registration const registrationOf##name({#name, [] { name().run(); }, (explored)});            \
    }                                                                                              \
    void name::run()
