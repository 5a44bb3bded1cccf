// Overlapping calls of one object, as the guide's second table allows them. The sanitizers find
// data races; here the object has to work afterwards.

#include "callback_test.hpp"
#include "guide.hpp"

#include "support/timeout_factor.hpp"

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

/// Each of the calls on a thread of its own, again and again.
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
                   }},
                   {[&] { client.communicationState(); }}});
    client.release(&other);
    // A client that was disconnected last stays so.
    client.connect("", -1, TIMEOUT_S);
    EXPECT_TRUE(support::becomesConnected(client));
    t.flush();
}

TEST_F(AllAtOnce, MqttData) {
    auto& endpoint = t.objects.makeEndpoint();
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
    auto& requester = t.objects.makeRequester("echo");
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
    allAtOnce({{[&] { requester.terminate(); }, 1}, {[&] { requester.terminate(); }, 1}, {[&] {
                   request();
               }}});
    EXPECT_EQ(request(), Code::CANCELLED);
}

TEST_F(AllAtOnce, RequestReplyServer) {
    auto& server = t.objects.makeServer();
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
    auto& proxy = t.objects.makeTimeProxy();
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
    allAtOnce({{[&] { proxy.terminate(); }, 1},
               {[&] { proxy.terminate(); }, 1},
               {[&] { proxy.stop(); }, 1}});
    EXPECT_FALSE(proxy.startSync(id));
}

TEST_F(AllAtOnce, SynchronizedTimeBaseMqttAdaptor) {
    auto& timeBase = t.objects.makeTimeBase();
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
    auto& binder = t.objects.makeBinder();
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
    allAtOnce({{[&] { binder.terminate(); }, 1},
               {[&] { binder.terminate(); }, 1},
               {[&] { binder.unbind(TIMEOUT_S); }, 1}});
    EXPECT_EQ(binder.bind(id, TIMEOUT_S), Binder::Error::CANCELLED);
}

TEST_F(AllAtOnce, ServiceDiscovererMqtt) {
    auto& discoverer = t.objects.makeDiscoverer("far/links");
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
    auto& cleaner = t.objects.makeCleaner();
    std::atomic<int> topics{0};
    auto const clean = [&] {
        // A new one each time: a request for a topic that is being cleaned prolongs the first one.
        auto const topic = t.topic("dirt" + std::to_string(++topics));
        t.peer.publish(topic, "old", 0, true);
        cleaner.clean(topic, milliseconds::zero());
    };
    allAtOnce({{clean, 10}, {clean, 10}, {[&] { cleaner.waitAllTasks(milliseconds(1)); }}});
    EXPECT_TRUE(cleaner.waitAllTasks(std::chrono::seconds(TIMEOUT_S)));
    allAtOnce({{[&] { cleaner.terminate(); }, 1},
               {[&] { cleaner.terminate(); }, 1},
               {clean, 1},
               {[&] { cleaner.waitAllTasks(std::chrono::hours(1)); }, 1}});
    EXPECT_TRUE(cleaner.waitAllTasks(std::chrono::hours(1)));
}

TEST_F(AllAtOnce, Timer) {
    auto& timer = t.objects.makeTimer();
    allAtOnce({{[&] { t.objects.restartTimer(milliseconds(1), false); }},
               {[&] { t.objects.restartTimer(milliseconds::zero(), true); }},
               {[&] { timer.stop(); }}});
    t.events.clear();
    t.objects.restartTimer(milliseconds::zero(), true);
    EXPECT_TRUE(t.events.waitFor("timer"));
    allAtOnce({{[&] { timer.terminate(); }, 1},
               {[&] { timer.terminate(); }, 1},
               {[&] { t.objects.restartTimer(milliseconds::zero(), true); }},
               {[&] { timer.stop(); }}});
}

TEST(TheSecondTableOfTheGuide, HasATestForEveryYesAndNoOther) {
    Names const suites{"AllAtOnce", "DestroyedDuringACall", "DestroyedDuringAWait"};
    Names expected;
    for (auto const& row : tableOfTheGuide("What may overlap")) {
        ASSERT_EQ(row.cells.size(), suites.size()) << row.names[0];
        for (std::size_t i = 0; i < suites.size(); ++i) {
            EXPECT_THAT(row.cells[i], testing::AnyOf("yes", "no", "-")) << row.names[0];
            if (row.cells[i] == "yes") {
                expected.push_back(suites[i] + " " + row.names[0]);
            }
        }
    }
    Names tests;
    auto const& program = *testing::UnitTest::GetInstance();
    for (int i = 0; i < program.total_test_suite_count(); ++i) {
        auto const& suite = *program.GetTestSuite(i);
        for (int j = 0; j < suite.total_test_count(); ++j) {
            if (std::count(suites.begin(), suites.end(), suite.name()) > 0) {
                tests.push_back(std::string(suite.name()) + " " + suite.GetTestInfo(j)->name());
            }
        }
    }
    EXPECT_THAT(tests, testing::SizeIs(testing::Gt(20)));
    EXPECT_THAT(tests, testing::UnorderedElementsAreArray(expected));
}

} // namespace
