#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace chaos {

/// What a run counts, and the violations of what must hold.
class Report {
public:
    /// The first ones are kept, all are counted.
    void violation(std::string const& what);
    void check(bool holds, std::string const& otherwise) {
        if (!holds) {
            violation(otherwise);
        }
    }
    void count(std::string const& name, std::uint64_t n = 1);

    std::uint64_t violations() const;
    /// One line per count, by name, then the violations.
    void print(std::ostream& out) const;

private:
    mutable std::mutex mutex_;
    std::map<std::string, std::uint64_t> counts_;
    std::vector<std::string> violations_;
    std::uint64_t violationCount_ = 0;
};

} // namespace chaos
