// Calls of one object that overlap, as the guide's second table allows them. The sanitizers find
// data races; here the object has to work afterwards.

#include "callback_test.hpp"
#include "guide.hpp"

#include "support/timeout_factor.hpp"

#include <mqtt/connection_options.hpp>

#include <gmock/gmock.h>

#include <thread>
#include <vector>

namespace {

using Binder = zym::common::Binder;
using Code = mqtt::RequestReply::ErrorCode;
using Error = mqtt::MqttClient::Error;
using Lock = mqtt::MqttDataBase::Lock;
using Names = std::vector<std::string>;
using std::chrono::milliseconds;
using zym::common::Uuid;

constexpr int ROUNDS = 40 / support::TIMEOUT_FACTOR;
/// For waits that other calls may end only by their time-out.
constexpr std::uint32_t SHORT_S = 1;

struct Repeated {
    std::function<void()> call;
    int rounds = ROUNDS;
};

/// Makes each of the calls repeatedly, on a thread of its own.
void allAtOnce(std::vector<Repeated> const& calls) {
    std::atomic<std::size_t> ready{0};
    std::vector<std::thread> threads;
    for (auto const& repeated : calls) {
        threads.emplace_back([&] {
            ++ready;
            while (ready < calls.size()) {
                std::this_thread::yield();
            }
            for (int i = 0; i < repeated.rounds; ++i) {
                repeated.call();
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

class AllAtOnce : public testing::Test {
protected:
    /// The calls, while a peer publishes on a topic of the object.
    void underMessages(std::string const& topic, std::string const& payload,
                       std::vector<Repeated> calls) {
        calls.push_back({[=] { t.peer.publish(topic, payload, 0); }, 5 * ROUNDS});
        allAtOnce(calls);
        // Acknowledged when the broker has handled all before it.
        t.peer.publish(t.topic("end"), "", 2);
    }

    /// Several threads end an object while another one uses it.
    template <class Object>
    static void endAtOnce(Object& object, Repeated const& use) {
        auto const end = [&object] { object.terminate(); };
        allAtOnce({{end, 1}, {end, 1}, use});
    }

    static void ignore(Error /*result*/) {}

    CallbackTest t;
};

TEST_F(AllAtOnce, MqttClient) {
    auto& client = *t.client;
    auto const x = t.topic("x");
    EventRecorder other;
    EventRecorder listener;
    underMessages(x, "hello",
                  {{[&] { client.publish(x, "1", 2, false); }},
                   {[&] { client.publishWait(x, "2", 1, false, SHORT_S); }, 4},
                   {[&] { client.clear(x); }},
                   {[&] {
                       ignore(client.subscribe(x, &t.events, 1));
                       client.unsubscribe(x, &t.events);
                   }},
                   {[&] {
                        ignore(client.subscribe(x, &other, 1));
                        client.unsubscribeWait(x, &other, SHORT_S);
                    },
                    4},
                   {[&] {
                       ignore(client.subscribe(x, &other, 2));
                       client.release(&other);
                   }},
                   {[&] {
                       client.registerListener(&listener);
                       client.unregisterListener(&listener);
                   }},
                   {[&] { client.disconnect(SHORT_S); }, 4},
                   {[&] { client.connect("", -1, SHORT_S); }, 4},
                   {[&] {
                        client.pause();
                        client.resume();
                    },
                    4},
                   {[&] {
                       client.setWill(x, "3", 0, false);
                       client.clearWill();
                       client.setOptions({});
                   }},
                   {[&] { client.lastFailure(); }},
                   {[&] { client.communicationState(); }}});
    client.release(&other);
    // A client that was disconnected last stays so.
    client.connect("", -1, TIMEOUT_S);
    EXPECT_TRUE(support::becomesConnected(client));
    t.flush();
}

TEST_F(AllAtOnce, MqttData) {
    auto& endpoint = *t.objects.endpoint;
    underMessages(t.topic("value"), R"({"@id": "new"})",
                  {{[&] { endpoint.publish(); }},
                   {[&] { endpoint.publishWait(); }, 1},
                   {[&] { endpoint.clean(); }},
                   {[&] { endpoint.setCurrentValueAsWill(); }},
                   {[&] {
                       Lock const lock(endpoint.mutex());
                       endpoint.value.id = "mine";
                       endpoint.setTopicBase(t.topic("value"));
                   }},
                   {[&] { endpoint.subscribe(&t.events, 1); }},
                   {[&] { endpoint.unsubscribe(); }},
                   {[&] {
                        Lock lock(endpoint.mutex());
                        endpoint.unsubscribeWait(lock);
                    },
                    1},
                   {[&] { endpoint.release(); }}});
    endpoint.release();
    EXPECT_EQ(endpoint.subscribe(&t.events, 1), Error::SUCCESS);
    EXPECT_TRUE(t.causes("value last", t.topic("value"), R"({"@id": "last"})"));
}

TEST_F(AllAtOnce, RequestReplyClient) {
    auto& requester = *t.objects.requester;
    auto const data = std::make_shared<NumberData>();
    auto const request = [&] {
        return requester.requestWait(t.objects.id, Uuid::NIL, data, nullptr, TIMEOUT_S);
    };
    allAtOnce({{[&] { t.objects.request(); }},
               {[&] { request(); }},
               {[&] { request(); }},
               {[&] { requester.waitEndOfRequest(TIMEOUT_S); }},
               {[&] { requester.cancel(); }}});
    requester.cancel();
    EXPECT_EQ(request(), Code::SUCCESS);
    endAtOnce(requester, {[&] { request(); }});
    EXPECT_EQ(request(), Code::CANCELLED);
}

TEST_F(AllAtOnce, RequestReplyServer) {
    auto& server = *t.objects.server;
    EXPECT_EQ(t.objects.serve(), Error::SUCCESS);
    underMessages(t.topic("service?\?/" + t.objects.id.base64URL()),
                  R"({"$reqId": 1, "number": 7})",
                  {{[&] { t.objects.serve(); }},
                   {[&] { server.unsubscribe(); }},
                   {[&] { server.unsubscribeWait(); }, 1},
                   {[&] { server.release(); }},
                   {[&] { EXPECT_EQ(server.requestTopic().text(), t.topic("service?\?")); }}});
    server.release();
    EXPECT_EQ(t.objects.serve(), Error::SUCCESS);
    t.flush();
    t.events.clear();
    t.sendRequest(t.topic("service?\?"));
    EXPECT_EQ(t.events.count("request"), 1U);
}

TEST_F(AllAtOnce, SynchronizedTimeBaseMqttProxy) {
    auto& proxy = *t.objects.timeProxy;
    auto const id = device().id;
    allAtOnce({{[&] { proxy.startSync(id); }},
               {[&] { proxy.synchronize(id, TIMEOUT_S); }, 5},
               {[&] { proxy.synchronize(id, TIMEOUT_S); }, 5},
               {[&] { proxy.stop(); }},
               {[&] { proxy.forceSync(); }},
               {[&] { proxy.registerListener(&t.events); }},
               {[&] { proxy.timeBase(); }}});
    proxy.stop();
    EXPECT_TRUE(proxy.synchronize(id, TIMEOUT_S));
    endAtOnce(proxy, {[&] { proxy.stop(); }});
    EXPECT_FALSE(proxy.startSync(id));
}

TEST_F(AllAtOnce, SynchronizedTimeBaseMqttAdaptor) {
    auto& timeBase = *t.objects.timeBase;
    auto const topic = t.topic(t.objects.id.base64URL() + "/timeSync?\?");
    t.sendRequest(topic);
    EXPECT_EQ(timeBase.reads, 1);
    underMessages(topic + "/" + t.objects.id.base64URL(), R"({"$reqId": 1, "client": 1.5})",
                  {{[&] { timeBase.timeBase(); }},
                   {[&] { timeBase.terminate(); }, 1},
                   {[&] { timeBase.terminate(); }, 1}});
    t.flush();
    int const reads = timeBase.reads;
    t.sendRequest(topic);
    EXPECT_EQ(timeBase.reads, reads);
}

TEST_F(AllAtOnce, BinderMqttProxy) {
    auto& binder = *t.objects.binder;
    auto const id = device().id;
    allAtOnce({{[&] { binder.bind(id, TIMEOUT_S); }},
               {[&] { binder.bindSync(id, TIMEOUT_S); }, 5},
               {[&] { binder.unbind(TIMEOUT_S); }},
               {[&] { binder.unbindSync(TIMEOUT_S); }, 5},
               {[&] { binder.forceTimeBaseSync(); }},
               {[&] { binder.timeBase(); }},
               {[&] { binder.isTimeBaseSynchronized(); }}});
    EXPECT_TRUE(support::eventually(
        [&] { return binder.unbindSync(TIMEOUT_S) == Binder::Error::NOT_BOUND; }));
    EXPECT_EQ(binder.bindSync(id, TIMEOUT_S), Binder::Error::SUCCESS);
    endAtOnce(binder, {[&] { binder.unbind(TIMEOUT_S); }});
    EXPECT_EQ(binder.bind(id, TIMEOUT_S), Binder::Error::CANCELLED);
}

TEST_F(AllAtOnce, ServiceDiscovererMqtt) {
    auto& discoverer = *t.objects.discoverer;
    // `cleanSubscriptions` makes a run under way end by time-out.
    allAtOnce({{[&] { discoverer.discoverSync(SHORT_S, true); }, 4},
               {[&] { discoverer.discoverSync(SHORT_S, false); }, 4},
               {[&] { discoverer.waitChange(0, true); }, 4},
               {[&] { discoverer.links(); }},
               {[&] { discoverer.entities(); }},
               {[&] { discoverer.cleanSubscriptions(); }, 2}});
    EXPECT_TRUE(discoverer.discoverSync(TIMEOUT_S, true));
    EXPECT_EQ(discoverer.entities().at(1).name, "two");
}

TEST_F(AllAtOnce, TopicCleaner) {
    auto& cleaner = *t.objects.cleaner;
    std::atomic<int> topics{0};
    auto const clean = [&] {
        // A new one each time: a request for a topic that is being cleaned prolongs the first one.
        auto const topic = t.topic("dirt" + std::to_string(++topics));
        t.peer.publish(topic, "old", 0, true);
        cleaner.clean(topic, milliseconds::zero());
    };
    allAtOnce({{clean, 10}, {clean, 10}, {[&] { cleaner.waitAllTasks(milliseconds(1)); }}});
    EXPECT_TRUE(cleaner.waitAllTasks(std::chrono::seconds(TIMEOUT_S)));
    endAtOnce(cleaner, {[&] {
                            clean();
                            cleaner.waitAllTasks(std::chrono::hours(1));
                        },
                        1});
    EXPECT_TRUE(cleaner.waitAllTasks(std::chrono::hours(1)));
}

TEST_F(AllAtOnce, Timer) {
    auto& timer = *t.objects.timer;
    allAtOnce({{[&] { t.objects.restartTimer(milliseconds(1), false); }},
               {[&] { t.objects.restartTimer(milliseconds::zero(), true); }},
               {[&] { timer.stop(); }}});
    t.events.clear();
    t.objects.restartTimer(milliseconds::zero(), true);
    EXPECT_TRUE(t.events.waitFor("timer"));
    endAtOnce(timer, {[&] {
                  t.objects.restartTimer(milliseconds::zero(), true);
                  timer.stop();
              }});
}

// The other columns are proved by the tests of each class, and by the scenarios `TheEndOf...` of
// the interleavings.
TEST(TheSecondTableOfTheGuide, AllowsEveryOperationWithEveryOtherWhereThatIsTested) {
    Names allowed;
    for (auto const& row : tableOfTheGuide("What may overlap")) {
        EXPECT_THAT(row.cells, testing::SizeIs(3)) << row.names[0];
        EXPECT_THAT(row.cells, testing::Each(testing::AnyOf("yes", "no", "-"))) << row.names[0];
        if (row.cells.at(0) == "yes") {
            allowed.push_back(row.names[0]);
        }
    }
    Names tests;
    auto const& program = *testing::UnitTest::GetInstance();
    for (int i = 0; i < program.total_test_suite_count(); ++i) {
        auto const& suite = *program.GetTestSuite(i);
        for (int j = 0; suite.name() == std::string("AllAtOnce") && j < suite.total_test_count();
             ++j) {
            tests.emplace_back(suite.GetTestInfo(j)->name());
        }
    }
    EXPECT_THAT(tests, testing::SizeIs(testing::Ge(10)));
    EXPECT_THAT(tests, testing::UnorderedElementsAreArray(allowed));
}

} // namespace
