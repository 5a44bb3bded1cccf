#include "client/registry/hash_table.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <set>

namespace {

auto is(int key) {
    return [key](int item) { return item == key; };
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
    mqtt::HashTable<std::unique_ptr<int>> table;
    std::set<int> there;
    for (int change = 0; change < 3000; ++change) {
        for (int key = 0; key < KEYS; ++key) {
            ASSERT_EQ(table.find(hashOf(key), is(key)) != nullptr, there.count(key) == 1)
                << "change " << change << ", key " << key;
        }
        ASSERT_EQ(table.size(), there.size());
        auto const key = static_cast<int>(random() % KEYS);
        if (there.erase(key) == 1) {
            table.erase(hashOf(key), is(key));
        } else {
            table.insert(hashOf(key), std::make_unique<int>(key));
            there.insert(key);
        }
    }
}

} // namespace
