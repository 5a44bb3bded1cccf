// Who waits on a client's worker thread for what that thread has to read waits in vain. The
// waits, one of each kind in a message of its own client, are made beside each other: some cannot
// be told to be short.

#include "guide.hpp"
#include "operations.hpp"

#include <gmock/gmock.h>

#include <map>
#include <thread>

namespace {

using Binder = zym::common::Binder;
using Code = mqtt::RequestReply::ErrorCode;
using Error = mqtt::MqttClient::Error;

constexpr std::uint32_t A_SECOND = 1;
constexpr std::uint32_t WITHOUT_LIMIT = UINT32_MAX;

/// A wait, and whether it has ended as one in vain does.
using Wait = std::function<bool(Stage&)>;

bool waitForReply(Stage& stage, bool already) {
    auto& requester = stage.things.makeRequester("echo");
    if (already) {
        return stage.things.request() == Code::PENDING
               && requester.waitEndOfRequest(A_SECOND) == Code::TIMEOUT;
    }
    return requester.requestWait(stage.things.id, zym::common::Uuid::NIL,
                                 std::make_shared<NumberData>(1), nullptr, A_SECOND)
           == Code::TIMEOUT;
}

/// The time is up long before anything of it has been seen to be done.
template <class Call>
bool takesTheTime(Call const& call, std::chrono::seconds time) {
    auto const start = std::chrono::steady_clock::now();
    call();
    return std::chrono::steady_clock::now() - start >= time;
}

bool publishEndpoint(Stage& stage) {
    stage.things.makeEndpoint().publishWait();
    return true; // it does not say
}

bool unbind(Stage& stage) {
    // Bound by the test's thread. For us it is over without an answer too.
    return stage.things.binder->unbindSync(conv::SecondsDuration::NO_TIMEOUT)
           == Binder::Error::SUCCESS;
}

std::map<std::string, Wait> waits() {
    return {
        {"MqttClient/publishWait",
         [](Stage& s) {
             return s.client->publishWait(s.topic("x"), "hello", 2, false, WITHOUT_LIMIT)
                    == Error::TIMEOUT;
         }},
        {"MqttClient/disconnect",
         [](Stage& s) { return s.client->disconnect(WITHOUT_LIMIT) == Error::TIMEOUT; }},
        {"MqttData/publishWait", publishEndpoint},
        {"MqttData/cleanWait",
         [](Stage& s) { return s.things.makeEndpoint().cleanWait() == Error::TIMEOUT; }},
        {"RequestReplyClient/requestWait", [](Stage& s) { return waitForReply(s, false); }},
        {"RequestReplyClient/waitEndOfRequest", [](Stage& s) { return waitForReply(s, true); }},
        {"SynchronizedTimeBaseMqttProxy/synchronize",
         [](Stage& s) { return !s.things.makeTimeProxy().synchronize(world().device, A_SECOND); }},
        {"BinderMqttProxy/bindSync",
         [](Stage& s) {
             auto& binder = s.callers.makeBinder();
             return binder.bindSync(world().device, conv::SecondsDuration::NO_TIMEOUT)
                    == Binder::Error::TIMEOUT;
         }},
        {"BinderMqttProxy/unbindSync", unbind},
        {"ServiceDiscovererMqtt/discoverSync",
         [](Stage& s) {
             return !s.things.makeDiscoverer("far/links").discoverSync(WITHOUT_LIMIT, true);
         }},
        {"ServiceDiscovererMqtt/waitChange",
         [](Stage& s) {
             return !s.things.makeDiscoverer("far/links").waitChange(WITHOUT_LIMIT, true);
         }},
    };
}

bool waitsInVain(Wait const& wait, Stage& stage) {
    auto& binder = stage.things.makeBinder();
    EXPECT_EQ(binder.bindSync(world().device, PATIENCE), Binder::Error::SUCCESS);
    support::Watched<int> ended;
    bool inVain = false;
    stage.callersEar.setHook([&](std::string const& event) {
        if (event.rfind("message", 0) != 0) {
            return;
        }
        inVain = wait(stage);
        ended.change([](int& count) { ++count; });
    });
    EXPECT_EQ(stage.client->subscribe(stage.topic("go"), &stage.callersEar, 0), Error::SUCCESS);
    EXPECT_EQ(stage.client->publish(stage.topic("go"), "now", 0, false), Error::SUCCESS);
    EXPECT_TRUE(ended.waitFor([](int count) { return count == 1; }));
    stage.client->release(&stage.callersEar);
    return inVain;
}

TEST(AWaitInVain, EndsByTimeOut) {
    auto const all = waits();
    std::vector<std::unique_ptr<Stage>> stages;
    std::vector<std::thread> threads;
    for (auto const& [name, wait] : all) {
        stages.push_back(std::make_unique<Stage>());
        threads.emplace_back([&name = name, &wait = wait, &stage = *stages.back()] {
            EXPECT_TRUE(waitsInVain(wait, stage)) << name;
            // What was asked for is done all the same, and the client goes on.
            if (name != "MqttClient/disconnect") {
                return stage.flush();
            }
            EXPECT_TRUE(support::eventually([&] {
                return stage.client->communicationState() == conv::ComState::DISCONNECTED;
            }));
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

TEST(AWaitInVain, EndsByTimeOutInTheCleanersOwnCallToo) {
    Stage stage;
    auto& cleaner = stage.things.makeCleaner();
    support::Watched<int> ended;
    bool done = true;
    stage.ear.setHook([&](std::string const& event) {
        if (event != "all cleaned") {
            return;
        }
        done = cleaner.waitAllTasks(std::chrono::hours(1));
        ended.change([](int& count) { ++count; });
    });
    stage.peer.publish(stage.topic("dirt"), "old", 2, true);
    cleaner.clean(stage.topic("dirt"), std::chrono::milliseconds::zero());
    EXPECT_TRUE(ended.waitFor([](int count) { return count == 1; }));
    EXPECT_FALSE(done);
}

TEST(TheFirstTableOfTheGuide, NamesTheWaitsInVain) {
    std::vector<std::string> inTheTable;
    for (auto const& row : tableOfTheGuide("Which operation may be called from which callback")) {
        if (row.cells.at(0) == "in vain") {
            inTheTable.insert(inTheTable.end(), row.names.begin(), row.names.end());
        }
    }
    std::vector<std::string> tested;
    for (auto const& wait : waits()) {
        tested.push_back(wait.first);
    }
    EXPECT_THAT(inTheTable, testing::UnorderedElementsAreArray(tested));
}

} // namespace
