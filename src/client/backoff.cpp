#include "client/backoff.hpp"

#include <algorithm>
#include <atomic>
#include <cstdint>

namespace mqtt {

namespace {

constexpr int MAX_ATTEMPT = 1'000'000;

std::atomic<int> attempts{0};

} // namespace

std::chrono::milliseconds reconnectDelay(int attempt) {
    std::int64_t const n = std::min(attempt, MAX_ATTEMPT);
    return std::chrono::milliseconds(std::min<std::int64_t>(n * n * 500, 15'000));
}

int nextReconnectAttempt() {
    int last = attempts.load();
    while (!attempts.compare_exchange_weak(last, std::min(last + 1, MAX_ATTEMPT))) {
    }
    return std::min(last + 1, MAX_ATTEMPT);
}

void resetReconnectAttempts() {
    // Called after every network step: without the test, the processors of all clients would
    // compete for one cache line.
    if (attempts.load(std::memory_order_relaxed) != 0) {
        attempts.store(0);
    }
}

} // namespace mqtt
