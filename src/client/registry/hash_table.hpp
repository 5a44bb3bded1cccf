#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

namespace mqtt {

/// Pointers to items that contain their own key, found by the hash of the key. The slots are one
/// array and contain the hash: a search among thousands of items reads one cache line in addition
/// to the item itself, where the standard tables follow a chain of nodes. Not safe for use from two
/// threads at once.
template <class Pointer>
class HashTable {
public:
    /// @param isWanted tells the item from others with the same hash
    /// @return the place of the pointer, valid until the next insertion or removal; or null
    template <class IsWanted>
    Pointer const* find(std::size_t hash, IsWanted const& isWanted) const {
        if (slots_.empty()) {
            return nullptr;
        }
        for (auto i = home(hash); slots_[i].item != nullptr; i = next(i)) {
            if (slots_[i].hash == hash && isWanted(*slots_[i].item)) {
                return &slots_[i].item;
            }
        }
        return nullptr;
    }

    /// @throws std::bad_alloc nothing has changed then
    void insert(std::size_t hash, Pointer item) {
        if ((count_ + 1) * 4 > slots_.size() * 3) {
            grow();
        }
        place({hash, std::move(item)});
        ++count_;
    }

    template <class IsWanted>
    void erase(std::size_t hash, IsWanted const& isWanted) noexcept {
        auto gap = home(hash);
        while (slots_[gap].hash != hash || !isWanted(*slots_[gap].item)) {
            gap = next(gap);
        }
        // A search ends at an empty slot: items that were placed after this slot move up to it.
        for (auto i = next(gap); slots_[i].item != nullptr; i = next(i)) {
            if (distance(home(slots_[i].hash), i) >= distance(gap, i)) {
                slots_[gap] = std::move(slots_[i]);
                gap = i;
            }
        }
        slots_[gap] = Slot();
        --count_;
    }

    void clear() noexcept {
        slots_.clear();
        count_ = 0;
    }

    std::size_t size() const noexcept { return count_; }

private:
    struct Slot {
        std::size_t hash = 0;
        Pointer item = nullptr;
    };

    // The number of slots is a power of two.
    std::size_t home(std::size_t hash) const { return hash & (slots_.size() - 1); }
    std::size_t next(std::size_t i) const { return home(i + 1); }
    std::size_t distance(std::size_t from, std::size_t to) const { return home(to - from); }

    void place(Slot slot) {
        auto i = home(slot.hash);
        while (slots_[i].item != nullptr) {
            i = next(i);
        }
        slots_[i] = std::move(slot);
    }

    void grow() {
        constexpr std::size_t FEWEST = 8;
        std::vector<Slot> old(std::max(FEWEST, slots_.size() * 2));
        old.swap(slots_);
        for (auto& slot : old) {
            if (slot.item != nullptr) {
                place(std::move(slot));
            }
        }
    }

    std::vector<Slot> slots_;
    std::size_t count_ = 0;
};

} // namespace mqtt
