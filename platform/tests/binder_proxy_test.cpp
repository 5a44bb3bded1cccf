#include "common/awaited_call.hpp"

#include <zym/common/binder_proxy.hpp>

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using conv::SecondsDuration;
using testing::ElementsAre;
using testing::IsEmpty;
using zym::common::BinderProxy;
using zym::common::Uuid;
using Error = zym::common::Binder::Error;

Uuid const SELF(1);
Uuid const SERVER(2);
Uuid const OTHER_SERVER(3);

/// A proxy that carries no messages: tests begin and end its phases.
class BareProxy : public BinderProxy {
public:
    explicit BareProxy(Listener* listener) : BinderProxy(SELF, listener) {}

    using BinderProxy::endBinding;
    using BinderProxy::endUnbinding;
    using BinderProxy::isTerminated;
    using BinderProxy::serverUuid;
    using BinderProxy::startBinding;
    using BinderProxy::startUnbinding;
    using BinderProxy::uuid;

    std::uint32_t timeBase() const override { return 0; }
    Error bindSync(Uuid const&, SecondsDuration const&) override { return Error::FAILED; }
    Error bind(Uuid const&, SecondsDuration const&) override { return Error::FAILED; }
    Error unbindSync(SecondsDuration const&) override { return Error::FAILED; }
    Error unbind(SecondsDuration const&) override { return Error::FAILED; }
    void forceTimeBaseSync() override {}
    bool isTimeBaseSynchronized() const override { return false; }
};

using Event = std::pair<std::string, Error>;

class RecordingListener final : public BinderProxy::Listener {
public:
    void onBound(Error error) override { record({"bound", error}); }
    void onUnbound(Error error) override { record({"unbound", error}); }

    std::vector<Event> events;
    std::function<void()> reaction;

private:
    void record(Event const& event) {
        events.push_back(event);
        if (reaction) {
            reaction();
        }
    }
};

class ABinderProxy : public testing::Test {
protected:
    void bind() {
        ASSERT_EQ(proxy_.startBinding(SERVER), Error::SUCCESS);
        proxy_.endBinding(Error::SUCCESS);
        listener_.events.clear();
    }
    bool isBound() { return proxy_.startBinding(OTHER_SERVER) == Error::ALREADY_BOUND; }

    RecordingListener listener_;
    BareProxy proxy_{&listener_};
};

TEST_F(ABinderProxy, RecordsTheServerOfABindingAndIsBusyDuringIt) {
    EXPECT_EQ(proxy_.uuid(), SELF);
    EXPECT_EQ(proxy_.serverUuid(), Uuid::NIL);
    EXPECT_FALSE(proxy_.isTerminated());
    proxy_.endBinding(Error::SUCCESS); // neither has begun
    proxy_.endUnbinding(Error::SUCCESS);
    EXPECT_EQ(proxy_.startUnbinding(), Error::NOT_BOUND);
    EXPECT_EQ(proxy_.startBinding(SERVER), Error::SUCCESS);
    EXPECT_EQ(proxy_.startBinding(OTHER_SERVER), Error::BUSY);
    EXPECT_EQ(proxy_.serverUuid(), SERVER);
    EXPECT_THAT(listener_.events, IsEmpty());
}

TEST_F(ABinderProxy, IsBoundWhenABindingEndsWithSuccessOrAlreadyBound) {
    for (auto const error : {Error::SUCCESS, Error::ALREADY_BOUND}) {
        listener_.events.clear();
        ASSERT_EQ(proxy_.startBinding(SERVER), Error::SUCCESS);
        proxy_.endBinding(error);
        proxy_.endBinding(Error::FAILED); // it has ended
        EXPECT_THAT(listener_.events, ElementsAre(Event("bound", error)));
        EXPECT_TRUE(isBound());
        EXPECT_EQ(proxy_.serverUuid(), SERVER);
        ASSERT_EQ(proxy_.startUnbinding(), Error::SUCCESS);
        proxy_.endUnbinding(Error::SUCCESS);
    }
}

TEST_F(ABinderProxy, IsFreeAgainWhenABindingFails) {
    for (int code = 1; code < 256; ++code) {
        auto const error = static_cast<Error>(code);
        if (error == Error::ALREADY_BOUND) {
            continue;
        }
        listener_.events.clear();
        ASSERT_EQ(proxy_.startBinding(SERVER), Error::SUCCESS);
        proxy_.endBinding(error);
        EXPECT_THAT(listener_.events, ElementsAre(Event("bound", error)));
        EXPECT_EQ(proxy_.startUnbinding(), Error::NOT_BOUND);
    }
}

TEST_F(ABinderProxy, IsBusyWhileUnbindingAndNotBoundAfterIt) {
    bind();
    ASSERT_EQ(proxy_.startUnbinding(), Error::SUCCESS);
    EXPECT_EQ(proxy_.startUnbinding(), Error::BUSY);
    EXPECT_EQ(proxy_.startBinding(OTHER_SERVER), Error::BUSY);
    proxy_.endUnbinding(Error::SUCCESS);
    EXPECT_THAT(listener_.events, ElementsAre(Event("unbound", Error::SUCCESS)));
    EXPECT_EQ(proxy_.startUnbinding(), Error::NOT_BOUND);
    EXPECT_EQ(proxy_.startBinding(OTHER_SERVER), Error::SUCCESS);
    EXPECT_EQ(proxy_.serverUuid(), OTHER_SERVER);
}

TEST_F(ABinderProxy, StaysBoundWhenUnbindingFails) {
    bind();
    ASSERT_EQ(proxy_.startUnbinding(), Error::SUCCESS);
    proxy_.endUnbinding(Error::BUSY);
    EXPECT_THAT(listener_.events, ElementsAre(Event("unbound", Error::BUSY)));
    EXPECT_TRUE(isBound());
    EXPECT_EQ(proxy_.startUnbinding(), Error::SUCCESS);
}

TEST_F(ABinderProxy, CancelsABindingInFlightByAnUnbinding) {
    ASSERT_EQ(proxy_.startBinding(SERVER), Error::SUCCESS);
    ASSERT_EQ(proxy_.startUnbinding(), Error::SUCCESS);
    proxy_.endBinding(Error::CANCELLED);
    proxy_.endUnbinding(Error::SUCCESS);
    EXPECT_THAT(listener_.events,
                ElementsAre(Event("bound", Error::CANCELLED), Event("unbound", Error::SUCCESS)));
    listener_.events.clear();
    ASSERT_EQ(proxy_.startBinding(SERVER), Error::SUCCESS);
    ASSERT_EQ(proxy_.startUnbinding(), Error::SUCCESS);
    proxy_.endUnbinding(Error::SUCCESS);
    proxy_.endBinding(Error::SUCCESS); // too late
    EXPECT_THAT(listener_.events, ElementsAre(Event("unbound", Error::SUCCESS)));
    EXPECT_EQ(proxy_.startBinding(SERVER), Error::SUCCESS);
}

TEST_F(ABinderProxy, TerminatedStartsNothingAndCallsNobody) {
    ASSERT_EQ(proxy_.startBinding(SERVER), Error::SUCCESS);
    ASSERT_EQ(proxy_.startUnbinding(), Error::SUCCESS);
    proxy_.terminate();
    EXPECT_TRUE(proxy_.isTerminated());
    proxy_.endBinding(Error::SUCCESS);
    proxy_.endUnbinding(Error::SUCCESS);
    EXPECT_THAT(listener_.events, IsEmpty());
    EXPECT_EQ(proxy_.startBinding(SERVER), Error::CANCELLED);
    EXPECT_EQ(proxy_.startUnbinding(), Error::CANCELLED);
}

TEST_F(ABinderProxy, LetsItsListenerStartTheNextPhaseAndTerminateIt) {
    listener_.reaction = [this] {
        listener_.reaction = [this] { proxy_.terminate(); };
        EXPECT_EQ(proxy_.startUnbinding(), Error::SUCCESS);
        proxy_.endUnbinding(Error::SUCCESS);
    };
    ASSERT_EQ(proxy_.startBinding(SERVER), Error::SUCCESS);
    proxy_.endBinding(Error::SUCCESS);
    EXPECT_THAT(listener_.events,
                ElementsAre(Event("bound", Error::SUCCESS), Event("unbound", Error::SUCCESS)));
    EXPECT_TRUE(proxy_.isTerminated());
}

TEST_F(ABinderProxy, LetsItsListenerDestroyIt) {
    auto proxy = std::make_unique<BareProxy>(&listener_);
    listener_.reaction = [&] { proxy.reset(); };
    ASSERT_EQ(proxy->startBinding(SERVER), Error::SUCCESS);
    proxy->endBinding(Error::SUCCESS);
    EXPECT_EQ(proxy, nullptr);
}

TEST(ABinderProxyWithoutAListener, EndsItsPhases) {
    BareProxy proxy(nullptr);
    ASSERT_EQ(proxy.startBinding(SERVER), Error::SUCCESS);
    proxy.endBinding(Error::SUCCESS);
    EXPECT_EQ(proxy.startBinding(SERVER), Error::ALREADY_BOUND);
}

TEST_F(ABinderProxy, IsTerminatedOnlyWhenTheListenerCallOfAnotherThreadIsOver) {
    AwaitedCall call;
    listener_.reaction = [&] { call.run(); };
    ASSERT_EQ(proxy_.startBinding(SERVER), Error::SUCCESS);
    std::thread ending([this] { proxy_.endBinding(Error::SUCCESS); });
    call.expectToBeAwaitedBy([this] { proxy_.terminate(); });
    ending.join();
}

} // namespace
