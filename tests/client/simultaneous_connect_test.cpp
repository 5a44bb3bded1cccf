// What a client makes of callers who get in each other's way.

#include "client/client_on_a_script.hpp"
#include "support/watched.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

namespace {

using mqtt::MqttClient;
using support::StandIn;
using Error = MqttClient::Error;
using Operation = StandIn::Operation;

constexpr unsigned PATIENCE = 30; // seconds

/// Keeps the worker in one network step, so that all who connect wait for it, until two do.
class Crowd {
public:
    explicit Crowd(StandIn& script) {
        script.setHook(Operation::LOOP, [state = state_](auto const&) -> std::optional<int> {
            bool const first = state->change([](State& now) {
                bool const wasEmpty = !now.workerIsHere;
                now.workerIsHere = true;
                return wasEmpty;
            });
            if (first) {
                awaitTwo(*state);
            }
            return std::nullopt;
        });
        EXPECT_TRUE(state_->waitFor([](State const& now) { return now.workerIsHere; }));
    }

    void announce() {
        state_->change([](State& now) { ++now.callers; });
    }

private:
    struct State {
        bool workerIsHere = false;
        int callers = 0;
    };

    static void awaitTwo(support::Watched<State>& state) {
        EXPECT_TRUE(state.waitFor([](State const& now) { return now.callers == 2; }));
        // From their announcement it is a few instructions to where they wait.
        for (int i = 0; i < 1000; ++i) {
            std::this_thread::yield();
        }
    }

    std::shared_ptr<support::Watched<State>> state_ = std::make_shared<support::Watched<State>>();
};

TEST_F(AClientOnAScript, IsConnectedByOneOfTwoWhoTryAtOnce) {
    constexpr std::size_t ROUNDS = 20;
    for (std::size_t round = 1; round <= ROUNDS; ++round) {
        Crowd crowd(*script_);
        std::vector<Error> results(2);
        std::vector<std::thread> callers;
        for (auto& result : results) {
            callers.emplace_back([&] {
                crowd.announce();
                result = client_->connect("", -1, PATIENCE);
            });
        }
        for (auto& caller : callers) {
            caller.join();
        }
        EXPECT_EQ(std::count(results.begin(), results.end(), Error::SUCCESS), 1);
        EXPECT_EQ(std::count(results.begin(), results.end(), Error::CONNECTION_PENDING), 1);
        ASSERT_EQ(script_->count(Operation::CONNECT), round);
        ASSERT_EQ(client_->disconnect(PATIENCE), Error::SUCCESS);
    }
}

} // namespace
