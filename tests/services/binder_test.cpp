// Bindings and their failures.

#include "services/binder_fixture.hpp"

#include <atomic>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Error = BinderError;

class AMessageOfAProxy : public AProxyOnAScript {
protected:
    void expectRequest(std::string const& name, std::string const& topic,
                       std::string const& members = "") {
        ASSERT_FALSE(requests(name).empty());
        auto const request = requests(name).back();
        EXPECT_EQ(request.topic, topic + "?\?/" + id.base64URL());
        EXPECT_EQ(request.payload,
                  "{\n  \"$reqId\": " + std::to_string(idIn(request.payload)) + members + "\n}");
        EXPECT_EQ(request.qos, 2);
        EXPECT_FALSE(request.retain);
    }

    std::string const BOUND = ",\n  \"topic\": \"svc/panel\"";
};

TEST_F(AMessageOfAProxy, RequestsABindingTheTimeAndItsEndOfEachServer) {
    for (Uuid const& one : {server, mqtt::test::uniqueId()}) {
        auto const base = "svc/pump/" + one.base64URL() + "/";
        ASSERT_EQ(proxy->bindSync(one, LONG_TIMEOUT_S), Error::SUCCESS);
        expectRequest("bind", base + "desk/bind", BOUND);
        EXPECT_EQ(requests("timeSync").back().topic, base + "timeSync?\?/" + id.base64URL());
        ASSERT_EQ(proxy->unbindSync(LONG_TIMEOUT_S), Error::SUCCESS);
        expectRequest("unbind", base + "desk/unbind");
    }
}

TEST_F(AMessageOfAProxy, NeedsNeitherServerNorSubPathNorListener) {
    Proxy plain(*mqtt, BASE_TOPIC, mqtt::Topic(), id, BOUND_TOPIC, nullptr);
    ASSERT_EQ(plain.bindSync(Uuid::NIL, LONG_TIMEOUT_S), Error::SUCCESS);
    expectRequest("bind", "svc/pump/bind", BOUND);
    ASSERT_EQ(plain.unbindSync(LONG_TIMEOUT_S), Error::SUCCESS);
    expectRequest("unbind", "svc/pump/unbind");
}

/// No message causes that: the name in a reply is that of its request.
TEST_F(AMessageOfAProxy, IsNotAnsweredByAReplyWithAnotherName) {
    using Listener = mqtt::RequestReplyClient::Listener*;
    // Only this kind of cast converts to a private base class.
    auto* const listener = Listener(proxy.get());
    ignore("bind");
    ASSERT_EQ(proxy->bind(server, LONG_TIMEOUT_S), Error::SUCCESS);
    for (std::string const name : {"", "Bind", "unbinding"}) {
        listener->onReply(1, name, id, server, *mqtt::NO_DATA, Code::SUCCESS);
        listener->onReply(1, name, id, server, *mqtt::NO_DATA, Code{23});
    }
    EXPECT_THAT(recorder.calls(), IsEmpty());
    EXPECT_THAT(requests("timeSync"), IsEmpty());
}

class ABinding : public AProxyOnAScript {};

TEST_F(ABinding, ExistsWhenBindSyncReturns) {
    expectUnbound();
    bind();
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::SUCCESS)));
    expectBound();
    EXPECT_EQ(requests("bind").size(), 1U);
}

TEST_F(ABinding, ExistsWhenTheServersTimeHasBeenReadTenTimes) {
    auto const expectBusy = [this](std::size_t timeRequests) {
        EXPECT_EQ(proxy->bind(server, LONG_TIMEOUT_S), Error::BUSY);
        EXPECT_EQ(proxy->bindSync(server, LONG_TIMEOUT_S), Error::BUSY);
        EXPECT_FALSE(proxy->isTimeBaseSynchronized());
        EXPECT_THAT(recorder.calls(), IsEmpty());
        EXPECT_EQ(requests("timeSync").size(), timeRequests);
    };
    ignore("bind");
    ignore("timeSync");
    ASSERT_EQ(proxy->bind(server, LONG_TIMEOUT_S), Error::SUCCESS);
    expectBusy(0);
    reply("bind", 21); // the server's own code for a client that is bound already
    for (std::size_t count = 1; count <= 10; ++count) {
        expectBusy(count);
        reply("timeSync");
    }
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::SUCCESS)));
    expectBound();
    EXPECT_EQ(requests("timeSync").size(), 10U);
}

TEST_F(ABinding, ExistsWhenTheListenerIsCalledAndMayBeEndedInsideTheCall) {
    recorder.setHook([&](BindingEvent const& event) {
        EXPECT_EQ(proxy->isTimeBaseSynchronized(), event.first == "bound");
        if (recorder.count() == 3) {
            return;
        }
        auto const next = event.first == "bound" ? proxy->unbind(LONG_TIMEOUT_S)
                                                 : proxy->bind(server, LONG_TIMEOUT_S);
        EXPECT_EQ(next, Error::SUCCESS);
    });
    EXPECT_EQ(proxy->bind(server, LONG_TIMEOUT_S), Error::SUCCESS);
    ASSERT_TRUE(recorder.waitForCount(3));
    expectBound();
    EXPECT_THAT(recorder.calls(),
                ElementsAre(bound(Error::SUCCESS), unbound(Error::SUCCESS), bound(Error::SUCCESS)));
}

/// Makes the operations for derived classes public.
class DerivedProxy : public mqtt::BinderMqttProxy {
public:
    DerivedProxy(mqtt::MqttClient& client, zym::common::Uuid const& self,
                 zym::common::BinderProxy::Listener* listener)
        : zym::common::BinderProxy(self, listener),
          BinderMqttProxy(client, BASE_TOPIC, SUB_PATH, self, BOUND_TOPIC, listener) {}
    ~DerivedProxy() override { release(); }

    using BinderMqttProxy::endBinding;

    std::atomic<bool> endsBinding{true}; ///< when the time is known, as in the base class
    std::atomic<int> synchronizations{0};

protected:
    void onTimeSynchronized() override {
        bool const ends = endsBinding;
        ++synchronizations;
        if (ends) {
            BinderMqttProxy::onTimeSynchronized();
        }
    }
};

/// Through the hook of a derived class.
TEST_F(ABinding, ExistsWhenTheTimeIsKnownUnlessADerivedProxyPreventsIt) {
    DerivedProxy derived(*mqtt, id, &recorder);
    EXPECT_EQ(derived.bindSync(server, LONG_TIMEOUT_S), Error::SUCCESS);
    EXPECT_EQ(derived.unbindSync(LONG_TIMEOUT_S), Error::SUCCESS);
    derived.endsBinding = false;
    EXPECT_EQ(derived.bindSync(server, LONG_TIMEOUT_S), Error::SUCCESS);
    EXPECT_EQ(derived.bind(server, LONG_TIMEOUT_S), Error::BUSY);
    EXPECT_EQ(derived.unbindSync(LONG_TIMEOUT_S), Error::SUCCESS);
    EXPECT_EQ(derived.bind(server, LONG_TIMEOUT_S), Error::SUCCESS);
    ASSERT_TRUE(mqtt::test::eventually([&] { return derived.synchronizations == 3; }));
    EXPECT_EQ(derived.bind(server, LONG_TIMEOUT_S), Error::BUSY);
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::SUCCESS), unbound(Error::SUCCESS),
                                              unbound(Error::SUCCESS)));
}

class ABindingThatFails : public AProxyOnAScript {};

/// Both in a call that waits and with the listener.
TEST_F(ABindingThatFails, EndsWithTheErrorOfTheReply) {
    std::size_t calls = 0;
    for (auto const& [code, error] :
         {std::pair(0, Error::FAILED), std::pair(3, Error::TIMEOUT), std::pair(4, Error::NO_SERVER),
          std::pair(7, Error::CANCELLED), std::pair(17, Error::FAILED),
          std::pair(255, Error{239})}) {
        SCOPED_TRACE(code);
        answer("bind", code);
        EXPECT_EQ(proxy->bindSync(server, LONG_TIMEOUT_S), error);
        expectUnbound();
        EXPECT_EQ(proxy->bind(server, LONG_TIMEOUT_S), Error::SUCCESS);
        calls += 2;
        ASSERT_TRUE(recorder.waitForCount(calls));
        expectUnbound();
        EXPECT_EQ(recorder.calls()[calls - 2], bound(error));
        EXPECT_EQ(recorder.calls()[calls - 1], bound(error));
    }
    EXPECT_THAT(requests("timeSync"), IsEmpty());
    answer("bind");
    bind();
    expectBound();
}

TEST_F(ABindingThatFails, EndsWithoutAReplyWhenItsTimeIsOver) {
    ignore("bind");
    EXPECT_EQ(proxy->bindSync(server, 0), Error::TIMEOUT);
    EXPECT_EQ(proxy->bind(server, 7), Error::SUCCESS);
    EXPECT_EQ(manual_timer::record().period, std::chrono::seconds(7));
    EXPECT_THAT(recorder.calls(), ElementsAre(bound(Error::TIMEOUT)));
}

/// A derived class has ended the binding in the base, but its request is still pending.
TEST_F(ABindingThatFails, EndsWithBusyWhenItsRequestCannotBeSent) {
    ignore("bind");
    for (bool const blocking : {false, true}) {
        BindingRecorder own;
        DerivedProxy derived(*mqtt, id, &own);
        EXPECT_EQ(derived.bind(server, LONG_TIMEOUT_S), Error::SUCCESS);
        derived.endBinding(Error::FAILED);
        EXPECT_EQ(blocking ? derived.bindSync(server, LONG_TIMEOUT_S)
                           : derived.bind(server, LONG_TIMEOUT_S),
                  Error::BUSY);
        EXPECT_THAT(own.calls(), ElementsAre(bound(Error::FAILED), bound(Error::BUSY)));
        EXPECT_EQ(derived.unbind(LONG_TIMEOUT_S), Error::NOT_BOUND);
        EXPECT_EQ(derived.bindSync(server, 0), Error::TIMEOUT);
    }
    EXPECT_EQ(requests("bind").size(), 4U) << "none for the refused ones";
}

} // namespace
