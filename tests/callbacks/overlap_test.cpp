// A test for every cell of the guide's second table that says that calls may overlap. Whether
// they get in each other's way is for the sanitizers to see; here the object has to work
// afterwards.

#include "guide.hpp"
#include "stage.hpp"

#include "support/timeout_factor.hpp"

#include <gmock/gmock.h>

#include <set>
#include <thread>
#include <vector>

namespace {

using Binder = zym::common::Binder;
using Code = mqtt::RequestReply::ErrorCode;
using Error = mqtt::MqttClient::Error;
using Lock = mqtt::MqttDataBase::Lock;
using std::chrono::milliseconds;
using zym::common::Uuid;

constexpr int ROUNDS = 40 / support::TIMEOUT_FACTOR;
/// A wait that others may well make last that long.
constexpr std::uint32_t SHORT = 1;

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
    /// A peer that keeps publishing, until the calls are done, what the object listens to.
    void underMessages(std::string const& topic, std::string const& payload,
                       std::vector<Repeated> calls) {
        calls.push_back({[=] { stage.peer.publish(topic, payload, 0); }, 5 * ROUNDS});
        allAtOnce(calls);
        // With its acknowledgement the broker has dealt with all before it.
        stage.peer.publish(stage.topic("end"), "", 2);
    }

    static void ignore(Error /*result*/) {}

    Stage stage;
};

TEST_F(AllAtOnce, MqttClient) {
    auto& client = *stage.client;
    auto const x = stage.topic("x");
    Ear other;
    Ear listener;
    underMessages(x, "hello",
                  {{[&] { client.publish(x, "1", 2, false); }},
                   {[&] { client.publishWait(x, "2", 1, false, SHORT); }, 4},
                   {[&] { client.clear(x); }},
                   {[&] {
                       ignore(client.subscribe(x, &stage.ear, 1));
                       client.unsubscribe(x, &stage.ear);
                   }},
                   {[&] {
                        ignore(client.subscribe(x, &other, 1));
                        client.unsubscribeWait(x, &other, SHORT);
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
                   {[&] { client.disconnect(SHORT); }, 4},
                   {[&] { client.connect("", -1, SHORT); }, 4},
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
    // Whoever has come last: nobody connects a client that has been disconnected.
    client.connect("", -1, PATIENCE);
    EXPECT_TRUE(support::becomesConnected(client));
    stage.flush();
}

TEST_F(AllAtOnce, MqttData) {
    auto& endpoint = stage.things.makeEndpoint();
    underMessages(stage.topic("value"), R"({"@id": "new"})",
                  {{[&] { endpoint.publish(); }},
                   {[&] { endpoint.publishWait(); }, 1},
                   {[&] { endpoint.clean(); }},
                   {[&] { endpoint.setCurrentValueAsWill(); }},
                   {[&] {
                       Lock const lock(endpoint.mutex());
                       endpoint.value.id = "mine";
                       endpoint.setTopicBase(stage.topic("value"));
                   }},
                   {[&] { endpoint.subscribe(&stage.ear, 1); }},
                   {[&] { endpoint.unsubscribe(); }},
                   {[&] {
                        Lock lock(endpoint.mutex());
                        endpoint.unsubscribeWait(lock);
                    },
                    1},
                   {[&] { endpoint.release(); }}});
    endpoint.release();
    EXPECT_EQ(endpoint.subscribe(&stage.ear, 1), Error::SUCCESS);
    EXPECT_TRUE(stage.reaches(stage.topic("value"), R"({"@id": "last"})", "value last"));
}

TEST_F(AllAtOnce, RequestReplyClient) {
    auto& requester = stage.things.makeRequester("echo");
    auto const data = std::make_shared<NumberData>();
    auto const ask = [&] {
        return requester.requestWait(stage.things.id, Uuid::NIL, data, nullptr, PATIENCE);
    };
    allAtOnce({{[&] { stage.things.request(); }},
               {[&] { ask(); }},
               {[&] { ask(); }},
               {[&] { requester.waitEndOfRequest(PATIENCE); }},
               {[&] { requester.cancel(); }}});
    requester.cancel();
    EXPECT_EQ(ask(), Code::SUCCESS);
    allAtOnce({{[&] { requester.terminate(); }, 1}, {[&] { requester.terminate(); }, 1}, {[&] {
                   ask();
               }}});
    EXPECT_EQ(ask(), Code::CANCELLED);
}

TEST_F(AllAtOnce, RequestReplyServer) {
    auto& server = stage.things.makeServer();
    EXPECT_EQ(stage.things.serve(), Error::SUCCESS);
    underMessages(stage.topic("service?\?/" + stage.things.id.base64URL()),
                  R"({"$reqId": 1, "number": 7})",
                  {{[&] { stage.things.serve(); }},
                   {[&] { server.unsubscribe(); }},
                   {[&] { server.unsubscribeWait(); }, 1},
                   {[&] { server.release(); }},
                   {[&] { EXPECT_EQ(server.requestTopic().text(), stage.topic("service?\?")); }}});
    server.release();
    EXPECT_EQ(stage.things.serve(), Error::SUCCESS);
    stage.flush();
    stage.ear.clear();
    stage.ask(stage.topic("service?\?"));
    EXPECT_EQ(stage.ear.count("request"), 1U);
}

TEST_F(AllAtOnce, SynchronizedTimeBaseMqttProxy) {
    auto& proxy = stage.things.makeTimeProxy();
    auto const device = world().device;
    allAtOnce({{[&] { proxy.startSync(device); }},
               {[&] { proxy.synchronize(device, PATIENCE); }, 5},
               {[&] { proxy.synchronize(device, PATIENCE); }, 5},
               {[&] { proxy.stop(); }},
               {[&] { proxy.forceSync(); }},
               {[&] { proxy.registerListener(&stage.ear); }},
               {[&] { proxy.timeBase(); }}});
    proxy.stop();
    EXPECT_TRUE(proxy.synchronize(device, PATIENCE));
    allAtOnce({{[&] { proxy.terminate(); }, 1},
               {[&] { proxy.terminate(); }, 1},
               {[&] { proxy.stop(); }, 1}});
    EXPECT_FALSE(proxy.startSync(device));
}

TEST_F(AllAtOnce, SynchronizedTimeBaseMqttAdaptor) {
    auto& timeBase = stage.things.makeTimeBase();
    auto const topic = stage.topic(stage.things.id.base64URL() + "/timeSync?\?");
    stage.ask(topic);
    EXPECT_EQ(timeBase.asked, 1);
    underMessages(topic + "/" + stage.things.id.base64URL(), R"({"$reqId": 1, "client": 1.5})",
                  {{[&] { timeBase.timeBase(); }},
                   {[&] { timeBase.terminate(); }, 1},
                   {[&] { timeBase.terminate(); }, 1}});
    stage.flush();
    int const asked = timeBase.asked;
    stage.ask(topic);
    EXPECT_EQ(timeBase.asked, asked);
}

TEST_F(AllAtOnce, BinderMqttProxy) {
    auto& binder = stage.things.makeBinder();
    auto const device = world().device;
    allAtOnce({{[&] { binder.bind(device, PATIENCE); }},
               {[&] { binder.bindSync(device, PATIENCE); }, 5},
               {[&] { binder.unbind(PATIENCE); }},
               {[&] { binder.unbindSync(PATIENCE); }, 5},
               {[&] { binder.forceTimeBaseSync(); }},
               {[&] { binder.timeBase(); }},
               {[&] { binder.isTimeBaseSynchronized(); }}});
    EXPECT_TRUE(support::eventually(
        [&] { return binder.unbindSync(PATIENCE) == Binder::Error::NOT_BOUND; }));
    EXPECT_EQ(binder.bindSync(device, PATIENCE), Binder::Error::SUCCESS);
    allAtOnce({{[&] { binder.terminate(); }, 1},
               {[&] { binder.terminate(); }, 1},
               {[&] { binder.unbind(PATIENCE); }, 1}});
    EXPECT_EQ(binder.bind(device, PATIENCE), Binder::Error::CANCELLED);
}

TEST_F(AllAtOnce, ServiceDiscovererMqtt) {
    auto& discoverer = stage.things.makeDiscoverer("far/links");
    // Who stops listening makes a run under way end by time-out.
    allAtOnce({{[&] { discoverer.discoverSync(SHORT, true); }, 4},
               {[&] { discoverer.discoverSync(SHORT, false); }, 4},
               {[&] { discoverer.waitChange(0, true); }, 4},
               {[&] { discoverer.links(); }},
               {[&] { discoverer.entities(); }},
               {[&] { discoverer.cleanSubscriptions(); }, 2}});
    EXPECT_TRUE(discoverer.discoverSync(PATIENCE, true));
    EXPECT_EQ(discoverer.entities().at(1).name, "two");
}

TEST_F(AllAtOnce, TopicCleaner) {
    auto& cleaner = stage.things.makeCleaner();
    std::atomic<int> topics{0};
    auto const clean = [&] {
        // Another one each time: who asks again for what is being cleaned asks for more time.
        auto const topic = stage.topic("dirt" + std::to_string(++topics));
        stage.peer.publish(topic, "old", 0, true);
        cleaner.clean(topic, milliseconds::zero());
    };
    allAtOnce({{clean, 10}, {clean, 10}, {[&] { cleaner.waitAllTasks(milliseconds(1)); }}});
    EXPECT_TRUE(cleaner.waitAllTasks(std::chrono::seconds(PATIENCE)));
    allAtOnce({{[&] { cleaner.terminate(); }, 1},
               {[&] { cleaner.terminate(); }, 1},
               {clean, 1},
               {[&] { cleaner.waitAllTasks(std::chrono::hours(1)); }, 1}});
    EXPECT_TRUE(cleaner.waitAllTasks(std::chrono::hours(1)));
}

TEST_F(AllAtOnce, Timer) {
    auto& timer = stage.things.makeTimer();
    allAtOnce({{[&] { stage.things.restartTimer(milliseconds(1), false); }},
               {[&] { stage.things.restartTimer(milliseconds::zero(), true); }},
               {[&] { timer.stop(); }}});
    stage.ear.clear();
    stage.things.restartTimer(milliseconds::zero(), true);
    EXPECT_TRUE(stage.ear.waitFor("timer"));
    allAtOnce({{[&] { timer.terminate(); }, 1},
               {[&] { timer.terminate(); }, 1},
               {[&] { stage.things.restartTimer(milliseconds::zero(), true); }},
               {[&] { timer.stop(); }}});
}

/// The tests of this program, by suite and name.
std::set<std::string> testsOf(std::vector<std::string> const& suites) {
    std::set<std::string> tests;
    auto const& program = *testing::UnitTest::GetInstance();
    for (int i = 0; i < program.total_test_suite_count(); ++i) {
        auto const& suite = *program.GetTestSuite(i);
        if (std::find(suites.begin(), suites.end(), suite.name()) == suites.end()) {
            continue;
        }
        for (int j = 0; j < suite.total_test_count(); ++j) {
            tests.insert(std::string(suite.name()) + " " + suite.GetTestInfo(j)->name());
        }
    }
    return tests;
}

TEST(TheSecondTableOfTheGuide, HasATestForEveryYesAndNoOther) {
    std::vector<std::string> const suites{"AllAtOnce", "DestroyedDuringACall",
                                          "DestroyedDuringAWait"};
    std::set<std::string> expected;
    for (auto const& row : tableOfTheGuide("What may overlap")) {
        ASSERT_EQ(row.cells.size(), suites.size()) << row.names[0];
        for (std::size_t i = 0; i < suites.size(); ++i) {
            EXPECT_THAT(row.cells[i], testing::AnyOf("yes", "no", "-")) << row.names[0];
            if (row.cells[i] == "yes") {
                expected.insert(suites[i] + " " + row.names[0]);
            }
        }
    }
    EXPECT_THAT(expected, testing::Not(testing::IsEmpty()));
    EXPECT_EQ(testsOf(suites), expected);
}

} // namespace
