// A proxy with the stand-in for the broker library: its messages, and bindings that fail without a
// thread, or are interrupted by another thread.

#include "mqtt/mosquittopp.hpp"
#include "services/binder_fixture.hpp"
#include "support/allocations.hpp"
#include "support/manual_timer.hpp"
#include "support/stand_in/stand_in.hpp"

#include <system_error>

namespace {

using support::InterruptedAllocation;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;
using Operation = support::StandIn::Operation;

using Error = BinderError;

/// Its timers never expire.
class AScriptedProxy : public testing::Test {
protected:
    using Proxy = mqtt::BinderMqttProxy;
    using Uuid = zym::common::Uuid;

    AScriptedProxy() { manual_timer::reset(); }
    ~AScriptedProxy() override { manual_timer::reset(); }

    std::vector<support::StandIn::Call> requests(std::string const& name) const {
        std::vector<support::StandIn::Call> found;
        for (auto const& call : standIn->calls(Operation::PUBLISH)) {
            if (call.topic.find("/" + name + "?\?/") != std::string::npos) {
                found.push_back(call);
            }
        }
        return found;
    }

    /// Replies to the last request of this name; returns when that has been handled.
    void reply(std::string const& name, int code, std::string const& members = "") {
        auto const request = requests(name).back();
        deliver(replyTopicFor(request.topic), replyText(idIn(request.payload), code, members));
    }
    void deliver(std::string const& topic, std::string const& payload) {
        standIn->deliver(topic, payload);
        standIn->runInLoop([](auto&) {});
    }

    void replyWithTimes() {
        for (int sample = 0; sample < 10; ++sample) {
            reply("timeSync", 1, "\"client\": 1.5, \"ref\": 2.5");
        }
    }

    void bind() {
        ASSERT_EQ(proxy->bind(server, LONG_TIMEOUT_S), Error::SUCCESS);
        reply("bind", 1);
        replyWithTimes();
        ASSERT_EQ(proxy->bind(server, LONG_TIMEOUT_S), Error::ALREADY_BOUND);
    }

    void expectUnbound() { EXPECT_EQ(proxy->unbind(LONG_TIMEOUT_S), Error::NOT_BOUND); }

    /// Only so many timers can start a thread.
    static void limitThreads(int available = 0) {
        manual_timer::onRestart([left = std::make_shared<int>(available)] {
            if (--*left < 0) {
                throw std::system_error(
                    std::make_error_code(std::errc::resource_unavailable_try_again));
            }
        });
    }

    BindingRecorder recorder;
    Uuid const id = mqtt::test::uniqueId();
    Uuid const server = mqtt::test::uniqueId();
    std::unique_ptr<mqtt::MqttClient> mqtt = mqtt::test::testClient("host", 1883);
    std::shared_ptr<support::StandIn> standIn = support::StandIn::last();
    std::unique_ptr<Proxy> proxy =
        std::make_unique<Proxy>(*mqtt, BASE_TOPIC, SUB_PATH, id, BOUND_TOPIC, &recorder);
};

class AMessageOfAProxy : public AScriptedProxy {
protected:
    std::string topicOf(std::string const& name) const {
        return "svc/pump/" + server.base64URL() + "/" + name + "?\?/" + id.base64URL();
    }

    void expectRequest(std::string const& name, std::string const& topic,
                       std::string const& members = "") {
        ASSERT_FALSE(requests(name).empty());
        auto const request = requests(name).back();
        EXPECT_EQ(request.topic, topic);
        EXPECT_EQ(request.payload,
                  "{\n  \"$reqId\": " + std::to_string(idIn(request.payload)) + members + "\n}");
        EXPECT_EQ(request.qos, 2);
        EXPECT_FALSE(request.retain);
    }
};

TEST_F(AMessageOfAProxy, RequestsABindingAndItsEnd) {
    std::string const boundTopic = ",\n  \"topic\": \"svc/panel\"";
    ASSERT_EQ(proxy->bind(server, LONG_TIMEOUT_S), Error::SUCCESS);
    expectRequest("bind", topicOf("desk/bind"), boundTopic);
    ASSERT_EQ(proxy->unbind(LONG_TIMEOUT_S), Error::SUCCESS);
    expectRequest("unbind", topicOf("desk/unbind"));
    Proxy plain(*mqtt, BASE_TOPIC, mqtt::Topic(), id, BOUND_TOPIC, &recorder);
    ASSERT_EQ(plain.bind(Uuid::NIL, LONG_TIMEOUT_S), Error::SUCCESS);
    expectRequest("bind", "svc/pump/bind?\?/" + id.base64URL(), boundTopic);
    ASSERT_EQ(plain.unbind(LONG_TIMEOUT_S), Error::SUCCESS);
    expectRequest("unbind", "svc/pump/unbind?\?/" + id.base64URL());
}

TEST_F(AMessageOfAProxy, RequestsTheTimeTenTimesBeforeItIsBound) {
    ASSERT_EQ(proxy->bind(server, LONG_TIMEOUT_S), Error::SUCCESS);
    reply("bind", 21, "\"topic\": 7, \"more\": []");
    EXPECT_EQ(requests("timeSync").back().topic, topicOf("timeSync"));
    for (std::size_t count = 1; count <= 10; ++count) {
        EXPECT_THAT(recorder.calls(), IsEmpty());
        EXPECT_EQ(requests("timeSync").size(), count);
        reply("timeSync", 1, "\"client\": 1.5, \"ref\": 2.5");
    }
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::SUCCESS)));
    EXPECT_EQ(requests("timeSync").size(), 10U);
    ASSERT_EQ(proxy->unbind(LONG_TIMEOUT_S), Error::SUCCESS);
    reply("unbind", 1, "\"more\": []");
    EXPECT_EQ(recorder.calls().back(), unbound(Error::SUCCESS));
}

/// No message causes that: the name in a reply is that of its request.
TEST_F(AMessageOfAProxy, IsNotAnsweredByAReplyWithAnotherName) {
    using Listener = mqtt::RequestReplyClient::Listener*;
    // Only this kind of cast converts to a private base class.
    auto* const listener = Listener(proxy.get());
    ASSERT_EQ(proxy->bind(server, LONG_TIMEOUT_S), Error::SUCCESS);
    for (std::string const name : {"", "Bind", "unbinding"}) {
        listener->onReply(1, name, id, server, *mqtt::NO_DATA, Code::SUCCESS);
        listener->onReply(1, name, id, server, *mqtt::NO_DATA, Code{23});
    }
    EXPECT_THAT(recorder.calls(), IsEmpty());
    EXPECT_THAT(requests("timeSync"), IsEmpty());
}

using ABindingWithoutAThread = AScriptedProxy;

TEST_F(ABindingWithoutAThread, Fails) {
    limitThreads();
    EXPECT_THROW(static_cast<void>(proxy->bind(server, LONG_TIMEOUT_S)), std::system_error);
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::FAILED)));
    EXPECT_THAT(requests("bind"), IsEmpty());
    expectUnbound();
    manual_timer::reset();
    bind();
}

TEST_F(ABindingWithoutAThread, FailsWhenTheTimeCannotBeRead) {
    limitThreads(1);
    ASSERT_EQ(proxy->bind(server, LONG_TIMEOUT_S), Error::SUCCESS);
    reply("bind", 1);
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::NOT_SYNCHRONIZED)));
    expectUnbound();
    manual_timer::reset();
    bind();
    EXPECT_TRUE(proxy->isTimeBaseSynchronized());
}

TEST_F(ABindingWithoutAThread, CanBeUnboundAfterACallThatCannotReadTheTime) {
    limitThreads();
    BlockingThread caller(
        [&] { EXPECT_EQ(proxy->bindSync(server, LONG_TIMEOUT_S), Error::NOT_SYNCHRONIZED); });
    ASSERT_TRUE(mqtt::test::eventually([&] { return !requests("bind").empty(); }));
    reply("bind", 1);
    caller.join();
    EXPECT_THAT(recorder.calls(), IsEmpty());
    manual_timer::reset();
    ASSERT_EQ(proxy->unbind(LONG_TIMEOUT_S), Error::SUCCESS);
    reply("unbind", 1);
    EXPECT_THAT(recorder.calls(), ElementsAre(unbound(Error::SUCCESS)));
    expectUnbound();
}

/// Another thread unbinds during each allocation in turn.
class ABindingInterrupted : public AScriptedProxy {};

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
            ASSERT_EQ(proxy->bind(server, LONG_TIMEOUT_S), Error::SUCCESS);
            interrupted = allocation.happened();
        }
        other.reset();
        if (result != Error::SUCCESS) {
            EXPECT_THAT(result, AnyOf(Error::NOT_BOUND, Error::FAILED));
            EXPECT_EQ(proxy->unbindSync(0), Error::SUCCESS);
        }
        expectUnbound();
    }
    EXPECT_THAT(recorder.calls(), testing::Contains(bound(Error::CANCELLED)));
}

} // namespace
