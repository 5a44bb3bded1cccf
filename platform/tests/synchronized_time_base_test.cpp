#include <zym/common/synchronized_time_base_adaptor.hpp>
#include <zym/common/synchronized_time_base_proxy.hpp>

#include <gtest/gtest.h>

namespace {

using zym::common::SynchronizedTimeBaseAdaptor;
using zym::common::SynchronizedTimeBaseProxy;
using zym::common::Uuid;

class BareProxy : public SynchronizedTimeBaseProxy {
public:
    using SynchronizedTimeBaseProxy::SynchronizedTimeBaseProxy;

    using SynchronizedTimeBaseProxy::notifyListener;

    std::uint32_t timeBase() const override { return 7; }
    void terminate() override {}
    bool startSync(Uuid const&) override { return false; }
    bool synchronize(Uuid const&, conv::SecondsDuration const&) override { return false; }
    bool stop() override { return true; }
    void forceSync() override {}
    double localTimeBase() const override { return 0.0; }
};

class CountingListener final : public SynchronizedTimeBaseProxy::Listener {
public:
    void onTimeSynchronized() override { ++calls; }
    int calls = 0;
};

TEST(ATimeBaseProxy, NotifiesTheListenerRegisteredLast) {
    CountingListener listener;
    CountingListener other;
    BareProxy proxy(Uuid(1), &listener);
    proxy.notifyListener();
    proxy.registerListener(&other);
    proxy.notifyListener();
    proxy.registerListener(nullptr);
    proxy.notifyListener();
    EXPECT_EQ(listener.calls, 1);
    EXPECT_EQ(other.calls, 1);
}

class BareAdaptor : public SynchronizedTimeBaseAdaptor {
public:
    using SynchronizedTimeBaseAdaptor::setTerminatedFlag;

    std::uint32_t timeBase() const override { return 8; }
    double localTimeBase() const override { return 8.5; }
};

TEST(ATimeBaseAdaptor, IsTerminatedOnce) {
    BareAdaptor adaptor;
    EXPECT_TRUE(adaptor.setTerminatedFlag());
    EXPECT_FALSE(adaptor.setTerminatedFlag());
}

} // namespace
