#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace support {

/// Ends the process when a test case hangs, by name and with what is needed to see why: the
/// stacks of all threads and the logs of the brokers. `main` of the test programs owns the one
/// watchdog.
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

    void watch(std::string const& name, std::chrono::seconds limit);
    void extend(std::chrono::seconds limit);
    void rest();
    void run();
    [[noreturn]] void bite();

    static Watchdog* instance_;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::string name_; ///< of what is watched
    std::chrono::seconds limit_{0};
    Clock::time_point deadline_ = Clock::time_point::max();
    bool stop_ = false;
    std::thread thread_;
};

} // namespace support
