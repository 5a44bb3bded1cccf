// One long run: see docs/chaos.md.

#include "chaos/company.hpp"
#include "chaos/house.hpp"
#include "chaos/storm.hpp"

#include "support/eventually.hpp"
#include "support/timeout_factor.hpp"
#include "support/watchdog.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <random>

namespace {

using namespace chaos;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

/// What the heap may grow by, from the first calm to the last, and from the warm-up to the end. A
/// leak of a few bytes per message or connection is more than that.
constexpr std::size_t HEAP_BOUND = 512 * 1024;

/// Descriptors of three connections, with those of their lines: cuts that were ordered in a storm
/// may come after it, so that a client is just then without one. A leak grows beyond that, and is
/// seen exactly at the end.
constexpr std::size_t ON_THE_WAY = 9;

std::uint64_t fromEnvironment(char const* name, std::uint64_t otherwise) {
    char const* const text = std::getenv(name);
    return text == nullptr || *text == '\0' ? otherwise : std::strtoull(text, nullptr, 10);
}

/// Why what is counted as lost or as coming again is no breach.
constexpr char const* WHY = R"(
  Lost while the subscriber was away: subscriptions are made at QoS 0, the broker keeps nothing for
  who is not there; that is so of all that a killed broker makes lose their connections.
  Lost at QoS 0: what was on its way when the publisher's connection broke.
  Lost past PUBREC: the broker drops its half of a handshake with a clean session.
  Again at QoS 1: "at least once"; what had no PUBACK yet is sent anew.
  Again as a retained value: with each subscription, so with each connection.
)";

class AChaosRun : public testing::Test {
protected:
    AChaosRun() {
        support::Watchdog::limit(length_ + seconds(600));
        std::cout << "chaos: " << length_.count() << " s, seed " << seed_ << std::endl;
    }

    void run(Findings& findings, milliseconds length, milliseconds storm) {
        Place place(seed_, findings);
        Storm storms(place);
        Company company(place);
        auto const end = Clock::now() + length;
        auto const left = [&] {
            return std::chrono::duration_cast<milliseconds>(end - Clock::now());
        };
        do {
            company.work();
            storms.cut(std::min(storm, std::max(left() / 2, milliseconds(1000))));
            company.settle();
            calm("after a storm of cuts");
            company.work();
            storms.kill(std::min(storm, std::max(left(), milliseconds(3000))));
            company.settle();
            calm("after a storm of kills");
        } while (Clock::now() < end);
        for (auto const& line : place.lines) {
            findings.count("storm: connections made through lines",
                           static_cast<std::uint64_t>(line->connections()));
            findings.count("storm: connections cut", static_cast<std::uint64_t>(line->cuts()));
        }
    }

    void calm(char const* when) {
        auto const holdings = Holdings::now();
        auto const now = std::chrono::duration_cast<seconds>(Clock::now() - begin_);
        std::cout << "chaos: " << now.count() << " s, " << when << ": " << holdings << std::endl;
        firstCalm_ = firstCalm_ ? firstCalm_ : holdings;
        lastCalm_ = holdings;
    }

    /// A thread that was joined may still be seen for a moment.
    static Holdings afterAll(std::size_t threads) {
        support::eventually([&] { return Holdings::now().threads <= threads; });
        return Holdings::now();
    }

    std::uint64_t const seed_ = fromEnvironment("ZYM_CHAOS_SEED", std::random_device()());
    seconds const length_{
        fromEnvironment("ZYM_CHAOS_SECONDS", support::TIMEOUT_FACTOR > 1 ? 20 : 60)};
    Clock::time_point begin_ = Clock::now();
    std::optional<Holdings> firstCalm_;
    std::optional<Holdings> lastCalm_;
};

TEST_F(AChaosRun, LosesNothing) {
    // The first broker leaves a thread that starts processes.
    support::Broker().stop();
    auto const threads = Holdings::now().threads;
    Findings warmUp;
    run(warmUp, seconds(2), seconds(1));
    ASSERT_EQ(warmUp.breaches(), 0U);
    auto const before = afterAll(threads);

    Findings findings;
    begin_ = Clock::now();
    firstCalm_.reset();
    run(findings, length_, seconds(12));
    auto const after = afterAll(threads);

    std::cout << "\nchaos: report, " << length_.count() << " s, seed " << seed_ << '\n';
    findings.print(std::cout);
    std::cout << WHY << "\n  before: " << before << "\n  first calm: " << *firstCalm_
              << "\n  last calm: " << *lastCalm_ << "\n  after: " << after << "\n"
              << std::endl;
    EXPECT_EQ(findings.breaches(), 0U);
    EXPECT_EQ(after.threads, threads) << "threads are left";
    EXPECT_EQ(after.descriptors, before.descriptors) << "descriptors are left";
    EXPECT_LE(after.heap, before.heap + HEAP_BOUND);
    EXPECT_LE(lastCalm_->heap, firstCalm_->heap + HEAP_BOUND);
    EXPECT_LE(lastCalm_->descriptors, firstCalm_->descriptors + ON_THE_WAY);
}

} // namespace
