// Cleaners that come and go while messages fly. What these tests cannot see by themselves the
// sanitizers do: they are worth most in such a build.

#include "client/flood.hpp"
#include "requestreply/blocking_thread.hpp"
#include "services/cleaner_recorder.hpp"
#include "support/test_client.hpp"
#include "support/timeout_factor.hpp"
#include "support/watched.hpp"

#include <gmock/gmock.h>

#include <memory>

namespace {

using mqtt::TopicCleaner;
using std::chrono::milliseconds;
using support::isSet;
using testing::Each;

constexpr int ROUNDS = 40 / support::TIMEOUT_FACTOR;

class CleanersInAFlood : public testing::Test {
protected:
    std::unique_ptr<TopicCleaner> makeCleaner(TopicCleaner::Listener* listener) {
        return std::make_unique<TopicCleaner>(listener, support::uniqueId(), broker.host(),
                                              broker.port());
    }

    static support::BrokerOptions quick() {
        support::BrokerOptions options;
        options.nodelay = true;
        return options;
    }

    support::Broker broker{quick()};
    Flood flood{broker, {"a/x", "a/y", "b"}, "payload"};
};

TEST_F(CleanersInAFlood, ComeAndGo) {
    for (int round = 0; round < ROUNDS; ++round) {
        CleanerRecorder recorder;
        Strings told;
        {
            auto const cleaner = makeCleaner(&recorder);
            cleaner->clean("a/#", milliseconds(0));
            cleaner->clean("b", round % 2 == 0 ? milliseconds(0) : AN_HOUR);
            if (round % 4 < 3) {
                EXPECT_TRUE(recorder.waitForCount(static_cast<std::size_t>(round % 4)));
            }
            if (round % 3 == 0) {
                cleaner->terminate();
                told = recorder.told();
            }
        }
        if (round % 3 == 0) {
            EXPECT_EQ(recorder.told(), told);
        }
    }
}

TEST_F(CleanersInAFlood, AreDestroyedByTheirListeners) {
    for (int round = 0; round < ROUNDS; ++round) {
        support::Watched<bool> gone;
        CleanerRecorder recorder;
        std::unique_ptr<TopicCleaner> cleaner;
        recorder.setHook([&](auto const& what) {
            if ((what == ALL) == (round % 2 == 0)) {
                cleaner.reset();
                set(gone);
            }
        });
        cleaner = makeCleaner(&recorder);
        auto* const which = cleaner.get();
        which->clean("a/#", milliseconds(0));
        ASSERT_TRUE(gone.waitFor(isSet));
        EXPECT_THAT(recorder.told(), Each(testing::AnyOf("a/#", ALL)));
    }
}

TEST_F(CleanersInAFlood, AreDestroyedByTheirListenersWhileOthersTerminateThem) {
    for (int round = 0; round < ROUNDS / 4; ++round) {
        support::Watched<bool> gone;
        CleanerRecorder recorder;
        std::unique_ptr<BlockingThread> terminating;
        std::unique_ptr<TopicCleaner> cleaner = makeCleaner(&recorder);
        auto* const which = cleaner.get();
        recorder.setHook([&](auto const& /*what*/) {
            terminating = std::make_unique<BlockingThread>([=] { which->terminate(); });
            EXPECT_TRUE(terminating->isBlocked());
            cleaner.reset();
            set(gone);
        });
        which->clean("a/#", milliseconds(0));
        ASSERT_TRUE(gone.waitFor(isSet));
        terminating->join();
    }
}

TEST_F(CleanersInAFlood, AreUsedByManyThreadsAtOnce) {
    CleanerRecorder recorder;
    auto const cleaner = makeCleaner(&recorder);
    std::vector<std::thread> threads;
    for (auto const* const topic : {"a/#", "a/x", "a/+", "b"}) {
        threads.emplace_back([&, topic] {
            for (int round = 0; round < ROUNDS / 4; ++round) {
                cleaner->clean(mqtt::Topic(std::to_string(round)) + topic, milliseconds(0));
                cleaner->clean(topic, AN_HOUR);
                cleaner->waitAllTasks(milliseconds(round % 3));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(recorder.waitForCount(4));
    threads.clear();
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            cleaner->terminate();
            cleaner->clean("b", AN_HOUR);
            EXPECT_TRUE(cleaner->waitAllTasks(support::DEADLINE));
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

} // namespace
