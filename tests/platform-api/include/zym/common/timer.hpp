#pragma once

#include <chrono>
#include <functional>
#include <mutex>

namespace zym::common {

class Timer {
public:
    Timer(std::function<void()> callback, std::chrono::milliseconds period, bool expireOnce);
    ~Timer();
    Timer(Timer const&) = delete;
    Timer& operator=(Timer const&) = delete;

    std::mutex& mutex();
    bool& once;
    void setPeriod(std::chrono::milliseconds period, std::unique_lock<std::mutex>& lock);
    void restart(std::unique_lock<std::mutex>& lock);
    void stop();
    void terminate();
};

} // namespace zym::common
