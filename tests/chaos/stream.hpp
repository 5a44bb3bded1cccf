#pragma once

#include "chaos/findings.hpp"

#include "support/cut_proxy.hpp"

#include <atomic>
#include <cstdint>
#include <string>

namespace chaos {

/// How the values of one topic travel.
struct Manner {
    int qos;
    bool persistent; ///< the session of its publisher
    bool retained;
};

/// The numbers 1, 2, 3, ... published on one topic by one client.
class Stream {
public:
    Stream(std::string topic, Manner manner) : topic_(std::move(topic)), manner_(manner) {}

    std::string const& topic() const { return topic_; }
    Manner const& manner() const { return manner_; }

    std::uint64_t next() { return ++published_; }
    std::uint64_t published() const { return published_; }

    /// The line over which its publisher reaches the broker.
    void runsOver(support::CutProxy const& line) { line_ = &line; }
    /// How often its publisher has come anew, or tried to.
    unsigned reconnections() const {
        return line_ == nullptr ? 0 : static_cast<unsigned>(line_->connections()) - 1;
    }

    /// The publisher has lost its connection: what it has published by now may have been on its
    /// way. Before it publishes anything over the next connection.
    void broke() { brokenAt_ = published_.load(); }
    std::uint64_t brokenAt() const { return brokenAt_; }

    /// What a subscriber that stays connected has seen: publishers do not run away from it.
    void arrived(std::uint64_t number) { arrived_ = number; }
    std::uint64_t underWay() const {
        auto const there = arrived_.load();
        auto const all = published_.load();
        return all > there ? all - there : 0;
    }

private:
    std::string const topic_;
    Manner const manner_;
    std::atomic<std::uint64_t> published_{0};
    std::atomic<std::uint64_t> arrived_{0};
    std::atomic<std::uint64_t> brokenAt_{0};
    support::CutProxy const* line_ = nullptr;
};

/// Judges the numbers that one subscriber gets of one stream. Used on one thread, but `last`.
class Follower {
public:
    /// @param session whether the broker keeps the subscriber's session while it is away
    Follower(Stream const& stream, Findings& findings, std::string const& who, bool session)
        : stream_(stream), findings_(findings), who_(who), session_(session) {}

    /// @param away how often the subscriber has lost its connection so far
    void see(std::uint64_t number, unsigned away);

    std::uint64_t last() const { return last_; }

private:
    void seeAhead(std::uint64_t number, unsigned away);
    bool wasAway(unsigned away);
    void seeAgain(std::uint64_t number, unsigned away);
    void breach(std::string const& what, std::uint64_t number);

    Stream const& stream_;
    Findings& findings_;
    std::string const who_;
    bool const session_;
    std::atomic<std::uint64_t> last_{0};
    std::uint64_t highest_ = 0;
    unsigned awayAtLast_ = 0;
    unsigned awayAtGap_ = 0;
    unsigned gaps_ = 0;
    unsigned awayAtRepeat_ = 0;
    unsigned runs_ = 0;         ///< of QoS 1 values that came again
    std::uint64_t dropped_ = 0; ///< QoS 2, clean session
};

} // namespace chaos
