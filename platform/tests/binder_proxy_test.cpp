#include "common/awaited_call.hpp"
#include "mqtt/test/recorder.hpp"

#include <zym/common/binder_proxy.hpp>

#include <gmock/gmock.h>

#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using conv::SecondsDuration;
using testing::ElementsAre;
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

class RecordingListener final : public mqtt::test::CallRecorder<Event>,
                                public BinderProxy::Listener {
public:
    void onBound(Error error) override { record({"bound", error}); }
    void onUnbound(Error error) override { record({"unbound", error}); }
};

// A step of a script: `bind` and `unbind` start a phase and must return SUCCESS, `bound` and
// `unbound` end it with SUCCESS, `terminate` terminates. `:BUSY` behind a step names another error.
struct Case {
    char const* steps;
    char const* events; ///< what the listener learns, in the same words
};

constexpr Case PHASES[]{
    {"bound unbound unbind:NOT_BOUND", ""}, // nothing has begun
    {"bind bind:BUSY", ""},
    {"bind bound bound:FAILED bind:ALREADY_BOUND", "bound"},
    {"bind bound:ALREADY_BOUND bind:ALREADY_BOUND", "bound:ALREADY_BOUND"},
    {"bind bound unbind unbind:BUSY bind:BUSY unbound unbind:NOT_BOUND bind", "bound unbound"},
    {"bind bound unbind unbound:BUSY bind:ALREADY_BOUND unbind", "bound unbound:BUSY"},
    {"bind unbind bound:CANCELLED unbound", "bound:CANCELLED unbound"},
    {"bind unbind unbound bound bind", "unbound"}, // the binding ends too late
    {"bind unbind terminate bound unbound bind:CANCELLED unbind:CANCELLED", ""},
};

void take(BareProxy& proxy, std::string const& call, Error error) {
    if (call == "bind") {
        EXPECT_EQ(proxy.startBinding(SERVER), error);
    } else if (call == "unbind") {
        EXPECT_EQ(proxy.startUnbinding(), error);
    } else if (call == "bound") {
        proxy.endBinding(error);
    } else if (call == "unbound") {
        proxy.endUnbinding(error);
    } else {
        proxy.terminate();
    }
}

std::vector<Event> parsed(std::string const& script) {
    static std::map<std::string, Error> const errors{{"", Error::SUCCESS},
                                                     {"FAILED", Error::FAILED},
                                                     {"BUSY", Error::BUSY},
                                                     {"ALREADY_BOUND", Error::ALREADY_BOUND},
                                                     {"NOT_BOUND", Error::NOT_BOUND},
                                                     {"CANCELLED", Error::CANCELLED}};
    std::vector<Event> result;
    std::istringstream in(script);
    for (std::string word; in >> word;) {
        auto const call = word.substr(0, word.find(':'));
        result.emplace_back(call, errors.at(call == word ? "" : word.substr(call.size() + 1)));
    }
    return result;
}

class ABinderProxy : public testing::Test {
protected:
    RecordingListener listener_;
    BareProxy proxy_{&listener_};
};

TEST(ThePhasesOfABinderProxy, FollowTheTable) {
    for (auto const& [steps, events] : PHASES) {
        SCOPED_TRACE(steps);
        RecordingListener listener;
        BareProxy proxy(&listener);
        for (auto const& [call, error] : parsed(steps)) {
            take(proxy, call, error);
        }
        EXPECT_EQ(listener.calls(), parsed(events));
    }
}

TEST_F(ABinderProxy, RecordsItsServerAndItsEnd) {
    EXPECT_EQ(proxy_.uuid(), SELF);
    EXPECT_EQ(proxy_.serverUuid(), Uuid::NIL);
    EXPECT_EQ(proxy_.startBinding(SERVER), Error::SUCCESS);
    EXPECT_EQ(proxy_.startBinding(OTHER_SERVER), Error::BUSY);
    EXPECT_EQ(proxy_.serverUuid(), SERVER);
    EXPECT_FALSE(proxy_.isTerminated());
    proxy_.terminate();
    EXPECT_TRUE(proxy_.isTerminated());
}

TEST_F(ABinderProxy, IsFreeAgainWhenABindingFails) {
    for (int code = 1; code < 256; ++code) {
        auto const error = static_cast<Error>(code);
        if (error != Error::ALREADY_BOUND) {
            ASSERT_EQ(proxy_.startBinding(SERVER), Error::SUCCESS);
            proxy_.endBinding(error);
            EXPECT_EQ(listener_.calls().back(), Event("bound", error));
            EXPECT_EQ(proxy_.startUnbinding(), Error::NOT_BOUND);
        }
    }
}

TEST_F(ABinderProxy, LetsItsListenerStartTheNextPhaseAndTerminateIt) {
    listener_.setHook([this](Event const& /*bound*/) {
        listener_.setHook([this](Event const& /*unbound*/) { proxy_.terminate(); });
        EXPECT_EQ(proxy_.startUnbinding(), Error::SUCCESS);
        proxy_.endUnbinding(Error::SUCCESS);
    });
    ASSERT_EQ(proxy_.startBinding(SERVER), Error::SUCCESS);
    proxy_.endBinding(Error::SUCCESS);
    EXPECT_THAT(listener_.calls(),
                ElementsAre(Event("bound", Error::SUCCESS), Event("unbound", Error::SUCCESS)));
    EXPECT_TRUE(proxy_.isTerminated());
}

TEST_F(ABinderProxy, LetsItsListenerDestroyIt) {
    auto proxy = std::make_unique<BareProxy>(&listener_);
    listener_.setHook([&](Event const& /*event*/) { proxy.reset(); });
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
    listener_.setHook([&](Event const& /*event*/) { call.run(); });
    ASSERT_EQ(proxy_.startBinding(SERVER), Error::SUCCESS);
    std::thread ending([this] { proxy_.endBinding(Error::SUCCESS); });
    call.expectToBeAwaitedBy([this] { proxy_.terminate(); });
    ending.join();
}

} // namespace
