#pragma once

#include "chaos/random.hpp"
#include "chaos/test_bed.hpp"

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace chaos {

/// Uses the library step by step on a thread of its own, unless paused. Paused at first.
class Worker {
public:
    Worker(TestBed& testBed, std::string name, int maxPauseMs);
    virtual ~Worker() = default;
    Worker(Worker const&) = delete;
    Worker& operator=(Worker const&) = delete;

    std::string const& name() const { return name_; }

    void start() { set(State::WORKING); }
    /// Does not wait for the end of the current step; `waitUntilPaused` does.
    void pause() { set(State::PAUSED); }
    void waitUntilPaused();
    /// Ends the thread, after the current step. To be called before the destruction.
    void end();
    /// Checks that it still works, while it is paused and there are no faults.
    virtual void verify();

protected:
    /// Uses the library once.
    /// @return whether that has succeeded; without faults it has to, after some repetitions
    virtual bool step() = 0;
    /// Waits for a random time; `pause` ends the wait.
    void wait(int fromMs, int toMs);
    void count(std::string const& what, std::uint64_t n = 1) { testBed.report.count(what, n); }
    void check(bool holds, std::string const& otherwise) {
        testBed.report.check(holds, name_ + ": " + otherwise);
    }

    TestBed& testBed;

private:
    enum class State { PAUSED, WORKING, ENDED };

    void set(State state);
    void run();

    std::string const name_;
    int const maxPauseMs_; ///< between two steps

protected:
    Random random; ///< for steps

private:
    std::mutex mutex_; ///< guards what follows
    std::condition_variable changed_;
    State state_ = State::PAUSED;
    bool inStep_ = false;
    std::thread thread_;
};

} // namespace chaos
