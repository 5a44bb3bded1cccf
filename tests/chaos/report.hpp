#pragma once

#include <cstdint>
#include <iostream>
#include <map>
#include <mutex>
#include <string>

namespace chaos {

/// What a run counts, and the violations of what must hold.
class Report {
public:
    void violation(std::string const& what) {
        std::lock_guard<std::mutex> const lock(mutex_);
        ++violations_;
        // At once, so that the log shows when it happened.
        std::cout << "VIOLATION: " << what << std::endl;
    }
    void check(bool holds, std::string const& otherwise) {
        if (!holds) {
            violation(otherwise);
        }
    }
    void count(std::string const& name, std::uint64_t n = 1) {
        std::lock_guard<std::mutex> const lock(mutex_);
        counts_[name] += n;
    }

    std::uint64_t violations() const {
        std::lock_guard<std::mutex> const lock(mutex_);
        return violations_;
    }
    /// One line per count, by name.
    void print() const {
        std::lock_guard<std::mutex> const lock(mutex_);
        for (auto const& [name, n] : counts_) {
            std::cout << "  " << name << ": " << n << '\n';
        }
        std::cout << "  VIOLATIONS: " << violations_ << '\n';
    }

private:
    mutable std::mutex mutex_;
    std::map<std::string, std::uint64_t> counts_;
    std::uint64_t violations_ = 0;
};

} // namespace chaos
