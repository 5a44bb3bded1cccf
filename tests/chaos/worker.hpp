#pragma once

#include "chaos/random.hpp"
#include "chaos/test_bed.hpp"

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace chaos {

/// Uses the library step by step on a thread of its own, unless paused. Paused at first.
///
/// A derived class calls `end` in its destructor, before it destroys anything.
class Worker {
public:
    Worker(TestBed& testBed, std::string name);
    virtual ~Worker() { end(); }
    Worker(Worker const&) = delete;
    Worker& operator=(Worker const&) = delete;

    std::string const& name() const { return name_; }

    void start();
    /// Does not wait for the end of the current step; `waitUntilPaused` does.
    void pause();
    void waitUntilPaused();
    /// Checks that it still works, while it is paused and there are no faults.
    virtual void verify() {}

protected:
    virtual void step() = 0;
    /// Waits for a random time; `pause` ends the wait.
    void wait(int fromMilliseconds, int toMilliseconds);
    /// Ends the thread; waits for the end of the current step.
    void end();
    void count(std::string const& what, std::uint64_t n = 1) { testBed.report.count(what, n); }
    void check(bool holds, std::string const& otherwise) {
        testBed.report.check(holds, name_ + ": " + otherwise);
    }

    TestBed& testBed;

private:
    void run();

    std::string const name_;

protected:
    Random random; ///< for steps, and while paused

private:
    std::mutex mutex_; ///< guards what follows
    std::condition_variable changed_;
    bool working_ = false;
    bool inStep_ = false;
    bool ended_ = false;
    std::thread thread_;
};

} // namespace chaos
