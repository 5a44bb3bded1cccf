// The server's time, other servers, and servers and brokers that come back.

#include "services/binder_frame.hpp"

namespace {

using testing::ElementsAre;

using Error = BinderError;

class TheServersTime : public WithAServer {};

TEST_F(TheServersTime, IsUnknownWithoutABinding) {
    EXPECT_FALSE(proxy->isTimeBaseSynchronized());
    proxy->forceTimeBaseSync();
    settle();
    EXPECT_EQ(requests("timeSync"), 0U);
    EXPECT_FALSE(proxy->isTimeBaseSynchronized());
}

TEST_F(TheServersTime, IsUnknownAfterTheBinding) {
    bind();
    EXPECT_TRUE(proxy->isTimeBaseSynchronized());
    EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::SUCCESS);
    EXPECT_FALSE(proxy->isTimeBaseSynchronized());
    EXPECT_FALSE(isTimeOf(server, proxy->timeBase()));
}

TEST_F(TheServersTime, IsReadAnewWhenAskedTo) {
    bind();
    settle();
    EXPECT_EQ(requests("timeSync"), 10U);
    proxy->forceTimeBaseSync();
    EXPECT_TRUE(proxy->isTimeBaseSynchronized());
    awaitRequest("timeSync", 11);
    // One sample of small weight, over an estimate that was forgotten.
    EXPECT_TRUE(support::eventually([&] {
        auto const time = proxy->timeBase();
        return time + 1000 < server.timeBase() && time > server.timeBase() - 10000 + 100;
    }));
    expectBound();
    EXPECT_EQ(recorder.count(), 1U);
}

TEST_F(TheServersTime, IsThatOfTheServerBoundTo) {
    BindServer other(broker, support::uniqueId(), 1000000);
    bind();
    EXPECT_TRUE(isTimeOf(server, proxy->timeBase()));
    EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(proxy->bindSync(other.id, AN_HOUR), Error::SUCCESS);
    EXPECT_TRUE(isTimeOf(other, proxy->timeBase()));
    EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(server.unbindings.count(), 1U);
    EXPECT_EQ(other.unbindings.count(), 1U);
    EXPECT_EQ(proxy->bind(server.id, AN_HOUR), Error::SUCCESS);
    ASSERT_TRUE(recorder.waitForCount(5));
    EXPECT_TRUE(isTimeOf(server, proxy->timeBase()));
}

TEST_F(TheServersTime, SurvivesARepeatedBinding) {
    for (int round = 0; round < 5; ++round) {
        bind();
        EXPECT_TRUE(isTimeOf(server, proxy->timeBase()));
        EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::SUCCESS);
    }
}

TEST_F(TheServersTime, IsKnownToEachOfTwoProxies) {
    BindingRecorder others;
    Proxy other(*mqtt, PLANT, DESK, support::uniqueId(), "other", &others);
    EXPECT_EQ(proxy->bind(server.id, AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(other.bind(server.id, AN_HOUR), Error::SUCCESS);
    ASSERT_TRUE(recorder.waitForCount(1));
    ASSERT_TRUE(others.waitForCount(1));
    EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::SUCCESS);
    expectFree();
    EXPECT_TRUE(other.isTimeBaseSynchronized());
    EXPECT_TRUE(isTimeOf(server, other.timeBase()));
    EXPECT_EQ(other.unbindSync(AN_HOUR), Error::SUCCESS);
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::SUCCESS), unbound(Error::SUCCESS)));
    EXPECT_THAT(others.events(), ElementsAre(bound(Error::SUCCESS), unbound(Error::SUCCESS)));
}

class AServerThatComesBack : public WithAProxy {
protected:
    void serve() {
        server = nullptr;
        server = std::make_unique<BindServer>(broker, serverId);
    }

    Uuid const serverId = support::uniqueId();
    std::unique_ptr<BindServer> server;
};

TEST_F(AServerThatComesBack, FindsItsClientsBound) {
    serve();
    EXPECT_EQ(proxy->bindSync(serverId, AN_HOUR), Error::SUCCESS);
    serve();
    EXPECT_TRUE(proxy->isTimeBaseSynchronized());
    EXPECT_EQ(proxy->bindSync(serverId, AN_HOUR), Error::ALREADY_BOUND);
    server->unbindings.setAnswer(saying(22));
    EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::SUCCESS) << "though it knows of no binding";
    EXPECT_EQ(proxy->bindSync(serverId, AN_HOUR), Error::SUCCESS);
}

TEST_F(AServerThatComesBack, IsBoundWhenItComesAtLast) {
    EXPECT_EQ(proxy->bindSync(serverId, 0), Error::TIMEOUT);
    serve();
    EXPECT_EQ(proxy->bindSync(serverId, AN_HOUR), Error::SUCCESS);
    server = nullptr;
    EXPECT_EQ(proxy->unbindSync(0), Error::SUCCESS);
}

class ABrokerThatComesBack : public WithAServer {
protected:
    void restartBroker() {
        broker.kill();
        for (auto const* client : clients) {
            ASSERT_TRUE(support::eventually(
                [&] { return client->communicationState() != conv::ComState::CONNECTED; }));
        }
        broker.start();
        for (auto const* client : clients) {
            ASSERT_TRUE(support::becomesConnected(*client));
        }
        // Both are subscribed again.
        ASSERT_EQ(mqtt->publishWait("settled", "", 1, false, 30), mqtt::MqttClient::Error::SUCCESS);
        server.settle();
    }

    std::vector<mqtt::MqttClient const*> const clients{mqtt.get(), &server.mqtt()};
};

TEST_F(ABrokerThatComesBack, FindsEverythingAsItWas) {
    bind();
    restartBroker();
    EXPECT_TRUE(proxy->isTimeBaseSynchronized());
    EXPECT_TRUE(isTimeOf(server, proxy->timeBase()));
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::SUCCESS)));
    expectBound();
    EXPECT_EQ(proxy->unbindSync(AN_HOUR), Error::SUCCESS);
    expectFree();
    bind();
}

TEST_F(ABrokerThatComesBack, IsNotConfusedByABindingThatCameAndWentWithoutIt) {
    broker.kill();
    for (auto const* client : clients) {
        ASSERT_TRUE(support::eventually(
            [&] { return client->communicationState() != conv::ComState::CONNECTED; }));
    }
    EXPECT_EQ(proxy->bind(server.id, AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(proxy->unbind(AN_HOUR), Error::SUCCESS);
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::CANCELLED)));
    broker.start();
    for (auto const* client : clients) {
        EXPECT_TRUE(support::becomesConnected(*client));
    }
    server.settle();
    // The server hears of it when it is subscribed in time, or never.
    proxy = makeProxy();
    bind();
}

/// What a derived proxy hears when the time is known.
class TheNewsOfTheTime : public WithAServer {
protected:
    TheNewsOfTheTime() { derived = std::make_unique<DerivedProxy>(*mqtt, id, &recorder); }

    std::unique_ptr<DerivedProxy> derived;
};

TEST_F(TheNewsOfTheTime, ReachesADerivedProxyThatWaits) {
    EXPECT_EQ(derived->bindSync(server.id, AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(derived->timesSynchronized(), 1);
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::SUCCESS)));
}

TEST_F(TheNewsOfTheTime, ReachesADerivedProxyWithAListener) {
    EXPECT_EQ(derived->bind(server.id, AN_HOUR), Error::SUCCESS);
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_EQ(derived->timesSynchronized(), 1);
    EXPECT_THAT(recorder.events(), ElementsAre(bound(Error::SUCCESS)));
}

TEST_F(TheNewsOfTheTime, EndsTheBindingOnlyWhereTheDerivedProxyConsents) {
    derived->setConsent(false);
    EXPECT_EQ(derived->bindSync(server.id, AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(derived->timesSynchronized(), 1);
    EXPECT_EQ(derived->bind(server.id, AN_HOUR), Error::BUSY);
    EXPECT_EQ(recorder.count(), 0U);
    EXPECT_EQ(derived->unbindSync(AN_HOUR), Error::SUCCESS);
    EXPECT_EQ(derived->bind(server.id, AN_HOUR), Error::SUCCESS);
    ASSERT_TRUE(derived->waitForTimes(2));
    EXPECT_EQ(derived->bind(server.id, AN_HOUR), Error::BUSY);
    EXPECT_THAT(recorder.events(), ElementsAre(unbound(Error::SUCCESS)));
}

} // namespace
