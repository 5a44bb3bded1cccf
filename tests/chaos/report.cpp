#include "chaos/report.hpp"

#include <iostream>

namespace chaos {

void Report::violation(std::string const& what) {
    constexpr std::size_t KEPT = 40;
    std::lock_guard<std::mutex> const lock(mutex_);
    if (++violationCount_ <= KEPT) {
        violations_.push_back(what);
        // At once, so that the log shows when it happened.
        std::cout << "VIOLATION: " << what << std::endl;
    }
}

void Report::count(std::string const& name, std::uint64_t n) {
    std::lock_guard<std::mutex> const lock(mutex_);
    counts_[name] += n;
}

std::uint64_t Report::violations() const {
    std::lock_guard<std::mutex> const lock(mutex_);
    return violationCount_;
}

void Report::print(std::ostream& out) const {
    std::lock_guard<std::mutex> const lock(mutex_);
    for (auto const& [name, n] : counts_) {
        out << "  " << name << ": " << n << '\n';
    }
    out << "  VIOLATIONS: " << violationCount_ << '\n';
    for (auto const& what : violations_) {
        out << "    " << what << '\n';
    }
}

} // namespace chaos
