#include <zym/common/synchronized_time_base_adaptor.hpp>
#include <zym/common/synchronized_time_base_proxy.hpp>

#include <gtest/gtest.h>

#include <type_traits>

namespace {

using zym::common::SynchronizedTimeBase;
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

TEST_F(ATimeBaseProxy, KnowsItselfAndNothingElseWhenMade) {
    EXPECT_EQ(proxy_.uuid(), Uuid(1));
    EXPECT_EQ(proxy_.serverUuid(), Uuid::NIL);
    EXPECT_FALSE(proxy_.isSynchronized());
    EXPECT_FALSE(proxy_.isTerminated());
}

TEST_F(ATimeBaseProxy, KeepsTheServer) {
    proxy_.setServerUuid(Uuid(2));
    EXPECT_EQ(proxy_.serverUuid(), Uuid(2));
    proxy_.setServerUuid(Uuid::NIL);
    EXPECT_EQ(proxy_.serverUuid(), Uuid::NIL);
}

TEST_F(ATimeBaseProxy, KeepsTheSynchronizedFlag) {
    proxy_.setSynchronizedFlag(true);
    EXPECT_TRUE(proxy_.isSynchronized());
    proxy_.setSynchronizedFlag(false);
    EXPECT_FALSE(proxy_.isSynchronized());
}

TEST_F(ATimeBaseProxy, IsTerminatedOnce) {
    EXPECT_TRUE(proxy_.setTerminatedFlag());
    EXPECT_FALSE(proxy_.setTerminatedFlag());
    EXPECT_TRUE(proxy_.isTerminated());
}

TEST_F(ATimeBaseProxy, TellsTheListenerItWasMadeWith) {
    proxy_.notifyListener();
    EXPECT_EQ(listener_.calls, 1);
}

TEST_F(ATimeBaseProxy, TellsTheListenerRegisteredLast) {
    CountingListener other;
    proxy_.registerListener(&other);
    proxy_.notifyListener();
    EXPECT_EQ(listener_.calls, 0);
    EXPECT_EQ(other.calls, 1);
}

TEST_F(ATimeBaseProxy, TellsNobodyWithoutAListener) {
    proxy_.registerListener(nullptr);
    proxy_.notifyListener();
    EXPECT_EQ(listener_.calls, 0);
}

TEST_F(ATimeBaseProxy, IsATimeBase) {
    SynchronizedTimeBase const& base = proxy_;
    EXPECT_EQ(base.timeBase(), 7U);
    static_assert(std::is_same_v<decltype(base.timeBase()), std::uint32_t>);
}

class BareAdaptor : public SynchronizedTimeBaseAdaptor {
public:
    using SynchronizedTimeBaseAdaptor::setTerminatedFlag;

    std::uint32_t timeBase() const override { return 8; }
    double localTimeBase() const override { return 8.5; }
};

TEST(ATimeBaseAdaptor, IsATimeBase) {
    BareAdaptor const adaptor;
    SynchronizedTimeBase const& base = adaptor;
    EXPECT_EQ(base.timeBase(), 8U);
}

TEST(ATimeBaseAdaptor, IsTerminatedOnce) {
    BareAdaptor adaptor;
    EXPECT_TRUE(adaptor.setTerminatedFlag());
    EXPECT_FALSE(adaptor.setTerminatedFlag());
}

} // namespace
