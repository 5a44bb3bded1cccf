#pragma once

#include "common/workers_counter.hpp"

#include <atomic>
#include <cstdint>
#include <exception>
#include <string>

namespace mqtt {

struct Statistics;

/// Counts and logs what the endpoints and request clients of a client do with it.
class EndpointReport {
public:
    explicit EndpointReport(std::string const& clientId) : clientId_(clientId) {}

    /// Worker: an endpoint cannot read a message.
    void documentDropped(std::string const& topic, std::exception const& cause) noexcept;

    // In any thread.

    void requestMade() { made_.fetch_add(1, std::memory_order_relaxed); }
    void requestReplied() { replied_.fetch_add(1, std::memory_order_relaxed); }
    void requestTimedOut() { timedOut_.fetch_add(1, std::memory_order_relaxed); }
    /// A reply to a request that has ended, or has never been made.
    void replyDropped(std::string const& requestName, std::uint32_t requestId) const noexcept;
    /// Fills in what this class counts.
    void addTo(Statistics& statistics) const;

private:
    std::string const& clientId_;
    WorkersCounter unreadable_;
    WorkersCounter withoutMemory_;
    std::atomic<std::uint64_t> made_{0};
    std::atomic<std::uint64_t> replied_{0};
    std::atomic<std::uint64_t> timedOut_{0};
};

} // namespace mqtt
