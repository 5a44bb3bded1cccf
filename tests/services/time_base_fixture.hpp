#pragma once

#include "requestreply/client_fixture.hpp"
#include "services/checkpoint.hpp"

#include <mqtt/time_base.hpp>

#include <atomic>
#include <functional>
#include <iomanip>
#include <limits>
#include <memory>
#include <sstream>
#include <string>

/// The clock of a derived class, set by the test. No thread may read it after the class has
/// released its base.
class DerivedClock {
public:
    using Read = std::function<double()>;

    explicit DerivedClock(Read read) : read_(std::move(read)) {}

    double seconds() const {
        Reading const reading(readers_);
        return read_();
    }
    void expectNoReader() const { EXPECT_EQ(readers_, 0) << "while its owner is destroyed"; }

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

/// A listener that counts its calls. Declare it before the proxy.
class TimeListener : public ClockedProxy::Listener {
public:
    using Hook = std::function<void()>;

    /// @param hook called within every call, after that was counted; it may destroy the listener
    explicit TimeListener(Hook hook = {}) : hook_(std::make_shared<Hook>(std::move(hook))) {}
    virtual ~TimeListener() = default;

    int count() const { return count_.copy(); }
    bool waitForCalls(int times = 1) const {
        return count_.waitFor([times](int count) { return count >= times; });
    }

    void onTimeSynchronized() override {
        // A thread that waits for this call may destroy the listener once it is counted.
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
    using Messages = support::RawPeer::Messages;

    static constexpr int SAMPLES = 10;

    TimeBaseOnABroker() { proxy = makeProxy(); }

    std::unique_ptr<ClockedProxy> makeProxy() {
        return std::make_unique<ClockedProxy>(*mqtt, "svc", id, &listener, [this] {
            checkpoint.pass();
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
        ASSERT_TRUE(listener.waitForCalls());
    }

    TimeListener listener;
    Checkpoint checkpoint; ///< in the proxy's clock
    std::atomic<double> now{1000.0};
    Uuid server = support::uniqueId();
    std::unique_ptr<ClockedProxy> proxy;
};
