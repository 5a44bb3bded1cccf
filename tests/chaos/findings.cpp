#include "chaos/findings.hpp"

#include <iostream>

namespace chaos {

namespace {

constexpr std::size_t KEPT = 40;

} // namespace

void Findings::breach(std::string const& what) {
    std::lock_guard<std::mutex> const lock(mutex_);
    if (++breachCount_ > KEPT) {
        return;
    }
    breaches_.push_back(what);
    // At once, so that it stands in the log where it happened.
    std::cout << "BREACH: " << what << std::endl;
}

void Findings::count(std::string const& name, std::uint64_t n) {
    std::lock_guard<std::mutex> const lock(mutex_);
    counts_[name] += n;
}

std::uint64_t Findings::counted(std::string const& name) const {
    std::lock_guard<std::mutex> const lock(mutex_);
    auto const found = counts_.find(name);
    return found == counts_.end() ? 0 : found->second;
}

std::uint64_t Findings::breaches() const {
    std::lock_guard<std::mutex> const lock(mutex_);
    return breachCount_;
}

std::vector<std::string> Findings::firstBreaches() const {
    std::lock_guard<std::mutex> const lock(mutex_);
    return breaches_;
}

void Findings::print(std::ostream& out) const {
    std::lock_guard<std::mutex> const lock(mutex_);
    for (auto const& [name, n] : counts_) {
        out << "  " << name << ": " << n << '\n';
    }
    out << "  BREACHES: " << breachCount_ << '\n';
    for (auto const& what : breaches_) {
        out << "    " << what << '\n';
    }
}

} // namespace chaos
