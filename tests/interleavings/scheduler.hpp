#pragma once

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

/// Of the virtual clock, which starts at the same time in each run.
using Nanoseconds = std::int64_t;
constexpr Nanoseconds NEVER = -1;

/// The choices that a scenario allows in addition to those of threads; flags.
enum Explored : unsigned {
    THREADS_ONLY = 0,
    DEADLINES = 1, ///< time may pass to the deadline of a wait while other threads could continue
    NO_THREAD = 2, ///< one creation of a thread may fail
    NO_MEMORY = 4  ///< one allocation may fail
};

enum class State { READY, YIELDED, ON_MUTEX, ON_CONDITION, ON_THREAD, ASLEEP, ENDED };

struct Thread {
    int number = 0;
    State state = State::READY;
    void const* object = nullptr; ///< it waits for this
    int holder = -1;              ///< number of the thread that holds the mutex it waits for
    Nanoseconds deadline = NEVER;
    bool timedOut = false; ///< how its last wait ended
    int yields = 0;        ///< since any thread did something else
    bool joined = false;
    pthread_t id{};
    sem_t turn{};
    Stack stack{}; ///< where it stopped, in a traced run
};

/// Determines how a run goes.
struct Plan {
    Schedule schedule;
    std::optional<unsigned> seed; ///< of random choices after the schedule; none: way 0
    unsigned explored = THREADS_ONLY;
    bool mistaken = false; ///< the scenario makes its mistake
    bool traced = false;
};

/// Lets one thread of the process run at a time, and decides at each switch point which one
/// continues.
///
/// Threads are real, and each waits for its turn. Time is virtual: it passes when no thread can
/// continue. A thread that yields lets all others run first. When only yielding threads are left,
/// each may yield three times, then time passes.
class Scheduler {
public:
    static Scheduler& instance();

    /// Takes control of the process, which must have one thread.
    void start(Plan const& plan, RunRecord& record);
    bool started() const { return record_ != nullptr; }
    Plan const& plan() const { return plan_; }
    /// Whether choices are made. Otherwise a thread runs until it waits.
    void setExploring(bool on) { exploring_ = on; }

    Thread& current() { return *current_; }
    Thread* find(pthread_t id);
    /// Adds a new thread, which is ready.
    Thread& add();
    /// Called on a new thread: waits for its first turn.
    static void begin(Thread& thread);
    /// Called on a thread that ends: wakes the threads that wait for its end.
    void end();

    /// Another thread may run first.
    void switchPoint();
    /// The same, unless the object is in an ignored range.
    void switchPointAt(void const* object);
    /// For mutexes of test doubles: a thread stops there only when it has to wait.
    void ignoreObjectsIn(void const* begin, std::size_t size);
    /// Makes a choice; 0 while not exploring.
    std::size_t choose(std::size_t ways);
    /// Whether a resource is refused; at most once in a run.
    bool refuses(Explored resource);
    /// Waits until woken.
    /// @return false when the deadline came first
    bool block(State reason, void const* object, Nanoseconds deadline = NEVER);
    void yield();
    /// Makes the waiting threads ready, all or the first one.
    void wake(State reason, void const* object, bool all);
    bool isWaitedFor(State reason, void const* object) const;

    /// The clock. Each call advances it, so that a loop that only reads the clock ends.
    Nanoseconds now();

    /// Ends the run, and the process.
    [[noreturn]] void fail(char const* text);
    [[noreturn]] void succeed();

private:
    /// A way to continue.
    struct Way {
        Thread* thread;
        Nanoseconds passTo; ///< time passes first; NEVER: it does not
    };

    void handOver(char const* reason);
    void resume(Thread& next, char const* reason);
    std::vector<Way> ways();
    std::size_t decide(std::size_t choice, std::size_t ways);
    void passTimeTo(Nanoseconds moment);
    void passTimeToNextDeadline();
    void resetYields();
    void makeReady(Thread& thread, bool timedOut);
    void recordEvent(Thread& thread, char const* what, char const* relation, int otherThread);

    Plan plan_;
    RunRecord* record_ = nullptr;
    bool exploring_ = false;
    std::deque<Thread> threads_;
    Thread* current_ = nullptr;
    std::deque<Thread*> waiting_; ///< in the order in which they began to wait
    std::vector<std::pair<char const*, char const*>> ignored_;
    Nanoseconds now_ = 0;
    std::size_t steps_ = 0;
    std::size_t nextDeviation_ = 0;
    std::mt19937 random_;
    unsigned deviatesOneIn_ = 1; ///< of how many random choices one deviates
    bool refused_ = false;       ///< a resource was refused before
};

} // namespace interleavings
