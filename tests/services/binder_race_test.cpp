// The end of proxies at any moment, and proxies that several threads use. Some of this only a
// sanitizer can see.

#include "services/binder_frame.hpp"

#include "support/timeout_factor.hpp"
#include "support/watchdog.hpp"
#include "support/watched.hpp"

#include <atomic>

namespace {

using support::isSet;
using testing::AnyOf;

using Error = BinderError;

constexpr int ROUNDS = 200 / support::TIMEOUT_FACTOR;

class TheEndOfAProxy : public WithAServer {
protected:
    TheEndOfAProxy() { support::Watchdog::limit(std::chrono::seconds(240)); }

    /// From before the request arrives to after the binding is there.
    static void spend(int round) {
        auto const moment =
            std::chrono::steady_clock::now()
            + std::chrono::microseconds(40 * (round * support::TIMEOUT_FACTOR % 150));
        while (std::chrono::steady_clock::now() < moment) {
            std::this_thread::yield();
        }
    }

    /// The listener goes with the proxy: nobody may call it any more.
    template <class ProxyType, class... Arguments>
    void expectEndAtAnyMoment(Arguments const&... arguments) {
        for (int round = 0; round < ROUNDS; ++round) {
            auto listener = std::make_unique<BindingRecorder>();
            auto own = std::make_unique<ProxyType>(*mqtt, arguments..., listener.get());
            ASSERT_EQ(own->bind(server.id, round % 4 == 0 ? 0 : AN_HOUR), Error::SUCCESS);
            spend(round);
            if (round % 3 == 0) {
                static_cast<void>(own->unbind(round % 2 == 0 ? 0 : AN_HOUR));
            }
            spend(round % 7);
            own.reset();
            EXPECT_LE(listener->count(), 2U);
            listener.reset();
        }
    }
};

TEST_F(TheEndOfAProxy, WaitsForItsListener) {
    support::Watched<bool> entered;
    std::atomic<bool> left{false};
    BlockingThread* ender = nullptr;
    support::Watched<bool> ready;
    recorder.setHook([&](auto const&) {
        set(entered);
        ready.waitFor(isSet);
        EXPECT_TRUE(ender->isBlocked());
        left = true;
    });
    ASSERT_EQ(proxy->bind(server.id, AN_HOUR), Error::SUCCESS);
    ASSERT_TRUE(entered.waitFor(isSet));
    BlockingThread destruction([&] {
        proxy.reset();
        EXPECT_TRUE(left);
    });
    ender = &destruction;
    set(ready);
    destruction.join();
}

TEST_F(TheEndOfAProxy, WaitsForAnUnbindingThatTellsItsListener) {
    server.ignoreBindings();
    for (int round = 0; round < ROUNDS / 4; ++round) {
        support::Watched<bool> entered;
        support::Watched<bool> leave;
        recorder.setHook([&](auto const&) {
            set(entered);
            leave.waitFor(isSet);
        });
        auto* const asked = proxy.get();
        ASSERT_EQ(asked->bind(server.id, AN_HOUR), Error::SUCCESS);
        BlockingThread unbinding(
            [&] { EXPECT_THAT(asked->unbind(AN_HOUR), AnyOf(Error::SUCCESS, Error::CANCELLED)); });
        ASSERT_TRUE(entered.waitFor(isSet));
        BlockingThread destruction([&] { proxy.reset(); });
        ASSERT_TRUE(destruction.isBlocked());
        set(leave);
        destruction.join();
        unbinding.join();
        ASSERT_EQ(recorder.events().back(), bound(Error::CANCELLED));
        proxy = makeProxy();
    }
}

TEST_F(TheEndOfAProxy, ComesAtAnyMoment) {
    expectEndAtAnyMoment<Proxy>(PLANT, DESK, id, PANEL);
}

TEST_F(TheEndOfAProxy, ComesAtAnyMomentForADerivedOne) {
    expectEndAtAnyMoment<DerivedProxy>(id);
}

TEST_F(TheEndOfAProxy, ComesAtAnyMomentOfABlockingCall) {
    for (int round = 0; round < ROUNDS; ++round) {
        auto own = std::make_unique<DerivedProxy>(*mqtt, id, &recorder);
        std::thread caller([&, asked = own.get()] {
            EXPECT_THAT(asked->bindSync(server.id, AN_HOUR),
                        AnyOf(Error::SUCCESS, Error::CANCELLED, Error::NOT_SYNCHRONIZED));
        });
        // As soon as it is surely inside.
        EXPECT_TRUE(support::eventually([&] { return own->serverUuid() == server.id; }));
        spend(round);
        own.reset();
        caller.join();
    }
}

TEST_F(TheEndOfAProxy, MayBeMadeKnownByTerminationOnSeveralThreads) {
    for (int round = 0; round < ROUNDS; ++round) {
        static_cast<void>(proxy->bind(server.id, AN_HOUR));
        spend(round);
        std::thread first([&] { proxy->terminate(); });
        std::thread second([&] { proxy->terminate(); });
        EXPECT_THAT(proxy->unbind(AN_HOUR), AnyOf(Error::SUCCESS, Error::CANCELLED));
        first.join();
        second.join();
        EXPECT_EQ(proxy->bind(server.id, AN_HOUR), Error::CANCELLED);
        auto const told = recorder.count();
        proxy = makeProxy();
        EXPECT_EQ(recorder.count(), told);
    }
}

/// One proxy that several threads use as they like.
class ASharedProxy : public WithAServer {};

TEST_F(ASharedProxy, IsAtAnyonesService) {
    support::Watchdog::limit(std::chrono::seconds(240));
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        while (!stop) {
            static_cast<void>(proxy->timeBase());
            static_cast<void>(proxy->isTimeBaseSynchronized());
            proxy->forceTimeBaseSync();
            std::this_thread::yield();
        }
    });
    threads.emplace_back([&] {
        while (!stop) {
            static_cast<void>(proxy->bindSync(server.id, 1));
        }
    });
    threads.emplace_back([&] {
        while (!stop) {
            static_cast<void>(proxy->unbind(1));
        }
    });
    for (int round = 0; round < ROUNDS; ++round) {
        static_cast<void>(proxy->bind(server.id, 1));
        static_cast<void>(proxy->unbindSync(1));
    }
    stop = true;
    // One may be inside the 30 seconds for the time, of a binding that was ended meanwhile.
    proxy->terminate();
    for (auto& thread : threads) {
        thread.join();
    }
    proxy = makeProxy();
    bind();
    expectBound();
}

} // namespace
