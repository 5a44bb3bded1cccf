#pragma once

#include <pthread.h>
#include <semaphore.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <random>
#include <utility>
#include <vector>

namespace interleavings {

/// Determines a run: for each choice, by its number, the option that is taken. A choice that is not
/// named takes option 0, which is what happens without the explorer.
using Schedule = std::map<std::size_t, std::size_t>;

/// A place where a run could continue in several ways.
struct Choice {
    std::uint8_t taken = 0; ///< the option
    std::uint8_t options = 0;
};

/// The call stack of a thread, innermost function first.
struct Stack {
    std::array<void*, 20> frames;
    int count;
};

/// An entry in the trace of a run: a thread stopped, or it stands still at the end of a failed run.
struct Event {
    std::int64_t nanoseconds; ///< virtual
    std::size_t choices;      ///< number of choices made before
    int thread;
    char const* what;
    int next; ///< the thread that continues; -1: none
    Stack stack;
};

/// How a process ends whose scenario has reached its end.
constexpr int SUCCESS_STATUS = 42;

/// The result of a run, in memory shared with the process that started it. Its only pointers are to
/// code and string literals, which have the same addresses in both processes.
struct RunRecord {
    std::array<char, 1024> failure;
    std::size_t choiceCount;
    std::array<Choice, 1U << 18U> choices;
    std::size_t eventCount;
    std::array<Event, 4096> events;
};

/// Of the virtual clock, which starts at the same time in each run.
using Nanoseconds = std::int64_t;
constexpr Nanoseconds NEVER = -1;

/// What a scenario lets the explorer choose in addition to threads; flags.
enum Explored : unsigned {
    THREADS_ONLY = 0,
    DEADLINES = 1, ///< time may pass to the deadline of a wait while other threads could continue
    RESOURCES = 2  ///< one creation of a thread or one allocation may fail
};

enum class State { READY, WAITING, ENDED };

struct Thread {
    int number = 0;
    State state = State::READY;
    char const* activity = "can continue"; ///< in a trace
    void const* object = nullptr;          ///< it waits for this
    Nanoseconds deadline = NEVER;
    bool timedOut = false; ///< how its last wait ended
    pthread_t id{};
    sem_t turn{};
    Stack stack{}; ///< where it stopped, in a traced run
};

/// Determines how a run goes.
struct Plan {
    Schedule schedule{};
    std::optional<unsigned> seed{}; ///< of random options at the other choices; none: option 0
    bool traced = false;
    unsigned explored = THREADS_ONLY;
    bool mistaken = false; ///< the scenario makes its mistake
};

/// Lets one thread of the process run at a time, and chooses, wherever threads can meet, which one
/// continues.
///
/// Threads are real, and each waits for its turn. Time is virtual: it passes when no thread can
/// continue.
class Scheduler {
public:
    static Scheduler& instance();

    /// Takes control of the process, which must have one thread.
    void start(Plan const& plan, RunRecord& record);
    /// Makes no instance: LeakSanitizer asks at the end of the process, when no memory can be had.
    static bool started() { return record_ != nullptr; }
    Plan const& plan() const { return plan_; }
    /// Whether choices are made. Otherwise a thread runs until it waits.
    void setExploring(bool on) { exploring_ = on; }

    Thread& current() { return *current_; }
    Thread* find(pthread_t id);
    /// Adds a new thread, which is ready.
    Thread& add();
    /// Called on a thread that does not have the turn.
    static void waitForTurn(Thread& thread);
    /// Called on a thread that ends: wakes the threads that wait for its end.
    void end();

    /// Another thread may run first.
    void maySwitch();
    /// The same, unless the object is in an ignored range.
    void maySwitchAt(void const* object);
    /// For mutexes of test doubles: a thread stops there only when it has to wait.
    void ignoreObjectsIn(void const* begin, std::size_t size);
    /// Makes a choice; option 0 while not exploring.
    std::size_t choose(std::size_t options);
    /// Whether a thread or memory is refused; at most once in a run.
    bool refuses();
    /// Waits until the object is woken.
    /// @return false when the deadline came first
    bool block(char const* activity, void const* object, Nanoseconds deadline = NEVER);
    /// Makes the threads that wait for the object ready, all or the first one.
    void wake(void const* object, bool all);
    bool isWaitedFor(void const* object) const;

    /// The clock. Each call advances it, so that a loop that only reads the clock ends.
    Nanoseconds now();

    /// Ends the run, and the process.
    [[noreturn]] void fail(char const* text);
    [[noreturn]] void succeed();

private:
    void handOver(char const* reason);
    void resume(Thread& next, char const* reason);
    std::vector<Thread*> options();
    std::size_t optionAt(std::size_t choice, std::size_t options);
    void passTimeTo(Nanoseconds moment);
    void passTimeToNextDeadline();
    void makeReady(Thread& thread, bool timedOut);
    void recordEvent(Thread& thread, char const* what, int next);

    static inline RunRecord* record_ = nullptr;
    Plan plan_;
    bool exploring_ = false;
    std::deque<Thread> threads_;
    Thread* current_ = nullptr;
    std::deque<Thread*> waiting_; ///< in the order in which they began to wait
    std::vector<std::pair<std::uintptr_t, std::size_t>> ignored_; ///< begin and size
    Nanoseconds now_ = 0;
    std::size_t steps_ = 0;
    std::mt19937 random_;
    unsigned randomOneIn_ = 1; ///< of so many choices one takes a random option
    bool refused_ = false;     ///< a thread or memory was refused before
};

} // namespace interleavings
