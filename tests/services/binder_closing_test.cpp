// Bindings and unbindings that end early: no thread, no memory, another thread in between, a
// listener that throws.

#include "services/binder_frame.hpp"
#include "support/allocations.hpp"
#include "support/manual_timer.hpp"
#include "support/stand_in/stand_in.hpp"

#include <mosquittopp.h>

#include <stdexcept>
#include <system_error>

namespace {

using support::FailingAllocation;
using support::InterruptedAllocation;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;
using Operation = support::StandIn::Operation;

using Error = BinderError;

/// A proxy over a script in place of the broker library. Its timers never expire.
class AProxyOnAScript : public testing::Test {
protected:
    using Proxy = mqtt::BinderMqttProxy;
    using Uuid = zym::common::Uuid;

    AProxyOnAScript() { manual_timer::reset(); }
    ~AProxyOnAScript() override { manual_timer::reset(); }

    std::vector<support::StandIn::Call> requests(std::string const& name) const {
        std::vector<support::StandIn::Call> found;
        for (auto const& call : script->calls(Operation::PUBLISH)) {
            if (call.topic.find("/" + name + "?\?/") != std::string::npos) {
                found.push_back(call);
            }
        }
        return found;
    }

    /// Answers the last request of this name, and returns when that has been dealt with.
    void answer(std::string const& name, int code, std::string const& members = "") {
        auto const request = requests(name).back();
        script->deliver(replyTopicFor(request.topic),
                        replyText(idIn(request.payload), code, members));
        script->runInLoop([](auto&) {});
    }

    void tellTime() {
        for (int sample = 0; sample < 10; ++sample) {
            answer("timeSync", 1, "\"client\": 1.5, \"ref\": 2.5");
        }
    }

    void bind() {
        ASSERT_EQ(proxy->bind(server, AN_HOUR), Error::SUCCESS);
        answer("bind", 1);
        tellTime();
        ASSERT_EQ(proxy->bind(server, AN_HOUR), Error::ALREADY_BOUND);
    }

    void expectFree() { EXPECT_EQ(proxy->unbind(AN_HOUR), Error::NOT_BOUND); }

    /// None for a timer, after so many.
    static void haveNoThread(int available = 0) {
        manual_timer::onRestart([left = std::make_shared<int>(available)] {
            if (--*left < 0) {
                throw std::system_error(
                    std::make_error_code(std::errc::resource_unavailable_try_again));
            }
        });
    }

    BindingRecorder recorder;
    Uuid const id = support::uniqueId();
    Uuid const server = support::uniqueId();
    std::unique_ptr<mqtt::MqttClient> mqtt = support::testClient("host", 1883);
    std::shared_ptr<support::StandIn> script = support::StandIn::last();
    std::unique_ptr<Proxy> proxy =
        std::make_unique<Proxy>(*mqtt, PLANT, DESK, id, PANEL, &recorder);
};

using ABindingWithoutAThread = AProxyOnAScript;

TEST_F(ABindingWithoutAThread, Fails) {
    haveNoThread();
    EXPECT_THROW(static_cast<void>(proxy->bind(server, AN_HOUR)), std::system_error);
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::FAILED)));
    EXPECT_THAT(requests("bind"), IsEmpty());
    expectFree();
    manual_timer::reset();
    bind();
}

TEST_F(ABindingWithoutAThread, FailsWhenTheTimeCannotBeRead) {
    haveNoThread(1);
    ASSERT_EQ(proxy->bind(server, AN_HOUR), Error::SUCCESS);
    answer("bind", 1);
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::NOT_SYNCHRONIZED)));
    expectFree();
    manual_timer::reset();
    bind();
    EXPECT_TRUE(proxy->isTimeBaseSynchronized());
}

TEST_F(ABindingWithoutAThread, IsLeftToBeUnboundByACallThatCannotReadTheTime) {
    haveNoThread();
    BlockingThread caller(
        [&] { EXPECT_EQ(proxy->bindSync(server, AN_HOUR), Error::NOT_SYNCHRONIZED); });
    ASSERT_TRUE(support::eventually([&] { return !requests("bind").empty(); }));
    answer("bind", 1);
    caller.join();
    EXPECT_THAT(recorder.events(), IsEmpty());
    manual_timer::reset();
    ASSERT_EQ(proxy->unbind(AN_HOUR), Error::SUCCESS);
    answer("unbind", 1);
    EXPECT_THAT(recorder.events(), ElementsAre(unbound(Error::SUCCESS)));
    expectFree();
}

TEST_F(ABindingWithoutAThread, StaysWhenItCannotBeUnbound) {
    bind();
    haveNoThread();
    EXPECT_THROW(static_cast<void>(proxy->unbind(AN_HOUR)), std::system_error);
    EXPECT_EQ(recorder.events().back(), unbound(Error::FAILED));
    EXPECT_THAT(requests("unbind"), IsEmpty());
    EXPECT_EQ(proxy->bind(server, AN_HOUR), Error::ALREADY_BOUND);
    manual_timer::reset();
    ASSERT_EQ(proxy->unbind(AN_HOUR), Error::SUCCESS);
    answer("unbind", 1);
    expectFree();
}

/// Counts without asking for memory.
class EventCounter final : public zym::common::BinderProxy::Listener {
public:
    void onBound(Error error) override { (error == Error::CANCELLED ? cancelled : failed) += 1; }
    void onUnbound(Error error) override { (error == Error::SUCCESS ? done : failed) += 1; }
    unsigned cancelled = 0;
    unsigned failed = 0;
    unsigned done = 0;
};

class ABindingWithoutMemory : public AProxyOnAScript {
protected:
    ABindingWithoutMemory() {
        proxy = std::make_unique<Proxy>(*mqtt, PLANT, DESK, id, PANEL, &events);
    }
    ~ABindingWithoutMemory() override { proxy.reset(); }

    void request() { ASSERT_EQ(proxy->bind(server, AN_HOUR), Error::SUCCESS); }

    /// @return whether this allocation of the worker was needed
    bool answerBindingWithout(std::size_t which) {
        auto const request = requests("bind").back();
        auto topic = replyTopicFor(request.topic);
        auto payload = replyText(idIn(request.payload), 1);
        mosquitto_message message{};
        message.topic = topic.data();
        message.payload = payload.data();
        message.payloadlen = static_cast<int>(payload.size());
        bool happened = false;
        script->runInLoop([&](mosqpp::mosquittopp& object) {
            FailingAllocation const failing(which);
            object.on_message(&message);
            happened = failing.happened();
        });
        return happened;
    }

    EventCounter events;
};

TEST_F(ABindingWithoutMemory, Fails) {
    auto const failures = support::failEachAllocation([&] { request(); },
                                                      [&](unsigned which) {
                                                          SCOPED_TRACE(which);
                                                          EXPECT_LE(events.failed, which);
                                                          EXPECT_THAT(requests("bind"), IsEmpty());
                                                          expectFree();
                                                      });
    EXPECT_GE(failures, 10U);
    EXPECT_GE(events.failed, failures - 3) << "but for what comes before it begins";
}

TEST_F(ABindingWithoutMemory, IsCalledOffAllTheSame) {
    unsigned failures = 0;
    bool lacking = true;
    for (unsigned which = 1; lacking; ++which) {
        SCOPED_TRACE(which);
        request();
        try {
            FailingAllocation const failing(which);
            ASSERT_EQ(proxy->unbind(AN_HOUR), Error::SUCCESS);
            lacking = failing.happened();
            EXPECT_EQ(proxy->unbind(AN_HOUR), Error::BUSY);
        } catch (std::bad_alloc const&) {
            EXPECT_EQ(events.failed, ++failures);
        }
        proxy->cancelUnbinding();
        EXPECT_EQ(events.cancelled, which);
        EXPECT_EQ(events.done + events.failed, which);
        expectFree();
    }
    EXPECT_GE(failures, 10U);
}

TEST_F(ABindingWithoutMemory, FailsWhenTheTimeCannotBeRead) {
    unsigned failures = 0;
    bool lacking = true;
    for (std::size_t which = 1; lacking; ++which) {
        SCOPED_TRACE(which);
        events = EventCounter();
        request();
        auto const before = requests("timeSync").size();
        lacking = answerBindingWithout(which);
        if (events.failed == 0 && requests("timeSync").size() == before) {
            answer("bind", 1); // the first one was lost
        }
        EXPECT_EQ(requests("timeSync").size(), before + 1 - events.failed);
        failures += events.failed;
        EXPECT_EQ(proxy->unbindSync(0), events.failed == 0 ? Error::SUCCESS : Error::NOT_BOUND);
    }
    EXPECT_GE(failures, 5U);
}

/// Another thread unbinds, at any moment.
class ABindingInterrupted : public AProxyOnAScript {};

TEST_F(ABindingInterrupted, IsCalledOffOrHasNotBegun) {
    bool interrupted = true;
    for (std::size_t which = 1; interrupted; ++which) {
        SCOPED_TRACE(which);
        Error result = Error::FAILED;
        std::unique_ptr<BlockingThread> other;
        {
            InterruptedAllocation const allocation(which, [&] {
                other = std::make_unique<BlockingThread>([&] { result = proxy->unbindSync(0); });
                EXPECT_TRUE(other->isBlockedOrReturns());
            });
            ASSERT_EQ(proxy->bind(server, AN_HOUR), Error::SUCCESS);
            interrupted = allocation.happened();
        }
        other.reset();
        if (result != Error::SUCCESS) {
            EXPECT_THAT(result, AnyOf(Error::NOT_BOUND, Error::FAILED));
            EXPECT_EQ(proxy->unbindSync(0), Error::SUCCESS);
        }
        expectFree();
    }
    EXPECT_THAT(recorder.events(), testing::Contains(bound(Error::CANCELLED)));
}

/// Its calls throw, on every thread.
class AListenerThatThrows : public AProxyOnAScript {
protected:
    AListenerThatThrows() {
        recorder.setHook([](auto const&) { throw std::runtime_error("from a listener"); });
    }
};

TEST_F(AListenerThatThrows, DoesNotKeepABindingFromBeingCalledOff) {
    ASSERT_EQ(proxy->bind(server, AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(proxy->unbind(AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(requests("unbind").size(), 1U);
    proxy->cancelUnbinding();
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::CANCELLED), unbound(Error::SUCCESS)));
    EXPECT_EQ(proxy->bindSync(server, 0), Error::TIMEOUT);
    EXPECT_EQ(proxy->bind(server, AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(proxy->unbindSync(0), Error::SUCCESS);
    expectFree();
}

} // namespace
