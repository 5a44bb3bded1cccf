#include "client/registry/hash_table.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>

namespace {

using mqtt::HashTable;

auto is(int key) {
    return [key](int item) { return item == key; };
}

TEST(AHashTable, FindsWhatIsThereUnderItsHashOnly) {
    HashTable<std::unique_ptr<int>> table;
    EXPECT_EQ(table.find(0, is(1)), nullptr);
    table.insert(1, std::make_unique<int>(5));
    EXPECT_NE(table.find(1, is(5)), nullptr);
    EXPECT_EQ(table.find(1 + 1024, is(5)), nullptr) << "the same slot, another hash";
    table.clear();
    EXPECT_EQ(table.find(1, is(5)), nullptr);
    EXPECT_EQ(table.size(), 0U);
}

class ACrowdedHashTable : public testing::TestWithParam<unsigned> {};
INSTANTIATE_TEST_SUITE_P(DistinctHashes, ACrowdedHashTable, testing::Values(1U, 3U, 8U, 40U));

TEST_P(ACrowdedHashTable, FindsWhatIsThereAndNothingElseAfterEveryChange) {
    // Few hashes, the largest among them: long runs of slots, also across the end of the table.
    auto const hashOf = [](int key) {
        return std::size_t{0} - static_cast<unsigned>(key) % GetParam();
    };
    constexpr int KEYS = 60;
    std::mt19937 random(GetParam());
    HashTable<std::unique_ptr<int>> table;
    std::map<int, bool> there;
    for (int change = 0; change < 3000; ++change) {
        auto const key = static_cast<int>(random() % KEYS);
        if (there[key]) {
            table.erase(hashOf(key), is(key));
        } else {
            table.insert(hashOf(key), std::make_unique<int>(key));
        }
        there[key] = !there[key];
        for (int other = 0; other < KEYS; ++other) {
            ASSERT_EQ(table.find(hashOf(other), is(other)) != nullptr, there[other])
                << "change " << change << ", key " << other;
        }
        ASSERT_EQ(table.size(),
                  static_cast<std::size_t>(std::count_if(there.begin(), there.end(),
                                                         [](auto& one) { return one.second; })));
    }
}

} // namespace
