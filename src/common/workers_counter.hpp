#pragma once

#include <atomic>
#include <cstdint>

namespace mqtt {

/// A number that one thread increases and any thread reads.
class WorkersCounter {
public:
    void add(std::uint64_t amount) {
        value_.store(get() + amount, std::memory_order_relaxed); // cheaper than fetch_add
    }
    std::uint64_t get() const { return value_.load(std::memory_order_relaxed); }

private:
    std::atomic<std::uint64_t> value_{0};
};

} // namespace mqtt
