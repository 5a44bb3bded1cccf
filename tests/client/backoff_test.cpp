#include "client/backoff.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <thread>
#include <vector>

namespace {

using testing::ElementsAre;

TEST(TheReconnectDelay, GrowsWithTheSquareOfTheAttemptUpToFifteenSeconds) {
    std::vector<long long> delays;
    for (int attempt = 1; attempt <= 7; ++attempt) {
        delays.push_back(mqtt::reconnectDelay(attempt).count());
    }
    EXPECT_THAT(delays, ElementsAre(500, 2000, 4500, 8000, 12500, 15000, 15000));
}

TEST(TheReconnectDelay, IsNoneForAttemptZero) {
    EXPECT_EQ(mqtt::reconnectDelay(0).count(), 0);
}

TEST(TheReconnectDelay, NeverTurnsNegativeHoweverManyAttemptsFailed) {
    for (int const attempt : {2072, 46340, 46341, 65536, INT_MAX}) {
        EXPECT_EQ(mqtt::reconnectDelay(attempt).count(), 15000) << attempt;
    }
}

TEST(TheCountOfAttempts, StartsAtOneAndStartsAnewAfterASuccess) {
    mqtt::resetReconnectAttempts();
    EXPECT_EQ(mqtt::nextReconnectAttempt(), 1);
    EXPECT_EQ(mqtt::nextReconnectAttempt(), 2);
    mqtt::resetReconnectAttempts();
    EXPECT_EQ(mqtt::nextReconnectAttempt(), 1);
}

TEST(TheCountOfAttempts, StopsGrowingBeforeItOverflows) {
    mqtt::resetReconnectAttempts();
    int last = 0;
    for (int i = 0; i < 1'000'100; ++i) {
        last = mqtt::nextReconnectAttempt();
    }
    EXPECT_EQ(last, 1'000'000);
    EXPECT_EQ(mqtt::nextReconnectAttempt(), last);
    mqtt::resetReconnectAttempts();
}

TEST(TheCountOfAttempts, CountsThoseOfAllClients) {
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
    mqtt::resetReconnectAttempts();
}

} // namespace
