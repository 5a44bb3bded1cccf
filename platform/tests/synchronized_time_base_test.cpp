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

    using SynchronizedTimeBaseProxy::isTerminated;
    using SynchronizedTimeBaseProxy::notifyListener;
    using SynchronizedTimeBaseProxy::serverUuid;
    using SynchronizedTimeBaseProxy::setServerUuid;
    using SynchronizedTimeBaseProxy::setSynchronizedFlag;
    using SynchronizedTimeBaseProxy::setTerminatedFlag;
    using SynchronizedTimeBaseProxy::uuid;

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

class ATimeBaseProxy : public testing::Test {
protected:
    CountingListener listener_;
    BareProxy proxy_{Uuid(1), &listener_};
};

TEST_F(ATimeBaseProxy, KeepsServerAndFlags) {
    EXPECT_EQ(proxy_.uuid(), Uuid(1));
    EXPECT_EQ(proxy_.serverUuid(), Uuid::NIL);
    for (auto const server : {Uuid(2), Uuid::NIL}) {
        proxy_.setServerUuid(server);
        EXPECT_EQ(proxy_.serverUuid(), server);
    }
    EXPECT_FALSE(proxy_.isSynchronized());
    for (bool const synchronized : {true, false}) {
        proxy_.setSynchronizedFlag(synchronized);
        EXPECT_EQ(proxy_.isSynchronized(), synchronized);
    }
    EXPECT_FALSE(proxy_.isTerminated());
    EXPECT_TRUE(proxy_.setTerminatedFlag());
    EXPECT_FALSE(proxy_.setTerminatedFlag()) << "a second time";
    EXPECT_TRUE(proxy_.isTerminated());
}

TEST_F(ATimeBaseProxy, NotifiesTheListenerRegisteredLast) {
    CountingListener other;
    proxy_.notifyListener();
    proxy_.registerListener(&other);
    proxy_.notifyListener();
    proxy_.registerListener(nullptr);
    proxy_.notifyListener();
    EXPECT_EQ(listener_.calls, 1);
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
