// A run with faults: docs/chaos.md.

#include "chaos/faults.hpp"
#include "chaos/workload.hpp"

#include "mqtt/test/eventually.hpp"
#include "support/timeout_factor.hpp"
#include "support/watchdog.hpp"

#include <gtest/gtest.h>

#include <features.h>
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <random>

namespace {

using namespace chaos;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

/// By how much the heap may grow, from the first pause to the last, and from the warm-up to the
/// end. A leak of a few bytes per message or connection exceeds that.
constexpr std::size_t MAX_HEAP_GROWTH = 512 * 1024;

/// The descriptors of three connections, with those of their proxies: cuts that were ordered before
/// a pause may come in it, so that a client is just then without a connection. A leak exceeds that,
/// and is found exactly at the end.
constexpr std::size_t DESCRIPTOR_TOLERANCE = 9;

std::size_t entriesOf(char const* directory) {
    std::filesystem::directory_iterator const all(directory);
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

/// In bytes, of all arenas. Unknown, so 0, with the sanitizers' allocators, and with glibc before
/// 2.33 for large heaps.
std::size_t heapInUse() {
#if __GLIBC_PREREQ(2, 33) && !defined(ZYM_TEST_SANITIZED)
    auto const info = mallinfo2();
    return info.uordblks + info.hblkhd;
#else
    return 0;
#endif
}

/// What this process uses.
struct Resources {
    std::size_t threads = entriesOf("/proc/self/task");
    std::size_t descriptors = entriesOf("/proc/self/fd");
    std::size_t heap = heapInUse();
};

std::ostream& operator<<(std::ostream& out, Resources const& used) {
    return out << used.threads << " threads, " << used.descriptors << " descriptors, "
               << used.heap / 1024 << " KiB of heap";
}

std::uint64_t fromEnvironment(char const* name, std::uint64_t otherwise) {
    char const* const text = std::getenv(name);
    return text == nullptr || *text == '\0' ? otherwise : std::strtoull(text, nullptr, 10);
}

class AChaosRun : public testing::Test {
protected:
    AChaosRun() {
        support::Watchdog::limit(length_ + seconds(600));
        std::cout << "chaos: " << length_.count() << " s, seed " << seed_ << std::endl;
    }

    /// @param period the length of one series of faults
    void run(Report& report, milliseconds length, milliseconds period) {
        TestBed testBed(seed_, report);
        Random random(seed_, "faults");
        Workload workload(testBed);
        auto const end = Clock::now() + length;
        auto const left = [&] {
            return std::chrono::duration_cast<milliseconds>(end - Clock::now());
        };
        do {
            workload.start();
            injectCuts(testBed, random, std::min(period, std::max(left() / 2, milliseconds(1000))));
            workload.pauseAndVerify();
            noteResources("after cuts");
            workload.start();
            injectKills(testBed, random, std::min(period, std::max(left(), milliseconds(3000))));
            workload.pauseAndVerify();
            noteResources("after kills");
        } while (Clock::now() < end);
        for (auto const& proxy : testBed.proxies) {
            report.count("faults: connections made through proxies",
                         static_cast<std::uint64_t>(proxy->connections()));
            report.count("faults: connections cut", static_cast<std::uint64_t>(proxy->cuts()));
        }
    }

    void noteResources(char const* when) {
        pauses_.emplace_back();
        auto const now = std::chrono::duration_cast<seconds>(Clock::now() - begin_);
        std::cout << "chaos: " << now.count() << " s, " << when << ": " << pauses_.back()
                  << std::endl;
    }

    /// A thread that was joined may still be visible for a moment.
    static Resources resourcesAfter(std::size_t threads) {
        mqtt::test::eventually([&] { return Resources().threads <= threads; });
        return {};
    }

    std::uint64_t const seed_ = fromEnvironment("ZYM_CHAOS_SEED", std::random_device()());
    seconds const length_{fromEnvironment("ZYM_CHAOS_SECONDS", 10)};
    Clock::time_point begin_ = Clock::now();
    std::vector<Resources> pauses_;
};

TEST_F(AChaosRun, LosesNothing) {
    auto const threads = Resources().threads;
    Report warmUp;
    run(warmUp, seconds(2), seconds(1));
    ASSERT_EQ(warmUp.violations(), 0U);
    auto const before = resourcesAfter(threads);

    Report report;
    begin_ = Clock::now();
    pauses_.clear();
    run(report, length_, seconds(12));
    auto const after = resourcesAfter(threads);

    std::cout << "\nchaos: report, " << length_.count() << " s, seed " << seed_ << '\n';
    report.print();
    std::cout << "\n  before: " << before << "\n  first pause: " << pauses_.front()
              << "\n  last pause: " << pauses_.back() << "\n  after: " << after << "\n"
              << std::endl;
    EXPECT_EQ(report.violations(), 0U);
    EXPECT_EQ(after.threads, threads) << "threads are left";
    EXPECT_EQ(after.descriptors, before.descriptors) << "descriptors are left";
    EXPECT_LE(after.heap, before.heap + MAX_HEAP_GROWTH);
    EXPECT_LE(pauses_.back().heap, pauses_.front().heap + MAX_HEAP_GROWTH);
    EXPECT_LE(pauses_.back().descriptors, pauses_.front().descriptors + DESCRIPTOR_TOLERANCE);
}

} // namespace
