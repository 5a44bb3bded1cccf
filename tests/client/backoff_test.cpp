#include "client/backoff.hpp"

#include <gtest/gtest.h>

#include <climits>
#include <thread>
#include <vector>

namespace {

TEST(TheReconnectDelay, GrowsWithTheSquareOfTheAttemptUpToFifteenSeconds) {
    struct Row {
        int attempt;
        long milliseconds;
    };
    // The square of 46341 is beyond an int.
    for (auto const& [attempt, milliseconds] :
         {Row{0, 0}, Row{1, 500}, Row{2, 2000}, Row{3, 4500}, Row{4, 8000}, Row{5, 12500},
          Row{6, 15000}, Row{7, 15000}, Row{2072, 15000}, Row{46340, 15000}, Row{46341, 15000},
          Row{65536, 15000}, Row{INT_MAX, 15000}}) {
        EXPECT_EQ(mqtt::reconnectDelay(attempt).count(), milliseconds) << attempt;
    }
}

TEST(TheCountOfAttempts, CountsThoseOfAllClientsSinceTheLastSuccessAndDoesNotOverflow) {
    EXPECT_EQ(mqtt::nextReconnectAttempt(), 1);
    EXPECT_EQ(mqtt::nextReconnectAttempt(), 2);
    mqtt::resetReconnectAttempts();
    constexpr int THREADS = 4;
    constexpr int EACH = 50'000;
    std::vector<std::thread> clients;
    for (int i = 0; i < THREADS; ++i) {
        clients.emplace_back([] {
            for (int attempt = 0; attempt < EACH; ++attempt) {
                mqtt::nextReconnectAttempt();
            }
        });
    }
    for (auto& client : clients) {
        client.join();
    }
    EXPECT_EQ(mqtt::nextReconnectAttempt(), THREADS * EACH + 1);
    for (int i = 0; i < 1'000'000; ++i) {
        mqtt::nextReconnectAttempt();
    }
    EXPECT_EQ(mqtt::nextReconnectAttempt(), 1'000'000);
}

} // namespace
