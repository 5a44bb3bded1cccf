#pragma once

#include "chaos/test_bed.hpp"

#include <atomic>
#include <cstdint>
#include <string>

namespace chaos {

/// How the values of one topic are published.
struct Delivery {
    int qos;
    bool persistent; ///< the session of its publisher
    bool retained;
};

/// The numbers 1, 2, 3, ... published on one topic by one client.
class NumberSequence {
public:
    /// @param topic no other sequence has it
    /// @param proxy between its publisher and the broker
    NumberSequence(std::string topic, Delivery delivery, mqtt::test::CutProxy const& proxy)
        : topic_(std::move(topic)), delivery_(delivery), proxy_(proxy) {}

    std::string const& topic() const { return topic_; }
    Delivery const& delivery() const { return delivery_; }

    std::uint64_t next() { return ++published_; }
    std::uint64_t published() const { return published_; }

    /// How often its publisher has reconnected, or tried to.
    unsigned reconnections() const { return static_cast<unsigned>(proxy_.connections()) - 1; }

    /// The publisher has lost its connection: the last values may not have been sent. Called before
    /// it publishes over the next connection.
    void publisherLostConnection() { publishedAtLoss_ = published_.load(); }
    std::uint64_t publishedAtLoss() const { return publishedAtLoss_; }

    /// What a subscriber that stays connected has seen: publishers do not run losses from it.
    void arrived(std::uint64_t number) { arrived_ = number; }
    std::uint64_t notArrived() const {
        auto const there = arrived_.load();
        auto const all = published_.load();
        return all > there ? all - there : 0;
    }

private:
    std::string const topic_;
    Delivery const delivery_;
    mqtt::test::CutProxy const& proxy_;
    std::atomic<std::uint64_t> published_{0};
    std::atomic<std::uint64_t> arrived_{0};
    std::atomic<std::uint64_t> publishedAtLoss_{0};
};

/// Checks the numbers that one subscriber receives of one sequence. For one thread, except `last`.
class SequenceChecker {
public:
    /// @param session whether the broker keeps the subscriber's session while it is disconnected
    SequenceChecker(NumberSequence& sequence, Report& report, std::string const& subscriber,
                    bool session)
        : sequence_(sequence), report_(report), subscriber_(subscriber), session_(session) {}

    /// @param losses how often the subscriber has lost its connection so far
    void check(std::uint64_t number, unsigned losses);

    NumberSequence& sequence() const { return sequence_; }
    std::uint64_t last() const { return last_; }

private:
    void checkGap(std::uint64_t number, unsigned losses);
    bool wasDisconnected(unsigned losses);
    void checkRepetition(std::uint64_t number, unsigned losses);
    void violation(std::string const& what, std::uint64_t number);

    NumberSequence& sequence_;
    Report& report_;
    std::string const subscriber_;
    bool const session_;
    std::atomic<std::uint64_t> last_{0};
    std::uint64_t highest_ = 0;
    unsigned lossesAtLast_ = 0;
    unsigned lossesAtGap_ = 0;
    unsigned gaps_ = 0;
    unsigned lossesAtRepetition_ = 0;
    unsigned runs_ = 0;         ///< of QoS 1 values that came again
    std::uint64_t dropped_ = 0; ///< QoS 2, clean session
};

} // namespace chaos
