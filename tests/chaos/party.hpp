#pragma once

#include "chaos/dice.hpp"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace chaos {

/// Somebody at work in a thread of its own, step by step, until told to rest. Made at rest.
///
/// A derived class calls `end` in its destructor, before anything of it is gone.
class Party {
public:
    Party(std::string name, std::uint64_t seed);
    virtual ~Party();
    Party(Party const&) = delete;
    Party& operator=(Party const&) = delete;

    std::string const& name() const { return name_; }

    void work();
    /// Does not wait for the end of the step under way; `waitForRest` does.
    void rest();
    void waitForRest();
    /// Between two storms, at rest, everything being up again: proves that it still works.
    virtual void prove() {}
    /// For good; waits for the end of the step under way.
    void end();

protected:
    virtual void step() = 0;
    /// Lets some time pass between two steps or within one; cut short by `rest`.
    void pause(int fromMilliseconds, int toMilliseconds);
    bool working() const;
    Dice& dice() { return dice_; }

private:
    void run();

    std::string const name_;
    Dice dice_; ///< drawn from in steps, and at rest
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool working_ = false;
    bool inStep_ = false;
    bool ended_ = false;
    std::thread thread_;
};

} // namespace chaos
