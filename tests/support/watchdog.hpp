#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <iosfwd>
#include <mutex>
#include <string>
#include <thread>

namespace support {

/// Ends the process when a test case hangs, and prints its name, the stacks of all threads and
/// what the `HangHandler`s add. `main` of the test programs owns the one watchdog.
class Watchdog {
public:
    /// 60 s, or the environment's ZYM_TEST_LIMIT in seconds (0: no limit, for a debugger);
    /// times `TIMEOUT_FACTOR`.
    static std::chrono::seconds defaultLimit();
    /// Gives the running test case this long, times `TIMEOUT_FACTOR`, from now on.
    static void limit(std::chrono::seconds limit);

    /// Starts to watch the test cases of this process.
    Watchdog();
    ~Watchdog();
    Watchdog(Watchdog const&) = delete;
    Watchdog& operator=(Watchdog const&) = delete;

private:
    class Listener;
    using Clock = std::chrono::steady_clock;

    void watch(std::string const& name);
    void setDeadline(std::chrono::seconds fromNow);
    void stopWatching();
    void run();
    [[noreturn]] void endProcess();

    static Watchdog* instance_;

    std::mutex mutex_; ///< guards what follows
    std::condition_variable changed_;
    std::string name_; ///< of what is watched
    std::chrono::seconds limit_{0};
    Clock::time_point deadline_ = Clock::time_point::max();
    bool stop_ = false;
    std::thread thread_;
};

/// What an object reports and cleans up when the watchdog ends the process, as no destructor runs
/// then.
class HangHandler {
public:
    /// @param handle runs on the watchdog's thread while the test hangs: it must not take a lock
    ///        that the test may hold
    explicit HangHandler(std::function<void(std::ostream&)> handle);
    ~HangHandler();
    HangHandler(HangHandler const&) = delete;
    HangHandler& operator=(HangHandler const&) = delete;

    static void runAll(std::ostream& out);

private:
    std::function<void(std::ostream&)> handle_;
};

} // namespace support
