#pragma once

#include <mqtt/time_base.hpp>

#include <atomic>
#include <functional>
#include <utility>

namespace mqtt::test {

/// A clock that goes only when the test says so, for the classes below: pass `std::ref(clock)`. May
/// be read from any thread; set it from one at a time.
class ManualClock {
public:
    explicit ManualClock(double seconds = 0.0) : seconds_(seconds) {}
    void set(double seconds) { seconds_ = seconds; }
    void advance(double seconds) { seconds_ = seconds_ + seconds; }
    double operator()() const { return seconds_; }

private:
    std::atomic<double> seconds_;
};

/// A time server with another clock. Make it before a client asks: a request that arrives within
/// the constructor is answered with the machine's clock.
class ClockedAdaptor : public SynchronizedTimeBaseMqttAdaptor {
public:
    /// @param clock seconds; called on the worker thread, and by whoever reads the time
    ClockedAdaptor(MqttClient& client, Topic const& topic, zym::common::Uuid const& id,
                   std::function<double()> clock)
        : SynchronizedTimeBaseMqttAdaptor(client, topic, id), clock_(std::move(clock)) {}
    ~ClockedAdaptor() override { release(); }

    double localTimeBase() const override { return clock_(); }

private:
    std::function<double()> const clock_;
};

/// A time client with another local clock.
class ClockedProxy : public SynchronizedTimeBaseMqttProxy {
public:
    using Listener = zym::common::SynchronizedTimeBaseProxy::Listener;

    /// @param clock seconds; called on the worker, the timer's and the callers' threads, with locks
    ///        held: it must not call the proxy
    ClockedProxy(MqttClient& client, Topic const& topic, zym::common::Uuid const& id,
                 Listener* listener, std::function<double()> clock)
        : zym::common::SynchronizedTimeBaseProxy(id, listener),
          SynchronizedTimeBaseMqttProxy(client, topic, id, listener),
          clock_(std::move(clock)) {}
    ~ClockedProxy() override { release(); }

    double localTimeBase() const override { return clock_(); }
    using zym::common::SynchronizedTimeBaseProxy::serverUuid;

private:
    std::function<double()> const clock_;
};

} // namespace mqtt::test
