#pragma once

#include "interleavings/journal.hpp"
#include "interleavings/schedule.hpp"

#include <pthread.h>
#include <semaphore.h>

#include <cstdint>
#include <deque>
#include <optional>
#include <random>
#include <utility>
#include <vector>

namespace interleavings {

/// Virtual, of a clock that starts anew in each run.
using Nanoseconds = std::int64_t;
constexpr Nanoseconds NEVER = -1;

/// What a scenario lets the explorer choose, beside the threads; any of these together.
enum Explored : unsigned {
    THREADS_ONLY = 0,
    PAUSES = 1,    ///< every schedule with and without the scenario's pauses
    DEADLINES = 2, ///< time may pass to the deadline of a wait while others could go on
    NO_THREAD = 4, ///< one creation of a thread may fail
    NO_MEMORY = 8  ///< one allocation may fail
};

enum class State { READY, YIELDED, ON_MUTEX, ON_CONDITION, ON_THREAD, ASLEEP, ENDED };

struct Thread {
    int number = 0;
    State state = State::READY;
    void const* object = nullptr; ///< what it waits for
    Nanoseconds deadline = NEVER;
    bool timedOut = false; ///< how its last wait ended
    int yields = 0;        ///< since something happened
    bool joined = false;
    pthread_t id{};
    sem_t turn{};
    Place place{}; ///< where it has stopped, in a traced run
};

/// How a run is to go.
struct Plan {
    Schedule schedule;
    std::optional<unsigned> seed; ///< of random choices beyond the schedule; none: always 0
    unsigned explored = THREADS_ONLY;
    bool traced = false;
};

/// Lets one thread of the process run at a time, and decides at each point which one goes on.
///
/// Threads are real, and each waits for its turn. Time is virtual: it passes when no thread can go
/// on. A thread that yields lets all others go first; one that does nothing else may do so three
/// times, then time passes.
class Scheduler {
public:
    static Scheduler& instance();

    /// Takes over the process, whose only thread is the calling one.
    void start(Plan const& plan, Journal& journal);
    bool started() const { return journal_ != nullptr; }
    /// From now on, or no longer, choices are made. Without, a thread runs until it waits.
    void explore(bool on) { exploring_ = on; }
    bool exploring() const { return exploring_; }

    Thread& current() { return *current_; }
    Thread* find(pthread_t id);
    /// A new thread, which is ready.
    Thread& add();
    /// For a new thread: waits for its first turn.
    void begin(Thread& thread);
    /// For a thread that ends: lets those go on who wait for that.
    void end();

    /// A point where another thread may go first.
    void point();
    /// A choice that is not one of threads.
    int pick(int among);
    /// Whether something is not to be had, once in a run at most.
    bool refuses(Explored what);
    /// Waits until woken.
    /// @return false when the deadline came first
    bool block(State why, void const* object, Nanoseconds deadline = NEVER);
    void yield();
    /// Makes those ready who wait for that, or the first of them.
    void wake(State why, void const* object, bool all);
    bool isWaitedFor(State why, void const* object) const;

    /// The clock; it moves with each look, so that who only looks at it comes to an end.
    Nanoseconds now();

    /// Ends the run, and the process.
    [[noreturn]] void fail(char const* text);
    [[noreturn]] void pass();

    /// Who has a mutex, for the report of a failure.
    void setHolderOf(int (*holder)(void const* mutex)) { holderOf_ = holder; }

private:
    struct Way {
        Thread* thread;
        Nanoseconds passTo; ///< time passes first; NEVER: it does not
    };

    void handOver(char const* reason);
    void resume(Thread& next, char const* reason);
    std::vector<Way> ways();
    void addWaits(std::vector<Way>& ways);
    int choose(std::size_t among, bool preempts);
    int decide(std::size_t at, std::size_t among);
    void passTimeTo(Nanoseconds moment);
    bool passTime();
    void somethingHappened();
    void ready(Thread& thread, bool timedOut);
    void note(Thread const& next, char const* reason);
    void noteWaiting();
    void look(Place& place) const;

    Plan plan_;
    Journal* journal_ = nullptr;
    bool exploring_ = false;
    std::deque<Thread> threads_;
    Thread* current_ = nullptr;
    std::deque<Thread*> waiting_; ///< in the order in which they came
    Nanoseconds now_ = 0;
    std::size_t steps_ = 0;
    std::size_t nextDeviation_ = 0;
    std::mt19937 random_;
    unsigned oneIn_ = 1;   ///< how often a random run deviates
    bool refused_ = false; ///< already
    int (*holderOf_)(void const*) = nullptr;
};

} // namespace interleavings
