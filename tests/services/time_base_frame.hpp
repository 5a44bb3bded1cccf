#pragma once

#include "requestreply/client_frame.hpp"

#include <mqtt/time_base.hpp>

#include <atomic>
#include <functional>
#include <iomanip>
#include <limits>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

/// A clock of the test's, as part of a derived class. Whoever reads it must be gone when the class
/// has released its base.
class DerivedClock {
public:
    using Read = std::function<double()>;

    explicit DerivedClock(Read read) : read_(std::move(read)) {}

    double seconds() const {
        Reading const reading(readers_);
        return read_();
    }
    void expectNoReader() const { EXPECT_EQ(readers_, 0) << "in a class that is being destroyed"; }

private:
    /// Also when the clock throws.
    class Reading {
    public:
        explicit Reading(std::atomic<int>& readers) : readers_(readers) { ++readers_; }
        ~Reading() { --readers_; }
        Reading(Reading const&) = delete;
        Reading& operator=(Reading const&) = delete;

    private:
        std::atomic<int>& readers_;
    };

    Read read_;
    mutable std::atomic<int> readers_{0};
};

/// A proxy that reads the test's clock.
class ClockedProxy : public mqtt::SynchronizedTimeBaseMqttProxy {
public:
    using Listener = zym::common::SynchronizedTimeBaseProxy::Listener;

    ClockedProxy(mqtt::MqttClient& client, mqtt::Topic const& topic, zym::common::Uuid const& id,
                 Listener* listener, DerivedClock::Read clock)
        : zym::common::SynchronizedTimeBaseProxy(id, listener),
          mqtt::SynchronizedTimeBaseMqttProxy(client, topic, id, listener),
          clock_(std::move(clock)) {}
    ~ClockedProxy() override {
        release();
        clock_.expectNoReader();
    }

    double localTimeBase() const override { return clock_.seconds(); }

    using zym::common::SynchronizedTimeBaseProxy::serverUuid;

private:
    DerivedClock clock_;
};

/// Counts how often it is told. Declare it before the proxy.
class TimeListener : public ClockedProxy::Listener {
public:
    using Hook = std::function<void()>;

    /// @param hook called within every call, after it was counted; it outlives the listener
    explicit TimeListener(Hook hook = {}) : hook_(std::make_shared<Hook>(std::move(hook))) {}
    virtual ~TimeListener() = default;

    int count() const { return count_.copy(); }
    bool isTold(int times = 1) const {
        return count_.waitFor([times](int count) { return count >= times; });
    }

    void onTimeSynchronized() override {
        // Who waits for this call may destroy the listener as soon as it was counted.
        auto const hook = hook_;
        count_.change([](int& count) { ++count; });
        if (*hook) {
            (*hook)();
        }
    }

private:
    support::Watched<int> count_;
    std::shared_ptr<Hook> const hook_;
};

/// Stops the next one who comes by, on another thread than the one that closed it.
class Gate {
public:
    void close() {
        state_.change([](State& state) { state = {true, false, std::this_thread::get_id()}; });
    }
    bool stopsSomebody() const {
        return state_.waitFor([](State const& state) { return state.visited; });
    }
    void open() {
        state_.change([](State& state) { state.closed = false; });
    }

    void pass() {
        bool const stopped = state_.change([](State& state) {
            bool const first = state.closed && !state.visited;
            state.visited = state.visited || std::this_thread::get_id() != state.owner;
            return first && state.visited;
        });
        if (stopped) {
            state_.waitFor([](State const& state) { return !state.closed; });
        }
    }

private:
    struct State {
        bool closed = false;
        bool visited = false;
        std::thread::id owner;
    };
    support::Watched<State> state_;
};

/// The members of a reply.
inline std::string times(double client, double ref) {
    std::ostringstream text;
    text << std::setprecision(std::numeric_limits<double>::max_digits10);
    text << "\"client\": " << client << ", \"ref\": " << ref;
    return text.str();
}

/// A proxy below svc/ on a clock that stands still, and a stranger in the server's place.
class TimeBaseOnABroker : public SessionOnABroker {
protected:
    using Messages = support::RawPeer::Messages;

    static constexpr int SAMPLES = 10;

    TimeBaseOnABroker() { proxy = makeProxy(); }

    std::unique_ptr<ClockedProxy> makeProxy() {
        return std::make_unique<ClockedProxy>(*mqtt, "svc", id, &listener, [this] {
            gate.pass();
            return now.load();
        });
    }

    static Messages requestsIn(Messages const& messages) {
        Messages requests;
        for (auto const& message : messages) {
            if (message.topic.find("?\?/") != std::string::npos) {
                requests.push_back(message);
            }
        }
        return requests;
    }

    /// The n-th request, counted from 1, waiting for it.
    support::Message request(std::size_t n) const {
        EXPECT_TRUE(peer.waitFor([n](auto const& all) { return requestsIn(all).size() >= n; }))
            << "request " << n;
        auto const requests = requestsIn(peer.messages());
        return requests.size() < n ? support::Message{"none?\?/", "\"$reqId\": 0"}
                                   : requests[n - 1];
    }

    /// How many requests were sent up to now.
    std::size_t requestCount() { return requestsIn(seen()).size(); }

    void reply(std::size_t n, std::string const& members, int code = 1) {
        auto const question = request(n);
        peer.publish(replyTopicFor(question.topic),
                     replyText(idIn(question.payload), code, members));
    }

    /// Answers the n-th request so that its sample is this much.
    void answer(std::size_t n, double sample) { reply(n, times(now, now - sample)); }

    /// Answers this many, from the n-th on.
    void answerAll(std::size_t n, int count, double sample) {
        for (int i = 0; i < count; ++i) {
            answer(n++, sample);
        }
    }

    /// From the first request of the proxy on.
    void synchronize(double sample) {
        ASSERT_TRUE(proxy->startSync(server));
        answerAll(1, SAMPLES, sample);
        ASSERT_TRUE(listener.isTold());
    }

    TimeListener listener;
    Gate gate; ///< in the proxy's clock
    std::atomic<double> now{1000.0};
    Uuid server = support::uniqueId();
    std::unique_ptr<ClockedProxy> proxy;
};
