#pragma once

#include "mqtt/test/time_base.hpp"
#include "requestreply/client_fixture.hpp"

#include <mqtt/time_base.hpp>

#include <atomic>
#include <functional>
#include <iomanip>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

using mqtt::test::ClockedProxy;

/// A place in the code where the test can stop a thread. It is open at first.
class Checkpoint {
public:
    /// Stops the next thread that passes, other than the caller's.
    void close() {
        state_.change([](State& state) { state = {true, false, std::this_thread::get_id()}; });
    }
    /// Waits until it has stopped a thread.
    bool hasStoppedAThread() const {
        return state_.waitFor([](State const& state) { return state.visited; });
    }
    void open() {
        state_.change([](State& state) { state.closed = false; });
    }

    void pass() {
        bool const stops = state_.change([](State& state) {
            bool const first = state.closed && !state.visited;
            state.visited = state.visited || std::this_thread::get_id() != state.owner;
            return first && state.visited;
        });
        if (stops) {
            state_.waitFor([](State const& state) { return !state.closed; });
        }
    }

private:
    struct State {
        bool closed = false;
        bool visited = false;
        std::thread::id owner;
    };
    mqtt::test::Watched<State> state_;
};

/// A listener that keeps the threads that call it.
class TimeListener : public ClockedProxy::Listener,
                     public mqtt::test::CallRecorder<std::thread::id> {
public:
    using CallRecorder::CallRecorder;

    void onTimeSynchronized() override { record(std::this_thread::get_id()); }
};

/// The members of a reply.
inline std::string times(double client, double ref) {
    std::ostringstream text;
    text << std::setprecision(std::numeric_limits<double>::max_digits10);
    text << "\"client\": " << client << ", \"ref\": " << ref;
    return text.str();
}

/// A proxy below svc/ with a clock that stands still. The test replies in place of a server.
class TimeBaseOnABroker : public SessionOnABroker {
protected:
    static constexpr int SAMPLES = 10;

    TimeBaseOnABroker() { proxy = makeProxy(); }

    std::unique_ptr<ClockedProxy> makeProxy() {
        return std::make_unique<ClockedProxy>(*mqtt, "svc", id, &listener, [this] {
            checkpoint.pass();
            return now.load();
        });
    }

    /// The n-th request, counted from 1, waiting for it.
    mqtt::test::Message request(std::size_t n) const { return awaitMessage("?\?/", n); }

    void expectIdle() const {
        EXPECT_FALSE(proxy->isSynchronized());
        EXPECT_EQ(proxy->serverUuid(), Uuid::NIL);
        EXPECT_EQ(proxy->offset(), 0.0);
    }

    /// How many requests were sent up to now.
    std::size_t requestCount() { return messagesWith(seen(), "?\?/").size(); }

    void reply(std::size_t n, std::string const& members, int code = 1) {
        replyTo(request(n), code, members);
    }

    /// Replies to the n-th request so that its sample is this one.
    void answer(std::size_t n, double sample) { reply(n, times(now, now - sample)); }

    /// Replies to so many requests, from the n-th on.
    void answerAll(std::size_t n, int count, double sample) {
        for (int i = 0; i < count; ++i) {
            answer(n++, sample);
        }
    }

    /// From the first request of the proxy on.
    void synchronize(double sample) {
        ASSERT_TRUE(proxy->startSync(server));
        answerAll(1, SAMPLES, sample);
        ASSERT_TRUE(listener.waitForCount(1));
    }

    TimeListener listener;
    Checkpoint checkpoint; ///< in the proxy's clock
    std::atomic<double> now{1000.0};
    Uuid server = mqtt::test::uniqueId();
    std::unique_ptr<ClockedProxy> proxy;
};
